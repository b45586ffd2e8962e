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

// The rounding core at its own entry: flush before rounding, far below the
// range, the directed overflows, round to odd (double truncates instead),
// and the alternative half format.
TEST(FpLibCore, RoundingCore) {
  struct Case {
    int bits, sgn, exp;
    uint64_t mnt;
    int rm, mode;
    uint64_t result;
    int flags;
  } cases[] = {
      // all ones below the top: rounds up to the smallest normal, but FZ
      // looks at the exponent first
      {32, 0, 0, 0xffffffff, FPRounding_TIEEVEN, 0, 0x00800000, FPLIB_UFC | FPLIB_IXC},
      {32, 0, 0, 0xffffffff, FPRounding_TIEEVEN, FPLIB_FZ, 0, FPLIB_UFC},
      {32, 0, -200, 0, FPRounding_POSINF, 0, 0x00000001, FPLIB_UFC | FPLIB_IXC},
      {32, 1, -200, 0, FPRounding_POSINF, 0, 0x80000000, FPLIB_UFC | FPLIB_IXC},
      {32, 0, 255, 0, FPRounding_ZERO, 0, 0x7f7fffff, FPLIB_OFC | FPLIB_IXC},
      {32, 1, 255, 0, FPRounding_POSINF, 0, 0xff7fffff, FPLIB_OFC | FPLIB_IXC},
      {32, 1, 255, 0, FPRounding_NEGINF, 0, 0xff800000, FPLIB_OFC | FPLIB_IXC},
      {32, 0, 127, 0x00000100, FPRounding_ODD, 0, 0x3f800001, FPLIB_IXC},
      {16, 0, 15, 0x0010, FPRounding_ODD, 0, 0x3c01, FPLIB_IXC},
      {64, 0, 1023, 0x0000000000000fff, FPRounding_ODD, 0, 0x3ff0000000000000, FPLIB_IXC},
      {16, 0, 31, 0xffc0, FPRounding_TIEEVEN, FPLIB_AHP, 0x7fff, 0},
      {16, 1, 32, 0, FPRounding_TIEEVEN, FPLIB_AHP, 0xffff, FPLIB_IOC},
      {16, 0, 31, 0, FPRounding_TIEEVEN, 0, 0x7c00, FPLIB_OFC | FPLIB_IXC},
  };
  for (const Case& c : cases) {
    int flags = 0;
    uint64_t r = c.bits == 16   ? fp16_round_(c.sgn, c.exp, H(c.mnt), c.rm, c.mode, &flags)
                 : c.bits == 32 ? fp32_round_(c.sgn, c.exp, S(c.mnt), c.rm, c.mode, &flags)
                                : fp64_round_(c.sgn, c.exp, D(c.mnt), c.rm, c.mode, &flags);
    EXPECT_EQ(r, c.result) << c.bits << " exp " << c.exp << " rm " << c.rm;
    EXPECT_EQ(flags, c.flags) << c.bits << " exp " << c.exp << " rm " << c.rm;
  }
}

// Routines with no instruction of their own.
TEST(FpLibCore, UnorderedCompareAndProcess) {
  struct Case {
    S a, b;
    bool un;
    int flags;
  } cases[] = {
      {0x7fc00000, 0x3f800000, true, 0},
      {0x3f800000, 0x7f800001, true, FPLIB_IOC},
      {0x3f800000, 0xff800000, false, 0},
  };
  for (const Case& c : cases) {
    FPSCR f = 0;
    EXPECT_EQ(FPCompareUN<S>(c.a, c.b, f), c.un);
    EXPECT_EQ(int(f & 0x9f), c.flags);
  }
  FPSCR f = kFZ;
  EXPECT_EQ(FPProcess32(0x80000001u, f), 0x80000000u);
  EXPECT_EQ(FPProcess64(0x3ff0000000000001ul, f), 0x3ff0000000000001ul);
  EXPECT_EQ(FPProcess16(0x7d00, f), 0x7f00);
  EXPECT_EQ(f & 0x9f, unsigned(FPLIB_IDC | FPLIB_IOC));
}

TEST(FpLibCore, Normalise128) {
  uint64_t hi = 0, lo = 1;
  int exp = 200;
  fp128_normalise(&hi, &lo, &exp);
  EXPECT_EQ(hi, 0x8000000000000000ul);
  EXPECT_EQ(lo, 0u);
  EXPECT_EQ(exp, 200 - 127);
}

}  // namespace
