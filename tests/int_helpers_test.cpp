// The integer and bit helpers at their boundaries: the places where a
// hand-rolled 128-bit or 256-bit computation usually goes wrong.

#include <gtest/gtest.h>

#include <cstdint>

#include "sve/lib/int_helpers.h"

namespace {

constexpr uint64_t kAll = ~uint64_t{0};

s128 from_hi_lo(uint64_t hi, uint64_t lo) { return static_cast<s128>((static_cast<u128>(hi) << 64) | lo); }

TEST(IntHelpers, IntLiftsEachWidthSignedAndUnsigned) {
  struct Case { uint64_t word; int n; int is_unsigned; s128 want; };
  const Case cases[] = {
      {0xff, 8, 1, 255},          {0xff, 8, 0, -1},           {0x7f, 8, 0, 127},
      {0x80, 8, 0, -128},         {0x1ff, 8, 0, -1},          {0xabcd8000, 16, 0, -32768},
      {0xffff, 16, 1, 65535},     {0x80000000, 32, 0, -(s128{1} << 31)},
      {0xffffffff00000001, 32, 0, 1},
      {kAll, 64, 1, static_cast<s128>(kAll)}, {kAll, 64, 0, -1},
      {uint64_t{1} << 63, 64, 0, -(s128{1} << 63)},
      {1, 1, 0, -1},              {1, 1, 1, 1},
      {0x5, 3, 2, -3},  // any value other than 1 means signed
  };
  for (const Case& c : cases) {
    EXPECT_TRUE(Int(c.word, c.n, c.is_unsigned) == c.want) << std::hex << c.word << " N=" << std::dec << c.n;
  }
  EXPECT_TRUE(UInt(0x80, 8) == 128);
  EXPECT_TRUE(SInt(0x80, 8) == -128);
  EXPECT_TRUE(SInt(0x80, 12) == 0);
}

TEST(IntHelpers, OnesMasksTheShift) {
  EXPECT_EQ(ones(1), 1u);
  EXPECT_EQ(ones(8), 0xffu);
  EXPECT_EQ(ones(63), kAll >> 1);
  EXPECT_EQ(ones(64), kAll);
  EXPECT_EQ(ones(0), kAll);  // masked shift: documented, no caller passes 0
}

// SatQ at the edges of every width and signedness: the last value that fits,
// the first that does not, on both sides.
TEST(IntHelpers, SatQAtEachWidth) {
  for (int n : {8, 16, 32, 64}) {
    SCOPED_TRACE(n);
    const s128 umax = static_cast<s128>(ones(n));
    const s128 smax = (s128{1} << (n - 1)) - 1, smin = -(s128{1} << (n - 1));
    const uint64_t smin_bits = uint64_t{1} << (n - 1);
    struct Case { s128 in; int is_unsigned; uint64_t value; bool sat; };
    const Case cases[] = {
        {umax, 1, ones(n), false}, {umax + 1, 1, ones(n), true}, {0, 1, 0, false},
        {-1, 1, 0, true},          {from_hi_lo(kAll, 0), 1, 0, true},
        {smax, 0, static_cast<uint64_t>(smax), false}, {smax + 1, 0, static_cast<uint64_t>(smax), true},
        {smin, 0, smin_bits, false}, {smin - 1, 0, smin_bits, true},
        {-1, 0, ones(n), false},
    };
    for (const Case& c : cases) {
      const u128 r = SatQ(c.in, n, c.is_unsigned);
      EXPECT_EQ(SatValue(r), c.value) << "unsigned=" << c.is_unsigned << " in=" << static_cast<int64_t>(c.in);
      EXPECT_EQ(SatFlag(r), c.sat) << "unsigned=" << c.is_unsigned << " in=" << static_cast<int64_t>(c.in);
      EXPECT_EQ(static_cast<uint64_t>(r >> 64), c.sat ? 1u : 0u);
    }
  }
}

// The two saturating word helpers differ in one detail on purpose: SatAdd
// returns the whole low word of an unsaturated sum, SatSub masks to N bits.
TEST(IntHelpers, SatAddKeepsTheWholeWordSatSubMasks) {
  const u128 add = SatAdd(0xff, 0xfe, 8, 0);  // -1 + -2 = -3
  EXPECT_FALSE(SatFlag(add));
  EXPECT_EQ(SatValue(add), static_cast<uint64_t>(-3));
  const u128 sub = SatSub(0xff, 0x02, 8, 0);  // -1 - 2 = -3
  EXPECT_FALSE(SatFlag(sub));
  EXPECT_EQ(SatValue(sub), 0xfdu);

  struct Case { uint64_t a, b; int n, is_unsigned; bool add; uint64_t value; bool sat; };
  const Case cases[] = {
      {0x7f, 1, 8, 0, true, 0x7f, true},        {0x80, 1, 8, 0, false, 0x80, true},
      {0xff, 1, 8, 1, true, 0xff, true},        {0, 1, 8, 1, false, 0, true},
      {kAll >> 1, 1, 64, 0, true, kAll >> 1, true}, {uint64_t{1} << 63, 1, 64, 0, false, uint64_t{1} << 63, true},
      {kAll, kAll, 64, 1, true, kAll, true},    {kAll, kAll, 64, 1, false, 0, false},
      {0x123, 0x1, 8, 1, true, 0x24, false},  // upper bits of the words are not part of the operands
  };
  for (const Case& c : cases) {
    const u128 r = c.add ? SatAdd(c.a, c.b, c.n, c.is_unsigned) : SatSub(c.a, c.b, c.n, c.is_unsigned);
    EXPECT_EQ(SatValue(r) & ones(c.n), c.value) << std::hex << c.a << (c.add ? "+" : "-") << c.b;
    EXPECT_EQ(SatFlag(r), c.sat) << std::hex << c.a << (c.add ? "+" : "-") << c.b;
  }
}

TEST(IntHelpers, ShiftsByZeroByTheWidthAndBeyond) {
  const s128 minus1 = -1;
  const s128 two64 = s128{1} << 64;
  struct Case { s128 in, shift; bool left; s128 want; };
  const Case cases[] = {
      {12345, 0, true, 12345},          {12345, 0, false, 12345},
      {1, 63, true, s128{1} << 63},     {1, 64, true, two64},
      {1, 100, true, two64},            // capped at 64
      {3, -1, true, 1},                 // negative left shift goes right
      {8, -2, false, 32},               // negative right shift goes left
      {minus1, 65, false, -1},          {minus1, 200, false, -1},
      {1, 200, false, 0},               {s128{1} << 70, 100, false, 32},  // counts as 65
      {s128{1} << 70, 69, false, 32},   {s128{1} << 70, 64, false, 64},
      {minus1, 128, false, -1},         // top two bits set: all ones
      {from_hi_lo(0x8000000000000000, 0), 128, false, 0},  // only the top bit: zero
      {from_hi_lo(0xc000000000000000, 0), 128, false, -1},
      {from_hi_lo(0x4000000000000000, 0), 128, false, 0},
      {-256, 4, false, -16},
  };
  for (const Case& c : cases) {
    const s128 got = c.left ? ShiftLeftInt(c.in, c.shift) : ShiftRightInt(c.in, c.shift);
    EXPECT_TRUE(got == c.want) << (c.left ? "<<" : ">>") << static_cast<int64_t>(c.shift)
                               << " got hi=" << std::hex << static_cast<uint64_t>(got >> 64)
                               << " lo=" << static_cast<uint64_t>(got);
  }
  EXPECT_EQ(ShiftLeft(1, 65, 8), 2u);
}

TEST(IntHelpers, MaxMinCompareAtTheWidthAndReturnTheWholeWord) {
  struct Case { uint64_t a, b; int n, is_unsigned; uint64_t max, min; };
  const Case cases[] = {
      {0x80, 0x7f, 8, 0, 0x7f, 0x80},   {0x80, 0x7f, 8, 1, 0x80, 0x7f},
      {0x1ff, 0x01, 8, 0, 0x01, 0x1ff}, // upper bits ignored in the compare, kept in the result
      {kAll, 0, 64, 0, 0, kAll},        {kAll, 0, 64, 1, kAll, 0},
      {0x8000, 0x7fff, 16, 0, 0x7fff, 0x8000}, {0x80000000, 1, 32, 0, 1, 0x80000000},
      {5, 3, 12, 0, 0, 0},              // widths other than 8/16/32/64
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Max(c.a, c.b, c.n, c.is_unsigned), c.max) << std::hex << c.a << "," << c.b;
    EXPECT_EQ(Min(c.a, c.b, c.n, c.is_unsigned), c.min) << std::hex << c.a << "," << c.b;
  }
}

