// Integer and bit helpers for the generic vector routines.
//
// An element is lifted to a mathematical integer held in a signed 128-bit
// value, worked on there without overflow, and brought back to its width by
// saturation or truncation. Names follow the architecture's pseudocode.
//
// Conventions:
// - N is a width in bits; `is_unsigned` is 1 for unsigned, anything else signed.
// - A saturating helper returns one 128-bit value: the low word is the result,
//   the high word is 1 if saturation took place and 0 otherwise (SatValue and
//   SatFlag take it apart).
// - No helper fails: widths it does not understand give 0.
#pragma once

#include <cstdint>

using s128 = __int128;
using u128 = unsigned __int128;

// A signed 256-bit value, least significant word first.
struct BigInt {
  uint64_t w[4];
};

// ---- lifting and lowering -----------------------------------------------------
s128 SInt(uint64_t word, int N);  // sign-extend for N 8, 16, 32, 64; else 0
inline uint64_t bits(s128 i) { return static_cast<uint64_t>(i); }
// The low N bits set. ones(0) is all ones too (the shift is masked); no
// caller passes 0.
inline uint64_t ones(int N) { return ~uint64_t{0} >> ((64 - N) & 63); }

namespace int_helpers_detail {
// 2^k for 0 <= k < 127.
inline s128 pow2(int k) { return static_cast<s128>(u128{1} << k); }
}  // namespace int_helpers_detail

// The low N bits read as a signed (or, with is_unsigned 1, unsigned) integer.
inline s128 Int(uint64_t word, int N, int is_unsigned) {
  const bool sign = is_unsigned != 1 && ((word >> ((N - 1) & 63)) & 1);
  if (N < 1) return sign && N == 0 ? -1 : 0;
  if (N >= 64) return sign && N == 64 ? static_cast<s128>(static_cast<int64_t>(word)) : static_cast<s128>(word);
  const s128 v = static_cast<s128>(word & ones(N));
  return sign ? v - int_helpers_detail::pow2(N) : v;
}
inline s128 UInt(uint64_t word, int N) { return Int(word, N, 1); }

// ---- 128-bit arithmetic --------------------------------------------------------
inline s128 NegInt(s128 i) { return static_cast<s128>(u128{0} - static_cast<u128>(i)); }
inline s128 AbsInt(s128 i) { return i < 0 ? NegInt(i) : i; }
s128 AddInt(s128 a, s128 b);
s128 SubInt(s128 a, s128 b);
s128 ShiftLeftInt(s128 i, s128 shift);
s128 ShiftRightInt(s128 i, s128 shift);
uint64_t ShiftLeft(uint64_t word, uint64_t shift, int N);
u128 PolynomialMult(uint64_t a, uint64_t b);

// ---- saturation -----------------------------------------------------------------
inline u128 SatPack(uint64_t value, bool saturated) {
  return (static_cast<u128>(saturated ? 1 : 0) << 64) | value;
}
inline uint64_t SatValue(u128 r) { return static_cast<uint64_t>(r); }
inline bool SatFlag(u128 r) { return static_cast<uint64_t>(r >> 64) != 0; }

// The most negative value comes back as the bare N-bit pattern 1 << (N - 1),
// not sign-extended.
inline u128 SatQ(s128 i, int N, int is_unsigned) {
  if (N < 1 || N > 64) return 0;
  if (is_unsigned == 1) {
    if (i < 0) return SatPack(0, true);
    if ((i >> N) != 0) return SatPack(ones(N), true);
    return SatPack(ones(N) & bits(i), false);
  }
  const s128 hi = int_helpers_detail::pow2(N - 1) - 1;
  const s128 lo = -int_helpers_detail::pow2(N - 1);
  if (i > hi) return SatPack(bits(hi), true);
  if (i < lo) return SatPack(uint64_t{1} << (N - 1), true);
  return SatPack(ones(N) & bits(i), false);
}

// Unsaturated, SatAdd hands back the whole low word of the exact sum (so a
// negative sum is sign-extended) while SatSub masks to N bits. Callers store
// the low N bits only, where the two agree.
inline u128 SatAdd(uint64_t a, uint64_t b, int N, int is_unsigned) {
  const s128 sum = Int(a, N, is_unsigned) + Int(b, N, is_unsigned);
  const u128 q = SatQ(sum, N, is_unsigned);
  return SatFlag(q) ? q : SatPack(bits(sum), false);
}
inline u128 SatSub(uint64_t a, uint64_t b, int N, int is_unsigned) {
  const s128 diff = Int(a, N, is_unsigned) - Int(b, N, is_unsigned);
  const u128 q = SatQ(diff, N, is_unsigned);
  return SatPack(SatValue(q) & ones(N), SatFlag(q));
}

u128 SatQShift(s128 i, int N, int is_unsigned);
u128 SatQUShift(s128 i, int N);
u128 ShiftQLeftInt(s128 i, s128 shift, int N, int is_unsigned);
u128 SatMult(uint64_t a, uint64_t b, int N, int is_unsigned);
u128 SatShiftLeft(uint64_t word, uint64_t shift, int N, int is_unsigned);
u128 SatShiftLeftU(uint64_t word, uint64_t shift, int N);

// ---- comparison -------------------------------------------------------------------
// The winner's whole word, upper bits as passed in; widths other than 8, 16,
// 32 and 64 give 0.
inline uint64_t Max(uint64_t a, uint64_t b, int N, int is_unsigned) {
  if (N != 8 && N != 16 && N != 32 && N != 64) return 0;
  return Int(a, N, is_unsigned) > Int(b, N, is_unsigned) ? a : b;
}
inline uint64_t Min(uint64_t a, uint64_t b, int N, int is_unsigned) {
  if (N != 8 && N != 16 && N != 32 && N != 64) return 0;
  return Int(a, N, is_unsigned) < Int(b, N, is_unsigned) ? a : b;
}

// ---- bit counts and reversal --------------------------------------------------------
// Index of the highest set bit below N, -1 if none.
inline int HighestBitSet(uint64_t word, int N) {
  if (N < 1) return -1;
  const uint64_t w = N >= 64 ? word : word & ones(N);
  return w == 0 ? -1 : 63 - __builtin_clzll(w);
}
inline int CountLeadingZeroBits(uint64_t word, int N) { return N - 1 - HighestBitSet(word, N); }
// Leading bits equal to the sign bit, the sign bit not counted.
inline int CountLeadingSignBits(uint64_t word, int N) {
  return CountLeadingZeroBits((word & ~(uint64_t{1} << 63)) ^ (word >> 1), N - 1);
}
inline int BitCount(uint64_t word, int N) {
  if (N < 1) return 0;
  return __builtin_popcountll(N >= 64 ? word : word & ones(N));
}
uint64_t BitReverse(uint64_t word, int N);
uint64_t Reverse(uint64_t word, int N, int esize_bytes);

// ---- 256-bit values ---------------------------------------------------------------
BigInt toBigInt(s128 i);
BigInt AddBigInt(BigInt a, BigInt b);
BigInt ShiftRightBigInt(BigInt a, int shift);
u128 SatQBigInt(BigInt v, int N, int is_unsigned);

// ---- predicate constraint patterns ------------------------------------------------
// The number of elements that pattern (0 to 31) selects among N.
int VecTrueILength(uint64_t pattern, int N);
