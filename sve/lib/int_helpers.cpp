// Integer and bit helpers. All 128-bit arithmetic that may wrap is done on the
// unsigned type, so that nothing here has undefined behaviour.

#include "sve/lib/int_helpers.h"

namespace {

constexpr s128 kS128Max = static_cast<s128>(~u128{0} >> 1);
constexpr s128 kS128Min = -kS128Max - 1;

// 2^k for 0 <= k < 127.
inline s128 pow2(int k) { return static_cast<s128>(u128{1} << k); }

inline s128 wrap_shl(s128 i, int k) { return static_cast<s128>(static_cast<u128>(i) << k); }

}  // namespace

s128 Int(uint64_t word, int N, int is_unsigned) {
  const bool sign = is_unsigned != 1 && ((word >> ((N - 1) & 63)) & 1);
  if (N < 1) return sign && N == 0 ? -1 : 0;
  if (N >= 64) return sign && N == 64 ? static_cast<s128>(static_cast<int64_t>(word)) : static_cast<s128>(word);
  const s128 v = static_cast<s128>(word & ones(N));
  return sign ? v - pow2(N) : v;
}

s128 UInt(uint64_t word, int N) { return Int(word, N, 1); }

s128 SInt(uint64_t word, int N) {
  switch (N) {
    case 8: return static_cast<int8_t>(word);
    case 16: return static_cast<int16_t>(word);
    case 32: return static_cast<int32_t>(word);
    case 64: return static_cast<int64_t>(word);
    default: return 0;
  }
}

s128 AbsInt(s128 i) { return i < 0 ? NegInt(i) : i; }
s128 NegInt(s128 i) { return static_cast<s128>(u128{0} - static_cast<u128>(i)); }
s128 AddInt(s128 a, s128 b) { return static_cast<s128>(static_cast<u128>(a) + static_cast<u128>(b)); }
s128 SubInt(s128 a, s128 b) { return static_cast<s128>(static_cast<u128>(a) - static_cast<u128>(b)); }

// A shift above 64 counts as 64: element-sized values need nothing more.
s128 ShiftLeftInt(s128 i, s128 shift) {
  if (shift < 0) return ShiftRightInt(i, shift < -128 ? 128 : -shift);
  return wrap_shl(i, shift > 64 ? 64 : static_cast<int>(shift));
}

// Arithmetic right shift. A shift of exactly 128 fills with all ones only when
// the top two bits are both set; any other shift above 65 counts as 65. For a
// value sign-extended from an element both rules fill with the sign.
s128 ShiftRightInt(s128 i, s128 shift) {
  if (shift < 0) return ShiftLeftInt(i, shift < -128 ? 128 : -shift);
  if (shift == 128) return (static_cast<u128>(i) >> 126) == 3 ? -1 : 0;
  return i >> (shift > 65 ? 65 : static_cast<int>(shift));
}

uint64_t ShiftLeft(uint64_t word, uint64_t shift, int /*N*/) { return word << (shift & 63); }

u128 PolynomialMult(uint64_t a, uint64_t b) {
  u128 r = 0;
  for (int k = 0; k < 64; ++k)
    if ((b >> k) & 1) r ^= static_cast<u128>(a) << k;
  return r;
}

// The most negative value comes back as the bare N-bit pattern 1 << (N - 1),
// not sign-extended.
u128 SatQ(s128 i, int N, int is_unsigned) {
  if (N < 1 || N > 64) return 0;
  if (is_unsigned == 1) {
    if (i < 0) return SatPack(0, true);
    if ((i >> N) != 0) return SatPack(ones(N), true);
    return SatPack(ones(N) & bits(i), false);
  }
  const s128 hi = pow2(N - 1) - 1;
  const s128 lo = -pow2(N - 1);
  if (i > hi) return SatPack(bits(hi), true);
  if (i < lo) return SatPack(uint64_t{1} << (N - 1), true);
  return SatPack(ones(N) & bits(i), false);
}

// Unsaturated, SatAdd hands back the whole low word of the exact sum (so a
// negative sum is sign-extended) while SatSub masks to N bits. Callers store
// the low N bits only, where the two agree.
u128 SatAdd(uint64_t a, uint64_t b, int N, int is_unsigned) {
  const s128 sum = Int(a, N, is_unsigned) + Int(b, N, is_unsigned);
  const u128 q = SatQ(sum, N, is_unsigned);
  return SatFlag(q) ? q : SatPack(bits(sum), false);
}

