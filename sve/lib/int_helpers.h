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
s128 Int(uint64_t word, int N, int is_unsigned);
s128 UInt(uint64_t word, int N);
s128 SInt(uint64_t word, int N);  // sign-extend for N 8, 16, 32, 64; else 0
inline uint64_t bits(s128 i) { return static_cast<uint64_t>(i); }
// The low N bits set. ones(0) is all ones too (the shift is masked); no
// caller passes 0.
inline uint64_t ones(int N) { return ~uint64_t{0} >> ((64 - N) & 63); }

// ---- 128-bit arithmetic --------------------------------------------------------
s128 AbsInt(s128 i);
s128 NegInt(s128 i);
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

u128 SatQ(s128 i, int N, int is_unsigned);
u128 SatAdd(uint64_t a, uint64_t b, int N, int is_unsigned);
u128 SatSub(uint64_t a, uint64_t b, int N, int is_unsigned);
u128 SatQShift(s128 i, int N, int is_unsigned);
u128 SatQUShift(s128 i, int N);
u128 ShiftQLeftInt(s128 i, s128 shift, int N, int is_unsigned);
u128 SatMult(uint64_t a, uint64_t b, int N, int is_unsigned);
u128 SatShiftLeft(uint64_t word, uint64_t shift, int N, int is_unsigned);
u128 SatShiftLeftU(uint64_t word, uint64_t shift, int N);

// ---- comparison -------------------------------------------------------------------
uint64_t Max(uint64_t a, uint64_t b, int N, int is_unsigned);
uint64_t Min(uint64_t a, uint64_t b, int N, int is_unsigned);

// ---- bit counts and reversal --------------------------------------------------------
int HighestBitSet(uint64_t word, int N);
int CountLeadingZeroBits(uint64_t word, int N);
int CountLeadingSignBits(uint64_t word, int N);
int BitCount(uint64_t word, int N);
uint64_t BitReverse(uint64_t word, int N);
uint64_t Reverse(uint64_t word, int N, int esize_bytes);

// ---- 256-bit values ---------------------------------------------------------------
BigInt toBigInt(s128 i);
BigInt AddBigInt(BigInt a, BigInt b);
BigInt ShiftRightBigInt(BigInt a, int shift);
u128 SatQBigInt(BigInt v, int N, int is_unsigned);

// ---- predicate constraint patterns ------------------------------------------------
// The number of elements that pattern (0 to 31) selects among N.
int VecTrueILength(int pattern, int N);