TEST(IntHelpers, BitCountsAtTheEdges) {
  struct Case { uint64_t word; int n; int hbs, clz, cls, cnt; };
  const Case cases[] = {
      {0, 64, -1, 64, 63, 0},          {kAll, 64, 63, 0, 63, 64},
      {0, 8, -1, 8, 7, 0},             {0xff, 8, 7, 0, 7, 8},
      {0xff00, 8, -1, 8, 7, 0},        // bits above N do not count
      {0x01, 8, 0, 7, 6, 1},           {0x40, 8, 6, 1, 0, 1},
      {0x80, 8, 7, 0, 0, 1},           {0xc0, 8, 7, 0, 1, 2},
      {0x7fff, 16, 14, 1, 0, 15},      {0xfffe, 16, 15, 0, 14, 15},
      {uint64_t{1} << 31, 32, 31, 0, 0, 1},
      {uint64_t{1} << 62, 64, 62, 1, 0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.word << std::dec << " N=" << c.n);
    EXPECT_EQ(HighestBitSet(c.word, c.n), c.hbs);
    EXPECT_EQ(CountLeadingZeroBits(c.word, c.n), c.clz);
    EXPECT_EQ(CountLeadingSignBits(c.word, c.n), c.cls);
    EXPECT_EQ(BitCount(c.word, c.n), c.cnt);
  }
  EXPECT_EQ(BitCount(kAll, 0), 0);
}