u128 SatSub(uint64_t a, uint64_t b, int N, int is_unsigned) {
  const s128 diff = Int(a, N, is_unsigned) - Int(b, N, is_unsigned);
  const u128 q = SatQ(diff, N, is_unsigned);
  return SatPack(SatValue(q) & ones(N), SatFlag(q));
}

// As SatQ for N up to 128; a value that fits comes back as its low word,
// unmasked.
u128 SatQShift(s128 i, int N, int is_unsigned) {
  if (N < 1 || N > 128) return 0;
  if (is_unsigned == 1) {
    if (i < 0) return SatPack(0, true);
    if (N < 128 && (i >> N) != 0) return SatPack(N >= 64 ? ~uint64_t{0} : ones(N), true);
    return SatPack(bits(i), false);
  }
  const s128 hi = N == 128 ? kS128Max : pow2(N - 1) - 1;
  const s128 lo = N == 128 ? kS128Min : -pow2(N - 1);
  if (i > hi) return SatPack(bits(hi), true);
  if (i < lo) return SatPack(bits(lo), true);
  return SatPack(bits(i), false);
}

u128 SatQUShift(s128 i, int N) {
  if (N < 1) return 0;
  const uint64_t low = bits(i);
  if (N >= 64 || low <= ones(N)) return SatPack(low, false);
  const int s = 2 * N > 127 ? 127 : 2 * N;
  return SatPack((i >> s) == 0 ? ones(N) : 0, true);
}

u128 ShiftQLeftInt(s128 i, s128 shift, int N, int is_unsigned) {
  if (N < 1 || N > 128) return 0;
  if (shift < 0) return SatPack(bits(ShiftRightInt(i, shift < -128 ? 128 : -shift)), false);
  if (shift >= N) {
    if (i == 0) return SatPack(0, false);
    if (is_unsigned == 1) return SatPack(N >= 64 ? ~uint64_t{0} : ones(N), true);
    const s128 hi = N == 128 ? kS128Max : pow2(N - 1) - 1;
    const s128 lo = N == 128 ? kS128Min : -pow2(N - 1);
    return SatPack(bits(i > 0 ? hi : lo), true);
  }
  return SatQShift(wrap_shl(i, static_cast<int>(shift)), N, is_unsigned);
}

// The value is the low word of the product, not SatQ's; the indicator is SatQ's.
u128 SatMult(uint64_t a, uint64_t b, int N, int is_unsigned) {
  const s128 p = static_cast<s128>(static_cast<u128>(Int(a, N, is_unsigned)) *
                                   static_cast<u128>(Int(b, N, is_unsigned)));
  return SatPack(bits(p), SatFlag(SatQ(p, N, is_unsigned)));
}

u128 SatShiftLeft(uint64_t word, uint64_t shift, int N, int is_unsigned) {
  s128 s = Int(shift, N, is_unsigned);
  if (s > N) s = N;
  const s128 v = ShiftLeftInt(Int(word, N, is_unsigned), s);
  if (!SatFlag(SatQ(v, N, is_unsigned))) return SatPack(bits(v), false);
  if (is_unsigned == 1) return SatPack(ones(N), true);
  const bool negative = Int(word, N, 0) < 0;
  return SatPack(negative ? uint64_t{1} << ((N - 1) & 63) : ones(N - 1), true);
}

u128 SatShiftLeftU(uint64_t word, uint64_t shift, int N) {
  s128 s = Int(shift, N, 0);
  if (s > N) s = N;
  const s128 x = Int(word, N, 0);
  const s128 v = ShiftLeftInt(x, s);
  if (N < 1 || N > 64) return 0;
  if ((v >> N) == 0) return SatPack(bits(v), false);
  return SatPack(x < 0 ? 0 : ones(N), true);
}

uint64_t Max(uint64_t a, uint64_t b, int N, int is_unsigned) {
  if (N != 8 && N != 16 && N != 32 && N != 64) return 0;
  return Int(a, N, is_unsigned) > Int(b, N, is_unsigned) ? a : b;
}

uint64_t Min(uint64_t a, uint64_t b, int N, int is_unsigned) {
  if (N != 8 && N != 16 && N != 32 && N != 64) return 0;
  return Int(a, N, is_unsigned) < Int(b, N, is_unsigned) ? a : b;
}

int HighestBitSet(uint64_t word, int N) {
  for (int k = (N > 64 ? 64 : N) - 1; k >= 0; --k)
    if ((word >> k) & 1) return k;
  return -1;
}

