// Scatter stores whose lanes meet on one address: the differential test's
// random offsets make that happen only by luck.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

// Lanes go out in ascending order: where scatter lanes collide, the highest
// active one is what memory keeps; an inactive lane writes nothing.
TEST(MemoryForms, CollidingScatterLanesLeaveTheHighestActive) {
  const struct {
    uint32_t word;
    unsigned esize;
  } cases[] = {{0xe583a445, 8}, {0xe5438445, 4}};   // st1d [x2, z3.d]; st1w [x2, z3.s, uxtw]
  for (const auto& c : cases) {
    alignas(16) unsigned char buf[64] = {};
    cpu_state s;
    std::mt19937_64 rng(79);
    random_state(s, rng);
    std::memset(s.z[3], 0, 48);   // every lane at the base
    std::memset(s.p[1], 1, 48);
    const unsigned lanes = 48 / c.esize;
    s.p[1][(lanes - 1) * c.esize] = 0;   // the top lane is inactive
    s.x[2] = reinterpret_cast<uint64_t>(buf + 8);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK);
    EXPECT_EQ(std::memcmp(buf + 8, s.z[5] + (lanes - 2) * c.esize, c.esize), 0) << c.esize;
    for (unsigned b = 0; b < 64; ++b) {
      if (b < 8 || b >= 8 + c.esize) {
        EXPECT_EQ(buf[b], 0) << c.esize << " byte " << b;
      }
    }
  }
}

}  // namespace
