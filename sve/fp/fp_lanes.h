// The lane machinery of the floating-point vector families, on both roads.
//
// Generic road (`gen::`): one library call per active lane, each under an
// FPSCR set up afresh from the context's control word, its cumulative flags
// merged into the context's status word. No host floating-point instruction.
//
// Fast road (`fast_fp::`): single and double only (size code 2 or 3). On an
// AArch64 host each active lane is one instruction of the host (a 16-byte
// chunk of active lanes one vector instruction), whose flags land in the host FPSR that the adapter exchanges with cpu_state. On
// any other host the lane goes through the library under the application's
// FPCR, and the flags are merged into the stand-in FPSR (host_fpsr_merge), so
// that both hosts leave the same results and the same flags.
//
// An operation is a small struct:
//   lib(a, b, fpscr)  the library's operation on raw lane bits (any width)
//   host(a, b)        the host instruction on float / double (fast road only)
// Unary operations take one operand in both. `swapped<Op>` reverses the two
// operands (the R forms). Results are built in a temporary, so the destination
// may be any of the sources.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"
#include "sve/lib/fp_lib.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace fplanes {

// Lane types, by their generic names.
using F16 = unsigned short;
using F32 = unsigned int;
using D64 = unsigned long;

// The cumulative exception flags (IOC, DZC, OFC, UFC, IXC, IDC).
constexpr uint32_t kFlagBits = 0x9Fu;

template <class T> struct host_float;
template <> struct host_float<F32> { using type = float; };
template <> struct host_float<D64> { using type = double; };

template <class T> inline typename host_float<T>::type to_host(T bits) {
  typename host_float<T>::type f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}
template <class T, class F> inline T from_host(F f) {
  T bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

// ---- immediates -----------------------------------------------------------------

// The constants that the one selector bit of FADD/FSUB/FSUBR, FMUL and the
// minimum/maximum immediates stands for, as bit patterns per format.
enum class imm_kind { add, mul, minmax };

template <class T> constexpr T imm_bits(imm_kind k, unsigned sel);
template <> constexpr F32 imm_bits<F32>(imm_kind k, unsigned sel) {
  return k == imm_kind::add ? (sel ? 0x3f800000u : 0x3f000000u)
       : k == imm_kind::mul ? (sel ? 0x40000000u : 0x3f000000u)
                            : (sel ? 0x3f800000u : 0u);
}
template <> constexpr D64 imm_bits<D64>(imm_kind k, unsigned sel) {
  return k == imm_kind::add ? (sel ? 0x3ff0000000000000ul : 0x3fe0000000000000ul)
       : k == imm_kind::mul ? (sel ? 0x4000000000000000ul : 0x3fe0000000000000ul)
                            : (sel ? 0x3ff0000000000000ul : 0ul);
}

}  // namespace fplanes

// ---- the generic road -------------------------------------------------------------

namespace fplanes::gen {

using generic::active;
using generic::lane;
using generic::lane_count;
using generic::set_lane;

// One library call under the context's control word; its flags join the
// context's status word.
template <class Fn>
inline auto call(CpuContext* c, Fn&& fn) {
  FPSCR fpscr = c->fpcr;
  auto r = fn(fpscr);
  c->fpsr |= fpscr & kFlagBits;
  return r;
}

// Zdn = Pg ? op(Zdn, Zm) : Zdn
template <class T, class Op>
inline VecV vvm(const VecV& a, const PredV& p, const VecV& b, CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = lane<T>(a, i);
    if (active<T>(p, i)) {
      const T y = lane<T>(b, i);
      set_lane<T>(r, i, call(c, [&](FPSCR& f) { return static_cast<T>(op.lib(x, y, f)); }));
    } else {
      set_lane<T>(r, i, x);
    }
  }
  return r;
}

// Zd = op(Zn, Zm)
template <class T, class Op>
inline VecV vvx(const VecV& a, const VecV& b, CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = lane<T>(a, i), y = lane<T>(b, i);
    set_lane<T>(r, i, call(c, [&](FPSCR& f) { return static_cast<T>(op.lib(x, y, f)); }));
  }
  return r;
}

// Zd = Pg ? op(Zn) : Zd
template <class T, class Op>
inline VecV vm(const VecV& d, const PredV& p, const VecV& a, CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    if (active<T>(p, i)) {
      const T x = lane<T>(a, i);
      set_lane<T>(r, i, call(c, [&](FPSCR& f) { return static_cast<T>(op.lib(x, f)); }));
    } else {
      set_lane<T>(r, i, lane<T>(d, i));
    }
  }
  return r;
}

