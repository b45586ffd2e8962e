// RDVL, ADDVL, ADDPL; and the region markers carried by ADD immediate.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

#include "sve/memory/memtrace.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

uint32_t rdvl(unsigned xd, int imm) { return 0x04BF5000u | (uint32_t(imm) & 0x3Fu) << 5 | xd; }
uint32_t addvl(unsigned xd, unsigned xn, int imm) { return 0x04205000u | xn << 16 | (uint32_t(imm) & 0x3Fu) << 5 | xd; }
uint32_t addpl(unsigned xd, unsigned xn, int imm) { return 0x04605000u | xn << 16 | (uint32_t(imm) & 0x3Fu) << 5 | xd; }

TEST(VectorLength, ReadsAndAdds) {
  std::mt19937_64 rng(1);
  cpu_state s;
  random_state(s, rng);
  s.x[3] = 1000;
  s.sp = 0x10000;
  const struct {
    uint32_t word;
    unsigned reg;        // 31 = SP
    uint64_t want;
  } cases[] = {
      {rdvl(0, 1), 0, 48},
      {rdvl(1, -1), 1, static_cast<uint64_t>(-48)},
      {rdvl(2, 31), 2, 48 * 31},
      {rdvl(4, -32), 4, static_cast<uint64_t>(-48 * 32)},
      {addvl(5, 3, 2), 5, 1096},
      {addvl(31, 31, -1), 31, 0x10000 - 48},   // both fields are the stack pointer
      {addvl(6, 31, 1), 6, 0x10000},
      {addpl(7, 3, -1), 7, 994},
      {addpl(8, 3, 31), 8, 1000 + 6 * 31},
      {addpl(31, 3, 0), 31, 1000},
  };
  for (const auto& c : cases) {
    const cpu_state before = s;
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << std::hex << c.word;
    EXPECT_EQ(c.reg == 31 ? s.sp : s.x[c.reg], c.want) << std::hex << c.word;
    cpu_state expect = before;
    (c.reg == 31 ? expect.sp : expect.x[c.reg]) = c.want;
    expect.encoding = c.word;
    EXPECT_EQ(quern_test::describe_diff(expect, s), "") << std::hex << c.word;
  }
  // RDVL to register 31 writes nothing (it names the zero register there).
  const cpu_state before = s;
  run_word(s, rdvl(31, 1));
  s.encoding = before.encoding;
  EXPECT_EQ(quern_test::describe_diff(before, s), "");
}

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
