// The integer and bit helpers at their boundaries: the places where a
// hand-rolled 128-bit or 256-bit computation usually goes wrong.

#include <gtest/gtest.h>

#include <cstdint>

#include "sve/lib/int_helpers.h"

namespace {

constexpr uint64_t kAll = ~uint64_t{0};

s128 from_hi_lo(uint64_t hi, uint64_t lo) { return static_cast<s128>((static_cast<u128>(hi) << 64) | lo); }

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
  EXPECT_EQ(VecTrueILength(32 + 31, 48), 0);  // only the 5-bit field names a pattern
}

}  // namespace