// Zd = op(Zn, Zm[segment index]): the index picks an element inside each
// 128-bit segment of Zm.
template <class T, class Op>
inline VecV vvix(const VecV& a, const VecV& b, uint64_t index, CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  constexpr unsigned m = 16 / sizeof(T) - 1;
  for (unsigned i = 0; i < n; ++i) {
    const T x = lane<T>(a, i), y = lane<T>(b, (i & ~m) + static_cast<unsigned>(index));
    set_lane<T>(r, i, call(c, [&](FPSCR& f) { return static_cast<T>(op.lib(x, y, f)); }));
  }
  return r;
}

// The immediate operand of a lane. Half precision keeps the single-precision
// pattern and narrows it for every lane (exact: the constants are 0, 0.5, 1
// and 2), under a control word without AHP and FZ16.
template <class T> inline T imm_lane(imm_kind k, unsigned sel, CpuContext* c);
template <> inline F32 imm_lane<F32>(imm_kind k, unsigned sel, CpuContext*) { return imm_bits<F32>(k, sel); }
template <> inline D64 imm_lane<D64>(imm_kind k, unsigned sel, CpuContext*) { return imm_bits<D64>(k, sel); }
template <> inline F16 imm_lane<F16>(imm_kind k, unsigned sel, CpuContext* c) {
  constexpr uint32_t kAHP = 1u << 26, kFZ16 = 1u << 19;
  FPSCR f = c->fpcr & ~(kAHP | kFZ16);
  const F16 h = fplib::FPConvert<F32, F16>(imm_bits<F32>(k, sel), FPRounding_ZERO, f);
  c->fpsr |= f & kFlagBits;
  return h;
}

// Zdn = Pg ? op(Zdn, imm) : Zdn
template <class T, class Op>
inline VecV vim(const VecV& a, const PredV& p, uint64_t sel, imm_kind k, CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = lane<T>(a, i);
    const T y = imm_lane<T>(k, static_cast<unsigned>(sel & 1u), c);
    if (active<T>(p, i))
      set_lane<T>(r, i, call(c, [&](FPSCR& f) { return static_cast<T>(op.lib(x, y, f)); }));
    else
      set_lane<T>(r, i, x);
  }
  return r;
}

}  // namespace fplanes::gen

// ---- the fast road ------------------------------------------------------------------

