// Compares, rounding, conversions and estimates: the corners that random
// operands reach only by luck (NaN signalling rules, -0 against zero, flags
// of exact and inexact rounding, saturating conversions, the widths of the
// upper bits of a narrow result), flush-to-zero on input and output, default
// NaN, and the deliberate departure of the half-precision conversions, which
// ignore AHP. Everything else is held against the reference processor by the
// differential test.
//
// Each case runs one word with Z0 = a and Z1 = b in every lane and P0 active
// on even lanes only, so inactive lanes are checked in every case. Cases on a
// fast handler keep the FPCR at zero: on an AArch64 host that road follows the
// processor's own FPCR, not the emulated one.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "test_state.h"

namespace {

enum Dest { kPred, kMerge, kAll };

struct Case {
  const char* what;
  uint32_t word;
  unsigned in_bytes;   // lane of the sources, as filled
  uint64_t a, b;
  uint32_t fpcr;
  Dest dest;
  unsigned lane_bytes;  // lane of the result
  uint64_t want;        // whole lane
  uint32_t flags;       // FPSR afterwards, from zero
};

constexpr uint32_t FZ = 1u << 24, DN = 1u << 25, AHP = 1u << 26, FZ16 = 1u << 19, RZ = 3u << 22;
constexpr uint32_t IOC = 1, UFC = 8, IXC = 16, IDC = 128;
constexpr uint64_t kOld = 0xABABABABABABABABull;

const Case kCases[] = {
    // Compares: ordered relations signal on any NaN, EQ/NE/UO on signalling ones only.
    {"fcmge.s qnan", 0x65814001, 4, 0x7fc00000, 0x3f800000, 0, kPred, 4, 0, IOC},
    {"fcmeq.s qnan", 0x65816001, 4, 0x7fc00000, 0x7fc00000, 0, kPred, 4, 0, 0},
    {"fcmeq.s snan", 0x65816001, 4, 0x7f800001, 0x3f800000, 0, kPred, 4, 0, IOC},
    {"fcmne.s qnan", 0x65816011, 4, 0x7fc00000, 0x3f800000, 0, kPred, 4, 1, 0},
    {"fcmuo.d qnan", 0x65c1c001, 8, 0x3ff0000000000000, 0x7ff8000000000000, 0, kPred, 8, 1, 0},
    {"fcmle.s -0", 0x65912011, 4, 0x80000000, 0, 0, kPred, 4, 1, 0},
    {"fcmlt.s -0", 0x65912001, 4, 0x80000000, 0, 0, kPred, 4, 0, 0},
    {"fcmle.s qnan", 0x65912011, 4, 0x7fc00000, 0, 0, kPred, 4, 0, IOC},
    {"fcmle.h qnan", 0x65512011, 2, 0x7e00, 0, 0, kPred, 2, 0, IOC},
    {"fcmlt.h -0", 0x65512001, 2, 0x8000, 0, 0, kPred, 2, 0, 0},
    {"facge.s -2 1", 0x6581c011, 4, 0xc0000000, 0x3f800000, 0, kPred, 4, 1, 0},
    {"facgt.s -1 1", 0x6581e011, 4, 0xbf800000, 0x3f800000, 0, kPred, 4, 0, 0},
    {"fcmge.h 0 tiny", 0x65414001, 2, 0x0000, 0x0001, 0, kPred, 2, 0, 0},
    {"fcmge.h 0 tiny FZ16", 0x65414001, 2, 0x0000, 0x0001, FZ16, kPred, 2, 1, 0},
    // Rounding to integral.
    {"frintx.s 1.5", 0x6586a002, 4, 0x3fc00000, 0, 0, kMerge, 4, 0x40000000, IXC},
    {"frinti.s 1.5", 0x6587a002, 4, 0x3fc00000, 0, 0, kMerge, 4, 0x40000000, 0},
    {"frinti.s 1.5 RZ", 0x6587a002, 4, 0x3fc00000, 0, RZ, kMerge, 4, 0x3f800000, 0},
    {"frintn.h 2.5", 0x6540a002, 2, 0x4100, 0, 0, kMerge, 2, 0x4000, 0},
    {"frinta.s 2.5", 0x6584a002, 4, 0x40200000, 0, 0, kMerge, 4, 0x40400000, 0},
    // To integers: saturation, NaN, flushed input, the bits above a narrow result.
    {"fcvtzu.s -1", 0x659da002, 4, 0xbf800000, 0, 0, kMerge, 4, 0, IOC},
    {"fcvtzu.s tiny FZ", 0x659da002, 4, 0x00000001, 0, FZ, kMerge, 4, 0, IDC},
    {"fcvtzs.s 3e9", 0x659ca002, 4, 0x4f32d05e, 0, 0, kMerge, 4, 0x7fffffff, IOC},
    {"fcvtzs d2s -1", 0x65d8a002, 8, 0xbff0000000000000, 0, 0, kMerge, 8, ~0ull, 0},
    {"fcvtzu d2s 3e9", 0x65d9a002, 8, 0x41e65a0bc0000000, 0, 0, kMerge, 8, 0xb2d05e00, 0},
    {"fcvtzs.h inf", 0x655aa002, 2, 0x7c00, 0, 0, kMerge, 2, 0x7fff, IOC},
    {"fcvtzs.h nan", 0x655aa002, 2, 0x7e00, 0, 0, kMerge, 2, 0, IOC},
    // From integers.
    {"scvtf.h -1", 0x6552a002, 2, 0xffff, 0, 0, kMerge, 2, 0xbc00, 0},
    // Between formats: zeroes above a narrow result; half is always IEEE.
    {"fcvt d2s 1", 0x65caa002, 8, 0x3ff0000000000000, 0, 0, kMerge, 8, 0x3f800000, 0},
    {"fcvt d2h 1", 0x65c8a002, 8, 0x3ff0000000000000, 0, 0, kMerge, 8, 0x3c00, 0},
    {"fcvt s2h inf AHP", 0x6588a002, 4, 0x7f800000, 0, AHP, kMerge, 4, 0x7c00, 0},
    {"fcvt s2h nan AHP", 0x6588a002, 4, 0x7fc00000, 0, AHP, kMerge, 4, 0x7e00, 0},
    {"fcvt h2s inf AHP", 0x6589a002, 4, 0x7c00, 0, AHP, kMerge, 4, 0x7f800000, 0},
    {"fcvt h2s tiny FZ16", 0x6589a002, 4, 0x0001, 0, FZ16, kMerge, 4, 0x33800000, 0},
    // Estimates: default NaN, flush of a result.
    {"frecpx.h snan", 0x654ca002, 2, 0x7d00, 0, 0, kMerge, 2, 0x7f00, IOC},
    {"frecpx.h snan DN", 0x654ca002, 2, 0x7d00, 0, DN, kMerge, 2, 0x7e00, IOC},
    {"ftsmul.s underflow FZ", 0x65810c02, 4, 0x1e3ce508, 0, FZ, kAll, 4, 0, UFC},
    {"ftsmul.s underflow", 0x65810c02, 4, 0x1e3ce508, 1, 0, kAll, 4, 0x800116c2, UFC | IXC},
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.what; }

void fill(unsigned char* reg, unsigned bytes, uint64_t v) {
  for (unsigned i = 0; i < 48; i += bytes) std::memcpy(reg + i, &v, bytes);
}

class FpCmpCvt : public ::testing::TestWithParam<Case> {};

TEST_P(FpCmpCvt, LanesAndFlags) {
  const Case& c = GetParam();
  std::mt19937_64 rng(11);
  cpu_state s;
  quern_test::random_state(s, rng);
  s.fpsr = 0;
  s.fpcr = c.fpcr;
  fill(s.z[0], c.in_bytes, c.a);
  fill(s.z[1], c.in_bytes, c.b);
  fill(s.z[2], 8, kOld);
  std::memset(s.p[1], 1, 48);
  const unsigned pl = c.dest == kPred ? c.lane_bytes : std::max(c.in_bytes, c.lane_bytes);
  for (unsigned i = 0; i < 48; ++i) s.p[0][i] = (i / pl) % 2 == 0;
  ASSERT_EQ(quern_test::run_word(s, c.word), AARCH64_DECODE_OK);
  EXPECT_EQ(s.fpsr, c.flags);
  for (unsigned i = 0; i < 48 / c.lane_bytes; ++i) {
    const bool active = c.dest == kAll || i % 2 == 0;
    if (c.dest == kPred) {
      for (unsigned k = 0; k < c.lane_bytes; ++k)
        EXPECT_EQ(s.p[1][i * c.lane_bytes + k], (active && k == 0) ? c.want : 0) << "lane " << i << " byte " << k;
      continue;
    }
    uint64_t got = 0, old = 0;
    std::memcpy(&got, s.z[2] + i * c.lane_bytes, c.lane_bytes);
    std::memcpy(&old, &kOld, c.lane_bytes);
    EXPECT_EQ(got, active ? c.want : old) << std::hex << "lane " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Corners, FpCmpCvt, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& i) {
                           std::string n = i.param.what;
                           for (char& ch : n)
                             if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           return n;
                         });

}  // namespace
