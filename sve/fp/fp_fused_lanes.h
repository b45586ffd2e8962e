// Lane helpers shared by the fused, complex and reduction families.
//
// Generic road: each library call gets its own FPSCR built from the control
// word, and its flags are merged into the status word afterwards.
// Fast road: one host instruction per lane on AArch64; elsewhere the same lane
// through the library under the application's FPCR, its flags merged into the
// word that stands in for the host's FPSR.
#pragma once

#include <cstdint>

#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/lib/fp_lib.h"

namespace fpx {

constexpr uint32_t kStatusKeep = 0xf800009fu;

// One library call on the generic road: f(FPSCR&) -> T.
template <typename F>
inline auto lib(CpuContext* c, F f) {
  FPSCR s = c->fpcr;
  const auto r = f(s);
  c->fpsr = (c->fpsr | s) & kStatusKeep;
  return r;
}

// The library type of a lane of `bytes` width.
template <unsigned Bytes> struct LibType;
template <> struct LibType<2> { using type = unsigned short; };
template <> struct LibType<4> { using type = unsigned int; };
template <> struct LibType<8> { using type = unsigned long; };
template <typename T> using lib_t = typename LibType<sizeof(T)>::type;

#if defined(__aarch64__)

inline uint32_t host_fmadd(uint32_t a, uint32_t n, uint32_t m, const cpu_state*) {
  float r, fa, fn, fm;
  __builtin_memcpy(&fa, &a, 4);
  __builtin_memcpy(&fn, &n, 4);
  __builtin_memcpy(&fm, &m, 4);
  asm volatile("fmadd %s0, %s1, %s2, %s3" : "=w"(r) : "w"(fn), "w"(fm), "w"(fa));
  uint32_t out;
  __builtin_memcpy(&out, &r, 4);
  return out;
}
inline uint64_t host_fmadd(uint64_t a, uint64_t n, uint64_t m, const cpu_state*) {
  double r, fa, fn, fm;
  __builtin_memcpy(&fa, &a, 8);
  __builtin_memcpy(&fn, &n, 8);
  __builtin_memcpy(&fm, &m, 8);
  asm volatile("fmadd %d0, %d1, %d2, %d3" : "=w"(r) : "w"(fn), "w"(fm), "w"(fa));
  uint64_t out;
  __builtin_memcpy(&out, &r, 8);
  return out;
}

#define FPX_HOST_BINARY(NAME, INSN)                                                  \
  inline uint32_t NAME(uint32_t a, uint32_t b, const cpu_state*) {                   \
    float r, fa, fb;                                                                 \
    __builtin_memcpy(&fa, &a, 4);                                                    \
    __builtin_memcpy(&fb, &b, 4);                                                    \
    asm volatile(INSN " %s0, %s1, %s2" : "=w"(r) : "w"(fa), "w"(fb));                \
    uint32_t out;                                                                    \
    __builtin_memcpy(&out, &r, 4);                                                   \
    return out;                                                                      \
  }                                                                                  \
  inline uint64_t NAME(uint64_t a, uint64_t b, const cpu_state*) {                   \
    double r, fa, fb;                                                                \
    __builtin_memcpy(&fa, &a, 8);                                                    \
    __builtin_memcpy(&fb, &b, 8);                                                    \
    asm volatile(INSN " %d0, %d1, %d2" : "=w"(r) : "w"(fa), "w"(fb));                \
    uint64_t out;                                                                    \
    __builtin_memcpy(&out, &r, 8);                                                   \
    return out;                                                                      \
  }
FPX_HOST_BINARY(host_fmaxnm, "fmaxnm")
FPX_HOST_BINARY(host_fminnm, "fminnm")
#undef FPX_HOST_BINARY

#else

// No host FP unit of the architecture: the library, under the application's FPCR.
template <typename F>
inline auto host_lib(const cpu_state* cs, F f) {
  FPSCR s = cs->fpcr & kCtxFpcrMask;
  const auto r = f(s);
  host_fpsr_merge(s & 0x9fu);
  return r;
}

template <typename T>
inline T host_fmadd(T a, T n, T m, const cpu_state* cs) {
  using L = lib_t<T>;
  return host_lib(cs, [&](FPSCR& s) { return T(FPMulAdd<L>(L(a), L(n), L(m), s)); });
}
template <typename T>
inline T host_fmaxnm(T a, T b, const cpu_state* cs) {
  using L = lib_t<T>;
  return host_lib(cs, [&](FPSCR& s) { return T(FPMaxNum<L>(L(a), L(b), s)); });
}
template <typename T>
inline T host_fminnm(T a, T b, const cpu_state* cs) {
  using L = lib_t<T>;
  return host_lib(cs, [&](FPSCR& s) { return T(FPMinNum<L>(L(a), L(b), s)); });
}

#endif

// Sign flip: the same on both roads, it never raises a flag.
template <typename T>
constexpr T neg(T x) {
  return T(x ^ (T(1) << (sizeof(T) * 8 - 1)));
}
template <typename T>
constexpr T neg_if(bool b, T x) {
  return b ? neg(x) : x;
}

}  // namespace fpx