int CountLeadingZeroBits(uint64_t word, int N) { return N - 1 - HighestBitSet(word, N); }

int CountLeadingSignBits(uint64_t word, int N) {
  return CountLeadingZeroBits((word & ~(uint64_t{1} << 63)) ^ (word >> 1), N - 1);
}

int BitCount(uint64_t word, int N) {
  if (N < 1) return 0;
  return __builtin_popcountll(word & ones(N > 64 ? 64 : N));
}

uint64_t BitReverse(uint64_t word, int N) {
  if (N < 1) return 0;
  const int n = N > 64 ? 64 : N;
  uint64_t r = 0;
  for (int k = 0; k < n; ++k)
    if ((word >> k) & 1) r |= uint64_t{1} << (n - 1 - k);
  return r;
}

uint64_t Reverse(uint64_t word, int N, int esize_bytes) {
  if (esize_bytes != 1 && esize_bytes != 2 && esize_bytes != 4) return 0;
  const int c = (N / 8) / esize_bytes;
  if (c < 1) return 0;
  const int ebits = esize_bytes * 8;
  const uint64_t mask = ones(ebits);
  uint64_t r = 0;
  for (int k = 0; k < c && k * ebits < 64; ++k) {
    const int from = c - 1 - k;
    if (from * ebits >= 64) continue;
    r |= ((word >> (from * ebits)) & mask) << (k * ebits);
  }
  return r;
}

BigInt toBigInt(s128 i) {
  const uint64_t fill = i < 0 ? ~uint64_t{0} : 0;
  return BigInt{{bits(i), bits(i >> 64), fill, fill}};
}

BigInt AddBigInt(BigInt a, BigInt b) {
  BigInt r{};
  uint64_t carry = 0;
  for (int k = 0; k < 4; ++k) {
    const uint64_t s = a.w[k] + b.w[k];
    const uint64_t c1 = s < a.w[k];
    r.w[k] = s + carry;
    carry = c1 | (r.w[k] < s);
  }
  return r;
}

// Arithmetic right shift for shifts below 128.
BigInt ShiftRightBigInt(BigInt a, int shift) {
  if (shift <= 0) return a;
  if (shift > 127) shift = 127;
  const uint64_t fill = (a.w[3] >> 63) ? ~uint64_t{0} : 0;
  uint64_t in[6] = {a.w[0], a.w[1], a.w[2], a.w[3], fill, fill};
  const int words = shift / 64, b = shift % 64;
  BigInt r{};
  for (int k = 0; k < 4; ++k) {
    const uint64_t lo = in[k + words], hi = in[k + words + 1];
    r.w[k] = b == 0 ? lo : (lo >> b) | (hi << (64 - b));
  }
  return r;
}

u128 SatQBigInt(BigInt v, int N, int is_unsigned) {
  if (N < 1 || N > 64) return 0;
  const bool negative = v.w[3] >> 63;
  if (is_unsigned == 1) {
    if (negative) return SatPack(0, true);
    if (v.w[1] == 0 && v.w[2] == 0 && v.w[3] == 0 && (N == 64 || (v.w[0] >> N) == 0))
      return SatPack(v.w[0], false);
    return SatPack(ones(N), true);
  }
  const uint64_t all = ~uint64_t{0};
  if (!negative) {
    if (v.w[1] == 0 && v.w[2] == 0 && v.w[3] == 0 && (v.w[0] >> (N - 1)) == 0)
      return SatPack(ones(N) & v.w[0], false);
    return SatPack(ones(N - 1), true);
  }
  if (v.w[1] == all && v.w[2] == all && v.w[3] == all && (v.w[0] >> (N - 1)) == (all >> (N - 1)))
    return SatPack(ones(N) & v.w[0], false);
  return SatPack(uint64_t{1} << (N - 1), true);
}

int VecTrueILength(int pattern, int N) {
  if (pattern == 0) {
    int p = 1;
    while (p * 2 <= N) p *= 2;
    return p;
  }
  if (pattern >= 1 && pattern <= 8) return pattern <= N ? pattern : 0;
  if (pattern >= 9 && pattern <= 13) return (1 << (pattern - 5)) <= N ? 1 << (pattern - 5) : 0;
  switch (pattern) {
    case 29: return N & ~3;
    case 30: return N / 3 * 3;
    case 31: return N & ~1;  // odd N rounds down; N is always even here
    default: return 0;
  }
}
