// Corners of the multiply/divide, shift, reduction, permute and extraction
// families that random operands reach only by luck: division by zero and the
// most negative value by -1, shifts by 0, by the lane width and beyond, table
// indices past the 48 bytes, reductions and LAST/CLAST with no active lane,
// and the flags of CTERM. Everything else is held against the reference
// processor by the differential test.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"
#include "test_state.h"

namespace {

using quern_test::run_word;

uint64_t lane(const unsigned char* reg, unsigned size, unsigned i) {
  uint64_t v = 0;
  std::memcpy(&v, reg + (i << size), 1u << size);
  return v;
}
void fill(unsigned char* reg, unsigned size, uint64_t v) {
  for (unsigned i = 0; i < (48u >> size); ++i) std::memcpy(reg + (i << size), &v, 1u << size);
}
void fill_pred(unsigned char* p, unsigned char v) { std::memset(p, v, 48); }

cpu_state base_state() {
  std::mt19937_64 rng(7);
  cpu_state s;
  quern_test::random_state(s, rng);
  fill_pred(s.p[0], 1);
  return s;
}

constexpr uint64_t kMin32 = 0x80000000u, kMin64 = 0x8000000000000000u, kAll = ~0ull;

// One instruction on Z0 = a, Z1 = b (at `bsize`), Z2 = a, all lanes active:
// every lane of Z0 must come out as `want`.
struct LaneCase {
  const char* what;
  uint32_t word;
  unsigned size, bsize;
  uint64_t a, b, want;
};

void run_lane_cases(const LaneCase* cases, size_t count) {
  for (size_t k = 0; k < count; ++k) {
    const LaneCase& c = cases[k];
    cpu_state s = base_state();
    fill(s.z[0], c.size, c.a);
    fill(s.z[2], c.size, c.a);
    fill(s.z[1], c.bsize, c.b);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << c.what;
    const uint64_t mask = c.size == 3 ? kAll : (1ull << (8u << c.size)) - 1;
    for (unsigned i = 0; i < (48u >> c.size); ++i)
      ASSERT_EQ(lane(s.z[0], c.size, i), c.want & mask) << c.what << ", lane " << i;
  }
}

TEST(Int2Corners, DivisionNeverTraps) {
  const LaneCase cases[] = {
      {"sdiv .s min / -1", 0x04940020, 2, 2, kMin32, kAll, kMin32},
      {"sdiv .s by 0", 0x04940020, 2, 2, 12345, 0, 0},
      {"sdiv .s -7 / 2 truncates", 0x04940020, 2, 2, uint64_t(-7), 2, uint64_t(-3)},
      {"sdiv .d min / -1", 0x04d40020, 3, 3, kMin64, kAll, kMin64},
      {"sdiv .d by 0", 0x04d40020, 3, 3, kMin64, 0, 0},
      {"udiv .s all ones / 2", 0x04950020, 2, 2, 0xFFFFFFFF, 2, 0x7FFFFFFF},
      {"udiv .s by 0", 0x04950020, 2, 2, 0xFFFFFFFF, 0, 0},
      {"udiv .d all ones / all ones", 0x04d50020, 3, 3, kAll, kAll, 1},
      {"udiv .d by 0", 0x04d50020, 3, 3, kAll, 0, 0},
      {"sdivr .s 7 / 2", 0x04960020, 2, 2, 2, 7, 3},
      {"sdivr .s by 0", 0x04960020, 2, 2, 0, 7, 0},
      {"sdivr .d min / -1", 0x04d60020, 3, 3, kAll, kMin64, kMin64},
      {"udivr .s by 0", 0x04970020, 2, 2, 0, 9, 0},
      {"udivr .d", 0x04d70020, 3, 3, 3, kAll, 0x5555555555555555},
      {"smulh .b -128 * -128", 0x04120020, 0, 0, 0x80, 0x80, 0x40},
      {"umulh .d all ones squared", 0x04d30020, 3, 3, kAll, kAll, 0xFFFFFFFFFFFFFFFE},
  };
  run_lane_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST(Int2Corners, ShiftCountsAreNeverMasked) {
  const LaneCase cases[] = {
      {"lsl .b by 0x80", 0x04138020, 0, 0, 0xFF, 0x80, 0},
      {"lsl .b by 7", 0x04138020, 0, 0, 0xFF, 7, 0x80},
      {"lsl .b by 0", 0x04138020, 0, 0, 0xA5, 0, 0xA5},
      {"lsl .s by 31", 0x04938020, 2, 2, 1, 31, kMin32},
      {"lsl .s by 32", 0x04938020, 2, 2, 1, 32, 0},
      {"lsl .s by all ones", 0x04938020, 2, 2, 1, 0xFFFFFFFF, 0},
      {"lsr .h by 16", 0x04518020, 1, 1, 0xFFFF, 16, 0},
      {"asr .s by 32, negative", 0x04908020, 2, 2, kMin32, 32, 0xFFFFFFFF},
      {"asr .s by all ones, positive", 0x04908020, 2, 2, 0x7FFFFFFF, 0xFFFFFFFF, 0},
      {"asr .d by 64, negative", 0x04d08020, 3, 3, kMin64, 64, kAll},
      {"lslr .h: Z1 << Z0", 0x04578020, 1, 1, 3, 1, 8},
      {"lslr .h by 16", 0x04578020, 1, 1, 16, 1, 0},
      {"asrr .b by 8", 0x04148020, 0, 0, 8, 0x80, 0xFF},
      {"lsl wide .b by 0x100", 0x041b8020, 0, 3, 0x01, 0x100, 0},
      {"lsl wide .b by 7", 0x041b8020, 0, 3, 0x01, 7, 0x80},
      {"lsr wide .h unpredicated by 64", 0x04618440, 1, 3, 0xFFFF, 64, 0},
      {"lsr wide .h unpredicated by 15", 0x04618440, 1, 3, 0xFFFF, 15, 1},
      {"asr wide .s by 2^63", 0x04988020, 2, 3, kMin32, kMin64, 0xFFFFFFFF},
      {"asr .b #8 (source Z1)", 0x04289020, 0, 0, 0, 0x80, 0xFF},
      {"lsr .b #8 (source Z1)", 0x04289420, 0, 0, 0, 0xFF, 0},
      {"asr .d #64", 0x04808000, 3, 3, kMin64, 0, kAll},
      {"lsr .d #64", 0x04818000, 3, 3, kAll, 0, 0},
      {"lsl .d #0 (source Z1)", 0x04a09c20, 3, 3, 0, 0x0123456789ABCDEF, 0x0123456789ABCDEF},
      {"asrd .b #8 on -128", 0x04048100, 0, 0, 0x80, 0, 0},
      {"asrd .s #1 on -1", 0x044483e0, 2, 2, kAll, 0, 0},
      {"asrd .s #1 on -3", 0x044483e0, 2, 2, uint64_t(-3), 0, uint64_t(-1)},
  };
  run_lane_cases(cases, sizeof cases / sizeof cases[0]);
}

// TBL and EXT with indices and positions at and beyond the 48 bytes.
TEST(Int2Corners, IndicesPastTheRegister) {
  struct Case {
    const char* what;
    uint32_t word;
    unsigned size;
    uint64_t index;   // TBL: every index lane; EXT: unused
    uint64_t want;    // lane 0 of Z0
  };
  // Z1 holds byte i = i + 1 (so no lane of it is 0).
  const Case cases[] = {
      {"tbl .b 47", 0x05223020, 0, 47, 48},
      {"tbl .b 48", 0x05223020, 0, 48, 0},
      {"tbl .b 255", 0x05223020, 0, 255, 0},
      {"tbl .h 23", 0x05623020, 1, 23, 0x302F},
      {"tbl .h 24", 0x05623020, 1, 24, 0},
      {"tbl .d 5", 0x05e23020, 3, 5, 0x302F2E2D2C2B2A29},
      {"tbl .d 6", 0x05e23020, 3, 6, 0},
      {"tbl .d 2^63", 0x05e23020, 3, kMin64, 0},
  };
  for (const Case& c : cases) {
    cpu_state s = base_state();
    for (unsigned i = 0; i < 48; ++i) s.z[1][i] = static_cast<unsigned char>(i + 1);
    fill(s.z[2], c.size, c.index);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK);
    for (unsigned i = 0; i < (48u >> c.size); ++i) EXPECT_EQ(lane(s.z[0], c.size, i), c.want) << c.what;
  }

  // EXT: a position of 48 or more counts as 0; 47 gives the last byte of the
  // first source, then the second from its start.
  const struct { uint32_t word; unsigned pos; } exts[] = {{0x05251c20, 47}, {0x05260020, 48}, {0x053f1c20, 255}};
  for (const auto& e : exts) {
    cpu_state s = base_state();
    const cpu_state before = s;
    ASSERT_EQ(run_word(s, e.word), AARCH64_DECODE_OK);
    if (e.pos >= 48) {
      EXPECT_EQ(0, std::memcmp(s.z[0], before.z[0], 48)) << "ext #" << e.pos;
    } else {
      EXPECT_EQ(s.z[0][0], before.z[0][47]);
      EXPECT_EQ(0, std::memcmp(s.z[0] + 1, before.z[1], 47));
    }
  }

  // TBL with one register as table, index and destination reads the old lanes.
  cpu_state s = base_state();
  for (unsigned i = 0; i < 48; ++i) s.z[0][i] = static_cast<unsigned char>((i * 7) % 60);
  const cpu_state before = s;
  ASSERT_EQ(run_word(s, 0x05203000), AARCH64_DECODE_OK);   // tbl z0.b, {z0.b}, z0.b
  for (unsigned i = 0; i < 48; ++i) {
    const unsigned k = before.z[0][i];
    EXPECT_EQ(s.z[0][i], k < 48 ? before.z[0][k] : 0) << "lane " << i;
  }
}

// Reductions, LAST and CLAST with Pg all false (P0), and the all-true sums.
TEST(Int2Corners, NoActiveLane) {
  struct Case {
    const char* what;
    uint32_t word;
    bool active;
    uint64_t z1;             // every byte of Z1
    unsigned dest_bytes;     // 0: a general register X0; else low bytes of Z0, the rest 0
    bool keep_low;           // the expected value is the old X0/Z0 at `width`
    unsigned width;          // bytes kept (keep_low)
    uint64_t want;
  };
  const uint64_t ff = 0xFF;
  const Case cases[] = {
      {"uaddv .b none", 0x04012020, false, ff, 8, false, 0, 0},
      {"uaddv .b 48 x 0xFF", 0x04012020, true, ff, 8, false, 0, 12240},
      {"saddv .b 48 x -1", 0x04002020, true, ff, 8, false, 0, uint64_t(-48)},
      {"saddv .b none", 0x04002020, false, ff, 8, false, 0, 0},
      {"andv .h none", 0x045a2020, false, 0, 8, false, 0, 0xFFFF},
      {"smaxv .h none", 0x04482020, false, ff, 8, false, 0, 0x8000},
      {"smaxv .h all -1", 0x04482020, true, ff, 8, false, 0, 0xFFFF},
      {"sminv .s none", 0x048a2020, false, 0, 8, false, 0, 0x7FFFFFFF},
      {"uminv .b none", 0x040b2020, false, 0, 8, false, 0, 0xFF},
      {"umaxv .d none", 0x04c92020, false, ff, 8, false, 0, 0},
      {"eorv .d none", 0x04d92020, false, ff, 8, false, 0, 0},
      {"orv .b none", 0x04182020, false, ff, 8, false, 0, 0},
      {"lastb b0 none: top byte", 0x05238020, false, 0x5A, 8, false, 0, 0x5A},
      {"lasta d0 none: lane 0", 0x05e28020, false, 0x11, 8, false, 0, 0x1111111111111111},
      {"lasta w0 .s none: lane 0", 0x05a0a020, false, 0x22, 0, false, 0, 0x22222222},
      {"lastb w0 .s none: top lane", 0x05a1a020, false, 0x33, 0, false, 0, 0x33333333},
      {"clasta w0 .b none keeps the low byte", 0x0530a020, false, 0x44, 0, true, 1, 0},
      {"clastb w0 .b none keeps the low byte", 0x0531a020, false, 0x44, 0, true, 1, 0},
      {"clastb x0 .d none keeps x0", 0x05f1a020, false, 0x44, 0, true, 8, 0},
      {"clasta s0 none keeps s0", 0x05aa8020, false, 0x44, 8, true, 4, 0},
      {"clastb h0 none keeps h0", 0x056b8020, false, 0x44, 8, true, 2, 0},
  };
  for (const Case& c : cases) {
    cpu_state s = base_state();
    fill_pred(s.p[0], c.active ? 1 : 0);
    std::memset(s.z[1], static_cast<int>(c.z1), 48);
    const cpu_state before = s;
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << c.what;
    uint64_t want = c.want;
    if (c.keep_low) {
      uint64_t old = c.dest_bytes ? lane(before.z[0], 3, 0) : before.x[0];
      want = c.width == 8 ? old : old & ((1ull << (8 * c.width)) - 1);
    }
    if (c.dest_bytes) {
      EXPECT_EQ(lane(s.z[0], 3, 0), want) << c.what;
      for (unsigned i = 8; i < 48; ++i) ASSERT_EQ(s.z[0][i], 0) << c.what << ", byte " << i;
    } else {
      EXPECT_EQ(s.x[0], want) << c.what;
    }
  }
}

// CTERM sets N and V itself; Z and C pass through. The 32-bit form compares
// only the low words: random registers almost never have equal low words and
// different high ones, so the differential test misses a 64-bit compare.
TEST(Int2Corners, CtermFlags) {
  constexpr uint64_t N = 1ull << 31, Z = 1ull << 30, C = 1ull << 29, V = 1ull << 28;
  const struct { const char* what; uint32_t word; uint64_t x0, x1, in, out; } cases[] = {
      {"eq w, equal low words", 0x25a12000, 0x100000005, 5, V, N},
      {"eq w, different, C set", 0x25a12000, 1, 2, C | Z | N, C | Z},
      {"eq w, different, C clear", 0x25a12000, 1, 2, N, V},
      {"ne x, different high words", 0x25e12010, 0x100000005, 5, Z, Z | N},
      {"ne x, equal, C clear", 0x25e12010, 7, 7, N | Z, Z | V},
      {"ne x, equal, C set", 0x25e12010, 7, 7, N | C | V, C},
  };
  for (const auto& c : cases) {
    cpu_state s = base_state();
    s.x[0] = c.x0;
    s.x[1] = c.x1;
    s.nzcv = c.in;
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK);
    EXPECT_EQ(s.nzcv, c.out) << c.what;
  }
}

}  // namespace
