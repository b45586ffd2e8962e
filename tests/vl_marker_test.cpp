// The region markers carried by ADD immediate.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

#include "sve/memory/memtrace.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

uint32_t add_imm_b(unsigned zdn, unsigned imm8, bool sh) { return 0x2520C000u | (sh ? 1u << 13 : 0) | imm8 << 5 | zdn; }

TEST(RegionMarkers, StartAndStopSwitchTracingAndKeepTheRegister) {
  std::mt19937_64 rng(2);
  cpu_state s;
  random_state(s, rng);
  const cpu_state before = s;
  enable_trace = 0;
  run_word(s, add_imm_b(7, 1, true));
  EXPECT_EQ(enable_trace, 1);
  EXPECT_EQ(trace_roi.tid, -1);
  const uint64_t first = trace_roi.count;
  run_word(s, add_imm_b(7, 1, true));   // markers do not nest: start again reports again
  EXPECT_GT(trace_roi.count, first);
  run_word(s, add_imm_b(7, 2, true));
  EXPECT_EQ(enable_trace, 0);
  EXPECT_EQ(trace_roi.tid, -2);
  EXPECT_EQ(std::memcmp(s.z, before.z, sizeof s.z), 0);
  EXPECT_EQ(trace_roi.position, 0);
  EXPECT_EQ(trace_roi.vaddr, 0u);
}

TEST(RegionMarkers, OtherWordsAreNotMarkers) {
  std::mt19937_64 rng(3);
  cpu_state s;
  random_state(s, rng);
  enable_trace = 0;
  const uint64_t count = trace_roi.count;
  run_word(s, add_imm_b(3, 3, true));                    // #3, LSL #8: a pure no-op
  run_word(s, 0x2521E020u | 3);                          // SUB #1, LSL #8: no marker
  const cpu_state before = s;
  run_word(s, 0x2560E020u | 3);                          // ADD Z3.H, Z3.H, #1, LSL #8: adds 256
  EXPECT_EQ(enable_trace, 0);
  EXPECT_EQ(trace_roi.count, count);
  for (unsigned i = 0; i < 24; ++i) {
    uint16_t a, b;
    std::memcpy(&a, before.z[3] + 2 * i, 2);
    std::memcpy(&b, s.z[3] + 2 * i, 2);
    EXPECT_EQ(static_cast<uint16_t>(a + 256), b) << i;
  }
}

TEST(RegionMarkers, ActOnTheCallingThreadOnly) {
  enable_trace = 0;
  std::thread other([] {
    cpu_state s;
    std::memset(&s, 0, sizeof s);
    run_word(s, add_imm_b(0, 1, true));
    EXPECT_EQ(enable_trace, 1);
  });
  other.join();
  EXPECT_EQ(enable_trace, 0);
}

}  // namespace
