// The half-precision conversions read and write the IEEE half format even when
// FPCR.AHP asks for the alternative one (a listed departure, which the
// differential test excuses and so cannot check). Each case runs one word with
// Z0 = a in every lane, P0 active on even lanes only and Z2 old bits, under
// AHP, and checks every lane and FPSR.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "test_state.h"

namespace {

struct Case {
  const char* what;
  uint32_t word;        // Zd = z2, Pg = p0, Zn = z0
  unsigned in_bytes;    // lane of the source, as filled
  uint64_t a;
  unsigned lane_bytes;  // lane of the result
  uint64_t want;        // whole lane
};

constexpr uint32_t kAHP = 1u << 26;
constexpr uint64_t kOld = 0xABABABABABABABABull;

const Case kCases[] = {
    {"fcvt s2h inf", 0x6588a002, 4, 0x7f800000, 4, 0x7c00},
    {"fcvt s2h nan", 0x6588a002, 4, 0x7fc00000, 4, 0x7e00},
    {"fcvt d2h inf", 0x65c8a002, 8, 0x7ff0000000000000, 8, 0x7c00},
    {"fcvt h2s inf", 0x6589a002, 4, 0x7c00, 4, 0x7f800000},
    {"fcvt h2d nan", 0x65c9a002, 8, 0x7e00, 8, 0x7ff8000000000000},
};

TEST(FpAhp, HalfConversionsStayIeee) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    std::mt19937_64 rng(11);
    cpu_state s;
    quern_test::random_state(s, rng);
    s.fpsr = 0;
    s.fpcr = kAHP;
    for (unsigned i = 0; i < 48; i += c.in_bytes) std::memcpy(s.z[0] + i, &c.a, c.in_bytes);
    std::memset(s.z[2], 0xAB, 48);
    const unsigned pl = std::max(c.in_bytes, c.lane_bytes);
    for (unsigned i = 0; i < 48; ++i) s.p[0][i] = (i / pl) % 2 == 0;
    ASSERT_EQ(quern_test::run_word(s, c.word), AARCH64_DECODE_OK);
    EXPECT_EQ(s.fpsr, 0u);
    for (unsigned i = 0; i < 48 / c.lane_bytes; ++i) {
      uint64_t got = 0, old = 0;
      std::memcpy(&got, s.z[2] + i * c.lane_bytes, c.lane_bytes);
      std::memcpy(&old, &kOld, c.lane_bytes);
      EXPECT_EQ(got, i % 2 == 0 ? c.want : old) << std::hex << "lane " << i;
    }
  }
}

}  // namespace
