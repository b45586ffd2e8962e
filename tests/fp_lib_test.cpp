// The floating-point library where the reference processor cannot judge
// it: the intended departures from the architecture, and the corners no
// instruction reaches (round to odd in double, the mode mix of the integer
// conversion, the rounding core's own entry). Everything an instruction
// reaches is compared with the reference by tests/fplib.
#include <gtest/gtest.h>

#include "sve/lib/fp_lib.h"

namespace {

typedef unsigned short H;
typedef unsigned int S;
typedef unsigned long D;

constexpr FPSCR kFZ = 1u << 24, kFZ16 = 1u << 19, kUFE = 1u << 11;
constexpr FPSCR rmode(FPRounding r) { return FPSCR(r) << 22; }

// Underflow is reported for an inexact tiny result only, whatever the trap
// enable says (the architecture also reports an exact one when UFE is set).
TEST(FpLibDeparture, UnderflowIgnoresTheTrapEnable) {
  struct Case {
    S a, b, result;
    FPSCR flags;
  } cases[] = {
      {0x00800000, 0x3f000000, 0x00400000, 0},                        // 2^-126 * 0.5: exact denormal
      {0x00800001, 0x3f000000, 0x00400000, FPLIB_UFC | FPLIB_IXC},    // inexact denormal, tie to even
      {0x00800003, 0x3f000000, 0x00400002, FPLIB_UFC | FPLIB_IXC},
  };
  for (const Case& c : cases) {
    for (FPSCR ctl : {FPSCR(0), kUFE}) {
      FPSCR f = ctl;
      EXPECT_EQ(FPMul<S>(c.a, c.b, f), c.result) << std::hex << c.a;
      EXPECT_EQ(f & 0x9f, c.flags) << std::hex << c.a << " ctl " << ctl;
    }
  }
}

// A half-precision denormal input flushed under FZ16 raises no IDC; single
// and double ones flushed under FZ do.
TEST(FpLibDeparture, HalfFlushRaisesNoInputDenormal) {
  FPSCR f = kFZ16;
  EXPECT_EQ(FPAdd<H>(0x0001, 0x0000, f), 0x0000);
  EXPECT_EQ(FPMul<H>(0x83ff, 0x3c00, f), 0x8000);
  EXPECT_TRUE(FPCompareEQ<H>(0x0200, 0x8000, f));
  EXPECT_EQ(f & 0x9f, 0u);
  f = kFZ;
  EXPECT_EQ(FPAdd<S>(0x00000001, 0x00000000, f), 0u);
  EXPECT_EQ(f & 0x9f, unsigned(FPLIB_IDC));
}

// The integer conversion rounds with the argument's two low bits, FZ and DN
// of the word, and no FZ16: a tiny half result is kept. Ties-away (4) in
// the argument reads as FZ with ties to even.
TEST(FpLibDeparture, FixedToFloatModeMix) {
  FPSCR f = kFZ16;
  EXPECT_EQ(fplibFixedToFP<H>(1, 24, false, FPRounding_TIEEVEN, f), 0x0001);  // 2^-24, exact
  EXPECT_EQ(f & 0x9f, 0u);
  f = 0;
  EXPECT_EQ(fplibFixedToFP<S>(1, 149, false, FPRounding_TIEAWAY, f), 0u);  // 2^-149 flushed
  EXPECT_EQ(f & 0x9f, unsigned(FPLIB_UFC));
  f = 0;
  EXPECT_EQ(fplibFixedToFP<S>(3, 0, false, FPRounding_TIEAWAY, f), 0x40400000u);
  EXPECT_EQ(f & 0x9f, 0u);
}

}  // namespace