namespace fplanes::fast_fp {

using fast::active;
using fast::lane;
using fast::lanes;
using fast::set_lane;

#if defined(__aarch64__)
constexpr bool kHostFP = true;
#else
constexpr bool kHostFP = false;
#endif

// The flags of one fast instruction on a host without the AArch64 FPSR: the
// library runs under the application's FPCR, and what it raises is merged
// into the stand-in FPSR when the instruction ends.
struct soft_status {
  FPSCR fpscr;
  explicit soft_status(const cpu_state* cs) : fpscr(cs->fpcr & kCtxFpcrMask) {}
  ~soft_status() {
    if (!kHostFP) host_fpsr_merge(fpscr & kFlagBits);
  }
  soft_status(const soft_status&) = delete;
  soft_status& operator=(const soft_status&) = delete;
};

template <class T, class Op> inline T lane_op2(Op op, T x, T y, soft_status& st) {
  if constexpr (kHostFP) {
    (void)st;
    return from_host<T>(op.host(to_host(x), to_host(y)));
  } else {
    return static_cast<T>(op.lib(x, y, st.fpscr));
  }
}
template <class T, class Op> inline T lane_op1(Op op, T x, soft_status& st) {
  if constexpr (kHostFP) {
    (void)st;
    return from_host<T>(op.host(to_host(x)));
  } else {
    return static_cast<T>(op.lib(x, st.fpscr));
  }
}

// Size code 3 is double; the only other code that reaches a fast handler is 2.
template <class F> inline aarch64_decode_rc by_fp_size(int32_t size, F&& f) {
  return size == 3 ? f(D64{}) : f(F32{});
}

// ---- whole 16-byte chunks on the host's vector unit ----
//
// On an AArch64 host a chunk of 16 bytes whose lanes are all active is one
// AdvSIMD instruction (4 singles or 2 doubles) rather than one scalar
// instruction per lane. The vector instructions compute each lane as the
// scalar ones do, under the same FPCR (rounding, FZ, DN, AH), and raise the
// same cumulative flags in FPSR; an inactive lane is never computed, so a
// chunk with any inactive lane goes lane by lane. Only a chunk of all-active
// lanes takes the vector instruction.
constexpr unsigned kChunk = 16;

template <class T> constexpr unsigned chunk_lanes = kChunk / sizeof(T);

template <class T>
inline bool chunk_active(const unsigned char* pred) {
  return fast::all_active<T, kChunk>(pred);
}

#if defined(__aarch64__)
template <class T> struct host_vec;
template <> struct host_vec<F32> { using type = float32x4_t; };
template <> struct host_vec<D64> { using type = float64x2_t; };
template <class T> using vec_t = typename host_vec<T>::type;

template <class T> inline vec_t<T> vload(const unsigned char* p) {
  vec_t<T> v;
  std::memcpy(&v, p, kChunk);
  return v;
}
template <class T> inline void vstore(unsigned char* p, vec_t<T> v) { std::memcpy(p, &v, kChunk); }
#endif

// The merging walk: active lanes get op(Zdn, Zm), inactive ones keep Zdn.
// b is Zm, or the immediate in every lane.
template <class T, class Op>
inline aarch64_decode_rc merge_walk(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, Op op, const unsigned char* b) {
  const unsigned char* a = cs->z[zdn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  soft_status st(cs);
#pragma GCC unroll 3
  for (unsigned c = 0; c < kVecBytes; c += kChunk) {
#if defined(__aarch64__)
    if (chunk_active<T>(p + c)) {
      vstore<T>(out + c, Op::vhost(vload<T>(a + c), vload<T>(b + c)));
      continue;
    }
#endif
    for (unsigned i = c / sizeof(T); i < (c + kChunk) / sizeof(T); ++i) {
      const T x = lane<T>(a, i);
      set_lane<T>(out, i, active<T>(p, i) ? lane_op2<T>(op, x, lane<T>(b, i), st) : x);
    }
  }
  std::memcpy(cs->z[zdn.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

template <class T, class Op>
inline aarch64_decode_rc zpz_t(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, Op op) {
  return merge_walk<T>(cs, zdn, pg, op, cs->z[zm.number]);
}

// Zdn = Pg ? op(Zdn, Zm) : Zdn
template <class Op>
inline aarch64_decode_rc zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, Op op) {
  return by_fp_size(zdn.in_size, [&](auto t) { return zpz_t<decltype(t)>(cs, zdn, pg, zm, op); });
}

template <class T, class Op>
inline aarch64_decode_rc zzz_t(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm, Op op) {
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* b = cs->z[zm.number];
  unsigned char out[kVecBytes];
  soft_status st(cs);
#if defined(__aarch64__)
  (void)st;
  (void)op;
#pragma GCC unroll 3
  for (unsigned c = 0; c < kVecBytes; c += kChunk) vstore<T>(out + c, Op::vhost(vload<T>(a + c), vload<T>(b + c)));
#else
  for (unsigned i = 0; i < lanes<T>; ++i) set_lane<T>(out, i, lane_op2<T>(op, lane<T>(a, i), lane<T>(b, i), st));
#endif
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Zd = op(Zn, Zm)
template <class Op>
inline aarch64_decode_rc zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm, Op op) {
  return by_fp_size(zd.size, [&](auto t) { return zzz_t<decltype(t)>(cs, zd, zn, zm, op); });
}

template <class T, class Op>
inline aarch64_decode_rc zpi_t(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, T imm, Op op) {
  unsigned char b[kVecBytes];
  for (unsigned i = 0; i < lanes<T>; ++i) set_lane<T>(b, i, imm);
  return merge_walk<T>(cs, zdn, pg, op, b);
}

// Zdn = Pg ? op(Zdn, imm) : Zdn, the selector bit standing for a constant of kind k.
template <class Op>
inline aarch64_decode_rc zpi(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_sve_fp_arith_imm imm,
                             imm_kind k, Op op) {
  return by_fp_size(zdn.in_size, [&](auto t) {
    using T = decltype(t);
    return zpi_t<T>(cs, zdn, pg, imm_bits<T>(k, imm.value & 1u), op);
  });
}

template <class T, class Op>
inline aarch64_decode_rc unary_zpz_t(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, Op op) {
  const unsigned char* d = cs->z[zd.number];
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  soft_status st(cs);
#pragma GCC unroll 3
  for (unsigned c = 0; c < kVecBytes; c += kChunk) {
#if defined(__aarch64__)
    if (chunk_active<T>(p + c)) {
      vstore<T>(out + c, Op::vhost(vload<T>(a + c)));
      continue;
    }
#endif
    for (unsigned i = c / sizeof(T); i < (c + kChunk) / sizeof(T); ++i)
      set_lane<T>(out, i, active<T>(p, i) ? lane_op1<T>(op, lane<T>(a, i), st) : lane<T>(d, i));
  }
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Zd = Pg ? op(Zn) : Zd
template <class Op>
inline aarch64_decode_rc unary_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, Op op) {
  return by_fp_size(zd.size, [&](auto t) { return unary_zpz_t<decltype(t)>(cs, zd, pg, zn, op); });
}

}  // namespace fplanes::fast_fp

// ---- operations -------------------------------------------------------------------------

namespace fplanes {

// One instruction of the host, at single or double width, on one lane or on
// a 16-byte chunk of lanes. Written as assembly so that the compiler neither fuses nor folds it.
#if defined(__aarch64__)
#define QUERN_FP_ASM2(NAME, TY, TEXT)                                                     \
  static TY NAME(TY a, TY b) {                                                            \
    TY r;                                                                                 \
    __asm__ volatile(TEXT : "=w"(r) : "w"(a), "w"(b));                                    \
    return r;                                                                             \
  }
#define QUERN_FP_ASM1(NAME, TY, TEXT)                                                     \
  static TY NAME(TY a) {                                                                  \
    TY r;                                                                                 \
    __asm__ volatile(TEXT : "=w"(r) : "w"(a));                                            \
    return r;                                                                             \
  }
// host: one lane; vhost: a 16-byte chunk of lanes.
#define QUERN_FP_HOST2(INSN)                                                              \
  QUERN_FP_ASM2(host, float, INSN " %s0, %s1, %s2")                                       \
  QUERN_FP_ASM2(host, double, INSN " %d0, %d1, %d2")                                      \
  QUERN_FP_ASM2(vhost, float32x4_t, INSN " %0.4s, %1.4s, %2.4s")                          \
  QUERN_FP_ASM2(vhost, float64x2_t, INSN " %0.2d, %1.2d, %2.2d")
#define QUERN_FP_HOST1(INSN)                                                              \
  QUERN_FP_ASM1(host, float, INSN " %s0, %s1")                                            \
  QUERN_FP_ASM1(host, double, INSN " %d0, %d1")                                           \
  QUERN_FP_ASM1(vhost, float32x4_t, INSN " %0.4s, %1.4s")                                 \
  QUERN_FP_ASM1(vhost, float64x2_t, INSN " %0.2d, %1.2d")
#else
// Never called off AArch64: the fast road computes through lib() there.
#define QUERN_FP_HOST2(INSN)                                                              \
  static float host(float a, float) { return a; }                                         \
  static double host(double a, double) { return a; }
#define QUERN_FP_HOST1(INSN)                                                              \
  static float host(float a) { return a; }                                                \
  static double host(double a) { return a; }
#endif

#define QUERN_FP_OP2(NAME, LIB, INSN)                                                     \
  struct NAME {                                                                           \
    template <class T> static T lib(T a, T b, FPSCR& f) { return fplib::LIB<T>(a, b, f); }       \
    QUERN_FP_HOST2(INSN)                                                                  \
  };

QUERN_FP_OP2(op_add, FPAdd, "fadd")
QUERN_FP_OP2(op_sub, FPSub, "fsub")
QUERN_FP_OP2(op_mul, FPMul, "fmul")
QUERN_FP_OP2(op_div, FPDiv, "fdiv")
QUERN_FP_OP2(op_max, FPMax, "fmax")
QUERN_FP_OP2(op_min, FPMin, "fmin")
QUERN_FP_OP2(op_maxnm, FPMaxNum, "fmaxnm")
QUERN_FP_OP2(op_minnm, FPMinNum, "fminnm")
QUERN_FP_OP2(op_mulx, FPMulX, "fmulx")

struct op_sqrt {
  template <class T> static T lib(T a, FPSCR& f) { return fplib::FPSqrt<T>(a, f); }
  QUERN_FP_HOST1("fsqrt")
};

#undef QUERN_FP_OP2

// The operands reversed: FSUBR, FDIVR, and the immediate-first forms.
template <class Op> struct swapped {
  template <class T> static T lib(T a, T b, FPSCR& f) { return Op::template lib<T>(b, a, f); }
  template <class F> static F host(F a, F b) { return Op::host(b, a); }
  template <class V> static V vhost(V a, V b) { return Op::vhost(b, a); }
};

}  // namespace fplanes