TEST(IntHelpers, BitReverseAndElementReverse) {
  EXPECT_EQ(BitReverse(1, 64), uint64_t{1} << 63);
  EXPECT_EQ(BitReverse(0x01, 8), 0x80u);
  EXPECT_EQ(BitReverse(0x1234, 16), 0x2c48u);
  EXPECT_EQ(BitReverse(0xff00, 8), 0u);
  EXPECT_EQ(BitReverse(kAll, 0), 0u);
  EXPECT_EQ(Reverse(0x0102030405060708, 64, 1), 0x0807060504030201u);
  EXPECT_EQ(Reverse(0x0102030405060708, 64, 2), 0x0708050603040102u);
  EXPECT_EQ(Reverse(0x0102030405060708, 64, 4), 0x0506070801020304u);
  EXPECT_EQ(Reverse(0x0102030405060708, 32, 1), 0x08070605u);
  EXPECT_EQ(Reverse(0x0102030405060708, 64, 8), 0u);
  EXPECT_EQ(Reverse(0x0102030405060708, 8, 2), 0u);
}

// Carries out of every word of the 256-bit value, and shifts that cross words.
TEST(IntHelpers, BigIntCarriesAndShifts) {
  const BigInt one = toBigInt(1);
  const BigInt minus1 = toBigInt(-1);
  for (uint64_t w : minus1.w) EXPECT_EQ(w, kAll);
  const BigInt zero = AddBigInt(minus1, one);  // carries through all four words
  for (uint64_t w : zero.w) EXPECT_EQ(w, 0u);
  const BigInt c = AddBigInt(BigInt{{kAll, 0, kAll, 0}}, one);
  EXPECT_EQ(c.w[0], 0u);
  EXPECT_EQ(c.w[1], 1u);
  EXPECT_EQ(c.w[2], kAll);
  const BigInt c2 = AddBigInt(BigInt{{kAll, kAll, 0, 0}}, BigInt{{kAll, 0, 0, 0}});
  EXPECT_EQ(c2.w[0], kAll - 1);
  EXPECT_EQ(c2.w[1], 0u);
  EXPECT_EQ(c2.w[2], 1u);

  const BigInt big = toBigInt(from_hi_lo(0x8000000000000001, 0x10));  // negative
  const BigInt s0 = ShiftRightBigInt(big, 0);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(s0.w[k], big.w[k]);
  const BigInt s4 = ShiftRightBigInt(big, 4);
  EXPECT_EQ(s4.w[0], 0x1000000000000001u);
  EXPECT_EQ(s4.w[1], 0xf800000000000000u);
  EXPECT_EQ(s4.w[3], kAll);
  const BigInt s64 = ShiftRightBigInt(big, 64);
  EXPECT_EQ(s64.w[0], 0x8000000000000001u);
  EXPECT_EQ(s64.w[1], kAll);
  const BigInt s100 = ShiftRightBigInt(toBigInt(s128{1} << 120), 100);
  EXPECT_EQ(s100.w[0], uint64_t{1} << 20);
  EXPECT_EQ(s100.w[1], 0u);

  struct Case { s128 v; int n, is_unsigned; uint64_t value; bool sat; };
  const Case cases[] = {
      {255, 8, 1, 255, false}, {256, 8, 1, 255, true}, {-1, 8, 1, 0, true},
      {s128{1} << 64, 64, 1, kAll, true}, {127, 8, 0, 127, false}, {128, 8, 0, 127, true},
      {-128, 8, 0, 0x80, false}, {-129, 8, 0, 0x80, true}, {-(s128{1} << 70), 64, 0, uint64_t{1} << 63, true},
  };
  for (const Case& k : cases) {
    const u128 r = SatQBigInt(toBigInt(k.v), k.n, k.is_unsigned);
    EXPECT_EQ(SatValue(r), k.value) << static_cast<int64_t>(k.v) << " N=" << k.n;
    EXPECT_EQ(SatFlag(r), k.sat) << static_cast<int64_t>(k.v) << " N=" << k.n;
  }
}

