// The pieces that the generated adapters are made of: operand descriptors,
// immediate expansions, the generic road's argument and result moves, and the
// exchange of floating-point status around the fast floating-point handlers.
//
// Everything here is inline and small: an adapter is meant to compile down to
// a handful of bit-field moves and one call.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/cpu_state.h"

namespace adapter {

// ---- fields and descriptors --------------------------------------------------

constexpr int32_t sext(uint32_t v, unsigned width) {
  const uint32_t sign = 1u << (width - 1);
  return static_cast<int32_t>((v ^ sign) - sign);
}

constexpr aarch64_z_reg zreg(uint32_t n, int32_t sz) { return {int32_t(n), sz, kZAbsent, kZAbsent}; }
constexpr aarch64_z_reg zreg_rw(uint32_t n, int32_t sz) { return {int32_t(n), kZAbsent, sz, sz}; }
constexpr aarch64_p_reg preg(uint32_t n, int32_t sz) { return {int32_t(n), sz, kPAbsent, kPAbsent}; }
constexpr aarch64_p_reg preg_rw(uint32_t n, int32_t sz) { return {int32_t(n), kPAbsent, sz, sz}; }
constexpr aarch64_i_reg ireg(uint32_t n, int32_t sz) { return {int32_t(n), sz, kRAbsent, kRAbsent}; }
constexpr aarch64_i_reg ireg_rw(uint32_t n, int32_t sz) { return {int32_t(n), kRAbsent, sz, sz}; }
constexpr aarch64_i_rsp_reg rspreg(uint32_t n) { return {int32_t(n), kRX}; }

// ADD/SUB/SUBR immediate: imm8 in bits 12..5, shifted by 8 when bit 13 is set.
constexpr unsigned int uimm8sh(uint32_t w) {
  const unsigned int imm = (w >> 5) & 0xFFu;
  return (w >> 13) & 1u ? imm << 8 : imm;
}

// DUP/CPY immediate: the same, sign-extended first.
constexpr int simm8sh(uint32_t w) {
  const int imm = sext((w >> 5) & 0xFFu, 8);
  return (w >> 13) & 1u ? static_cast<int>(static_cast<unsigned>(imm) << 8) : imm;
}

// The logical (bitmask) immediate of bits 17..5: N, immr, imms. The reserved
// fields (N clear and imms 11111x, or a run of ones filling its element) make
// the word undefined: a processor with SVE raises SIGILL, which no compiler or
// assembler leaves in a program. The decode table still matches such words and
// they are not rejected here; they must only end without a shift past the
// width or an endless loop: imms 111111 with N clear has no element size and
// yields 0, the others yield all ones.
constexpr uint64_t decode_bitmask(uint32_t n, uint32_t immr, uint32_t imms) {
  const uint32_t combined = (n << 6) | (~imms & 0x3Fu);
  int len = -1;
  for (int i = 6; i >= 0; --i)
    if ((combined >> i) & 1u) { len = i; break; }
  if (len < 0) return 0;
  const unsigned esize = 1u << len;
  const unsigned levels = esize - 1;
  const unsigned s = imms & levels, r = immr & levels;
  const uint64_t emask = esize == 64 ? ~uint64_t(0) : (uint64_t(1) << esize) - 1;
  uint64_t elem = s + 1 >= 64 ? ~uint64_t(0) : (uint64_t(1) << (s + 1)) - 1;
  for (unsigned i = 0; i < r; ++i)
    elem = ((elem >> 1) | ((elem & 1u) << levels)) & emask;
  for (unsigned width = esize; width < 64; width *= 2) elem |= elem << width;
  return elem;
}

constexpr aarch64_sve_logical64_imm expand_bitmask(uint32_t w) {
  return {decode_bitmask((w >> 17) & 1u, (w >> 11) & 0x3Fu, (w >> 5) & 0x3Fu)};
}

// The 8-bit floating-point immediate (bits 12..5: sign, b, cc, dddd) at each width.
constexpr uint16_t fpimm8_half(uint32_t imm8) {
  const uint32_t s = (imm8 >> 7) & 1u, b = (imm8 >> 6) & 1u, c = (imm8 >> 4) & 3u, d = imm8 & 0xFu;
  return static_cast<uint16_t>((s << 15) | ((b ^ 1u) << 14) | (b ? 0x3000u : 0u) | (c << 10) | (d << 6));
}
constexpr uint32_t fpimm8_single(uint32_t imm8) {
  const uint32_t s = (imm8 >> 7) & 1u, b = (imm8 >> 6) & 1u, c = (imm8 >> 4) & 3u, d = imm8 & 0xFu;
  return (s << 31) | ((b ^ 1u) << 30) | (b ? 0x3E000000u : 0u) | (c << 23) | (d << 19);
}
constexpr uint64_t fpimm8_double(uint32_t imm8) {
  const uint64_t s = (imm8 >> 7) & 1u, b = (imm8 >> 6) & 1u, c = (imm8 >> 4) & 3u, d = imm8 & 0xFu;
  return (s << 63) | ((b ^ 1u) << 62) | (b ? 0x3FC0000000000000ull : 0u) | (c << 52) | (d << 48);
}

inline aarch64_sve_fp_dup_imm expand_fpimm8(uint32_t w) {
  const uint32_t imm8 = (w >> 5) & 0xFFu;
  const uint32_t single = fpimm8_single(imm8);
  float f;
  std::memcpy(&f, &single, sizeof f);
  return {fpimm8_half(imm8), single, static_cast<double>(f)};
}

// The generic merging FP copies take the bits of their own width.
constexpr uint64_t fpimm8_bits(uint32_t w, unsigned bits) {
  const uint32_t imm8 = (w >> 5) & 0xFFu;
  return bits == 16 ? fpimm8_half(imm8) : bits == 32 ? fpimm8_single(imm8) : fpimm8_double(imm8);
}

// ---- the generic road ----------------------------------------------------------

// `UsesFfr`: the routine reads or writes FFR (first-fault and non-fault
// loads, RDFFRS); for the others FFR stays in cpu_state as it is, and the
// context's copy is all false.
template <bool UsesFfr>
inline CpuContext make_context(const cpu_state* cs) {
  CpuContext c;
  c.nzcv = static_cast<uint32_t>(cs->nzcv);
  c.fpsr = cs->fpsr;
  c.fpcr = cs->fpcr & kCtxFpcrMask;
  c.vl = kVecUnits;
  c.ffr = UsesFfr ? pack_pred(cs->ffr) : PredV{};
  return c;
}

// Every generic instruction hands back flags and status, whatever it did, and
// FFR if it may have changed it. FPCR never comes back: routines only read it.
template <bool UsesFfr>
inline void finish_context(cpu_state* cs, const CpuContext& c) {
  cs->nzcv = c.nzcv;
  cs->fpsr = c.fpsr;
  if (UsesFfr) unpack_pred(c.ffr, cs->ffr);
}

// Only the first 48 bytes are filled; a routine must not depend on the rest.
inline VecV arg_vec(const cpu_state* cs, uint32_t n) {
  VecV v;
  std::memcpy(v.b, cs->z[n], kVecBytes);
  return v;
}
inline PredV arg_pred(const cpu_state* cs, uint32_t n) { return pack_pred(cs->p[n]); }
inline uint64_t arg_x(const cpu_state* cs, uint32_t n) { return n == 31 ? 0 : cs->x[n]; }
inline uint64_t arg_xsp(const cpu_state* cs, uint32_t n) { return n == 31 ? cs->sp : cs->x[n]; }
inline uint64_t arg_elem(const cpu_state* cs, uint32_t n, unsigned bytes) {
  uint64_t v = 0;
  std::memcpy(&v, cs->z[n], bytes);   // little-endian host
  return v;
}

inline void put_z(cpu_state* cs, uint32_t n, const VecV& r) { std::memcpy(cs->z[n], r.b, kVecBytes); }
inline void put_p(cpu_state* cs, uint32_t n, const PredV& r) { unpack_pred(r, cs->p[n]); }
inline void put_x(cpu_state* cs, uint32_t n, uint64_t r) {
  if (n != 31) cs->x[n] = r;
}
// A scalar SIMD&FP result: element 0 at its width, the rest of the register zero.
inline void put_elem(cpu_state* cs, uint32_t n, uint64_t r, unsigned bytes) {
  std::memset(cs->z[n], 0, kVecBytes);
  std::memcpy(cs->z[n], &r, bytes);
}

}  // namespace adapter

// ---- shared by both roads -------------------------------------------------------

// "Unimplemented instruction" report of a row whose operation has not landed,
// and of the handlers that exist in name only. Returns 2.
aarch64_decode_rc report_unimplemented(const cpu_state* cs, unsigned int word, const char* name);

// The floating-point status of the fast handlers. On AArch64 these are the
// host's FPSR. Elsewhere the fast handlers compute through the software library
// and merge their flags into a per-thread word that stands in for it.
// Inline on AArch64: each is one MRS or MSR around every floating-point word.
#if defined(__aarch64__)
inline uint32_t host_fpsr_read() {
  uint64_t v;
  __asm__ volatile("mrs %0, fpsr" : "=r"(v));
  return static_cast<uint32_t>(v);
}
inline void host_fpsr_write(uint32_t value) {
  const uint64_t v = value;
  __asm__ volatile("msr fpsr, %0" : : "r"(v));
}
#else
uint32_t host_fpsr_read();
void host_fpsr_write(uint32_t value);
#endif
// For handlers on a host without the AArch64 FPSR: merge flags raised by the library.
void host_fpsr_merge(uint32_t flags);