TEST(IntHelpers, SaturatingShiftsAndProducts) {
  // SatMult hands back the low word of the product with SatQ's indicator.
  const u128 m = SatMult(0x80, 0x80, 8, 0);  // -128 * -128 = 16384
  EXPECT_TRUE(SatFlag(m));
  EXPECT_EQ(SatValue(m), 16384u);
  EXPECT_FALSE(SatFlag(SatMult(0xff, 0x02, 8, 0)));
  // Left shifts that saturate take the extreme of the sign.
  EXPECT_EQ(SatValue(SatShiftLeft(0x40, 1, 8, 0)), 0x7fu);
  EXPECT_EQ(SatValue(SatShiftLeft(0xc0, 2, 8, 0)), 0x80u);
  EXPECT_EQ(SatValue(SatShiftLeft(0x81, 1, 8, 1)), 0xffu);
  EXPECT_FALSE(SatFlag(SatShiftLeft(0x10, 2, 8, 1)));
  EXPECT_EQ(SatValue(SatShiftLeftU(0xff, 1, 8)), 0u);  // negative word
  EXPECT_TRUE(SatFlag(SatShiftLeftU(0xff, 1, 8)));
  EXPECT_EQ(SatValue(SatShiftLeftU(0x40, 2, 8)), 0xffu);
  EXPECT_EQ(SatValue(SatShiftLeftU(0x20, 2, 8)), 0x80u);
  // A shift of N or more: zero stays zero, anything else saturates.
  EXPECT_EQ(ShiftQLeftInt(0, 8, 8, 0), u128{0});
  EXPECT_EQ(SatValue(ShiftQLeftInt(-3, 8, 8, 0)), static_cast<uint64_t>(-128));
  EXPECT_EQ(SatValue(ShiftQLeftInt(3, 9, 8, 1)), 255u);
  EXPECT_EQ(SatValue(ShiftQLeftInt(64, -3, 8, 0)), 8u);
  EXPECT_EQ(SatValue(SatQUShift(300, 8)), 255u);
  EXPECT_EQ(SatValue(SatQUShift(200, 8)), 200u);
  EXPECT_EQ(PolynomialMult(0x3, 0x3), u128{5});
  EXPECT_EQ(PolynomialMult(uint64_t{1} << 63, 2), u128{1} << 64);
}

// Every pattern at every lane count of this vector length.
TEST(IntHelpers, VecTrueILengthEveryPattern) {
  const int counts[] = {6, 12, 24, 48};
  //                          POW2 VL1..VL8              VL16 VL32 VL64 VL128 VL256
  const int want[4][14] = {{4, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0},
                           {8, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0},
                           {16, 1, 2, 3, 4, 5, 6, 7, 8, 16, 0, 0, 0, 0},
                           {32, 1, 2, 3, 4, 5, 6, 7, 8, 16, 32, 0, 0, 0}};
  for (int k = 0; k < 4; ++k) {
    const int n = counts[k];
    for (int pat = 0; pat < 32; ++pat) {
      int expect = 0;
      if (pat <= 13) expect = want[k][pat];
      else if (pat == 29) expect = n / 4 * 4;
      else if (pat == 30) expect = n / 3 * 3;
      else if (pat == 31) expect = n;
      EXPECT_EQ(VecTrueILength(pat, n), expect) << "pattern " << pat << " of " << n;
    }
  }
  EXPECT_EQ(VecTrueILength(0, 0), 1);
  EXPECT_EQ(VecTrueILength(0, 1), 1);
  EXPECT_EQ(VecTrueILength(31, 7), 6);  // odd counts round down; none occur here
  EXPECT_EQ(VecTrueILength(13, 256), 256);
}

}  // namespace
