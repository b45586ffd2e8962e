// Corners of the predicate instructions and the integer compares that random
// operands reach rarely or never: range edges of WHILE, immediate edges of the
// compares, breaks with nothing active.
// The differential test against the reference processor covers the rest.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sve/predicate/pred_flags.h"
#include "sve/predicate/pred_while.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

constexpr uint32_t N = kFlagN, Z = kFlagZ, C = kFlagC;

// 48 predicate bytes with lanes 0..count-1 of E bytes set.
std::vector<unsigned char> run_of(unsigned count, unsigned e) {
  std::vector<unsigned char> p(48, 0);
  for (unsigned i = 0; i < count; ++i) p[i * e] = 1;
  return p;
}
std::vector<unsigned char> bytes_of(const unsigned char* p) { return {p, p + 48}; }

// Flags of a result under an all-true governing predicate.
uint32_t all_true_flags(const std::vector<unsigned char>& r, unsigned e) {
  bool any = false;
  for (unsigned i = 0; i < 48; i += e) any |= r[i];
  return (r[0] ? N : 0) | (any ? 0 : Z) | (r[48 - e] ? 0 : C);
}

uint32_t while_word(unsigned size, bool x, bool u, bool eq, unsigned rn, unsigned rm) {
  return 0x25200401u | size << 22 | rm << 16 | unsigned{x} << 12 | unsigned{u} << 11 | rn << 5 | unsigned{eq} << 4;
}

// The architecture's definition: a counter of the register's width, wrapping,
// compared lane by lane, the run ending at the first failure.
unsigned while_model(bool u, bool eq, bool x, unsigned lanes, uint64_t a, uint64_t b) {
  const uint64_t mask = x ? ~0ull : 0xFFFFFFFFull;
  const auto value = [&](uint64_t v) -> __int128 {
    v &= mask;
    if (u) return v;
    return x ? static_cast<__int128>(static_cast<int64_t>(v)) : static_cast<__int128>(static_cast<int32_t>(v));
  };
  unsigned count = 0;
  for (uint64_t e = 0, cnt = a; e < lanes; ++e, cnt = (cnt + 1) & mask) {
    const bool cond = eq ? value(cnt) <= value(b) : value(cnt) < value(b);
    if (!cond) break;
    ++count;
  }
  return count;
}

// Both roads (the fast handlers and signed LE through their rows, all 32
// generic routines called directly) against the definition, on operands
// crowded at the range edges.
TEST(PredWhile, BothRoadsAgreeWithTheDefinition) {
  using Fn = PredV (*)(uint64_t, uint64_t, CpuContext*);
#define QUERN_W(TY) {Vec##TY##While4LTSS, Vec##TY##While8LTSS, Vec##TY##While4LESS, Vec##TY##While8LESS}
  const Fn routines[2][4][4] = {{QUERN_W(S8), QUERN_W(S16), QUERN_W(S32), QUERN_W(S64)},
                                {QUERN_W(U8), QUERN_W(U16), QUERN_W(U32), QUERN_W(U64)}};
#undef QUERN_W
  const uint64_t edges[] = {0, 1, 2, 47, 0x7FFFFFFE, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF,
                            0x100000000ull, 0x7FFFFFFFFFFFFFFEull, 0x7FFFFFFFFFFFFFFFull,
                            0x8000000000000000ull, ~0ull - 1, ~0ull};
  std::mt19937_64 rng(13);
  const auto draw = [&]() -> uint64_t {
    const unsigned k = rng() % 3;
    return k == 0 ? rng() : k == 1 ? edges[rng() % 15] : edges[rng() % 15] + rng() % 64 - 32;
  };
  for (int t = 0; t < 20000; ++t) {
    const bool u = rng() & 1, x = rng() & 1, eq = rng() & 1;
    const unsigned size = rng() % 4, e = 1u << size;
    cpu_state s;
    random_state(s, rng);
    s.x[2] = draw();
    s.x[3] = rng() % 2 ? draw() : s.x[2] + rng() % 100 - 50;
    const auto want = run_of(while_model(u, eq, x, 48 / e, s.x[2], s.x[3]), e);
    const std::string what = "u " + std::to_string(u) + " x " + std::to_string(x) + " eq " + std::to_string(eq) +
                             " size " + std::to_string(size) + " a " + std::to_string(s.x[2]) + " b " +
                             std::to_string(s.x[3]);
    ASSERT_EQ(run_word(s, while_word(size, x, u, eq, 2, 3)), AARCH64_DECODE_OK);
    ASSERT_EQ(bytes_of(s.p[1]), want) << what;
    ASSERT_EQ(s.nzcv & kFlagsNZCV, all_true_flags(want, e)) << what;
    CpuContext c{};
    c.vl = kVecUnits;
    unsigned char got[48];
    unpack_pred(routines[u][size][eq * 2 + x](s.x[2], s.x[3], &c), got);
    ASSERT_EQ(bytes_of(got), want) << what << " (generic)";
    ASSERT_EQ(c.nzcv, all_true_flags(want, e)) << what << " (generic)";
  }
}

TEST(PredWhile, RegisterThirtyOneReadsZero) {
  cpu_state s;
  std::mt19937_64 rng(3);
  random_state(s, rng);
  s.sp = 2;
  s.x[3] = 5;
  ASSERT_EQ(run_word(s, 0x252317e1u), AARCH64_DECODE_OK);   // whilelt p1.b, xzr, x3
  EXPECT_EQ(bytes_of(s.p[1]), run_of(5, 1));
}

struct CompareCase {
  const char* what;
  uint32_t word;                  // Pd = p1, Pg = p2, Zn = z3, Zm = z4
  unsigned size;                  // element size code of Zn
  std::vector<uint64_t> zn, zm;   // leading lanes; zm at 64 bits for the wide forms
  std::vector<int> want;          // leading result lanes; later lanes are not checked
};

TEST(IntCompare, ImmediateAndWideEdges) {
  const CompareCase cases[] = {
      {"cmphi .b #127", 0x243fc871u, 0, {127, 128, 255, 0}, {}, {0, 1, 1, 0}},
      {"cmpgt .b #-1", 0x251f0871u, 0, {0, 0xFF, 0x80, 0x7F}, {}, {1, 0, 0, 1}},
      {"cmpge .b #-16 (generic)", 0x25100861u, 0, {0xF0, 0xEF, 0x0F, 0x80}, {}, {1, 0, 1, 0}},
      {"cmplt .b #15", 0x250f2861u, 0, {0x0F, 0x0E, 0x80, 0x7F}, {}, {0, 1, 1, 0}},
      {"cmpeq .h #-16", 0x25508861u, 1, {0xFFF0, 0x00F0, 0xFFF0}, {}, {1, 0, 1}},
      {"cmplo .d #0", 0x24e02861u, 3, {0, 1, ~0ull}, {}, {0, 0, 0}},
      {"cmpls .s #127 (generic)", 0x24bfe871u, 2, {127, 128, 0xFFFFFFFF, 0}, {}, {1, 0, 0, 1}},
      {"cmphs .h #0 (generic)", 0x24600861u, 1, {0, 0xFFFF}, {}, {1, 1}},
      {"cmple .d #15", 0x25cf2871u, 3, {15, 16, 0x8000000000000000ull}, {}, {1, 0, 1}},
      // Wide: lanes 0, 1 of .s meet doubleword 0, lanes 2, 3 doubleword 1.
      {"cmpeq .s wide sign-extends", 0x24842861u, 2, {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
       {~0ull, 0x00000000FFFFFFFFull}, {1, 1, 0, 0}},
      {"cmplo .s wide", 0x2484e861u, 2, {0xFFFFFFFF, 0, 0xFFFFFFFF}, {0x100000000ull, 0}, {1, 1, 0}},
      {"cmplt .b wide: lane 8 meets doubleword 1", 0x24046861u, 0,
       {0x80, 0, 0, 0, 0, 0, 0, 0x80, 0x7F}, {0xFFFFFFFFFFFFFF80ull, 0x80}, {0, 0, 0, 0, 0, 0, 0, 0, 1}},
      {"cmphi .h wide", 0x2444c871u, 1, {0xFFFF, 1}, {0xFFFE, 0}, {1, 0}},
  };
  std::mt19937_64 rng(5);
  for (const CompareCase& k : cases) {
    for (bool pd_is_pg : {false, true}) {
      cpu_state s;
      random_state(s, rng);
      const unsigned e = 1u << k.size;
      std::memset(s.z[3], 0, 48);
      std::memset(s.z[4], 0, 48);
      for (size_t i = 0; i < k.zn.size(); ++i) std::memcpy(s.z[3] + i * e, &k.zn[i], e);
      for (size_t i = 0; i < k.zm.size(); ++i) std::memcpy(s.z[4] + i * 8, &k.zm[i], 8);
      std::memset(s.p[2], 1, 48);
      std::memset(s.p[1], 1, 48);   // stray bytes of a wide lane must not survive
      const uint32_t w = pd_is_pg ? (k.word & ~0xFu) | 2u : k.word;
      ASSERT_EQ(run_word(s, w), AARCH64_DECODE_OK) << k.what;
      // The listed lanes, and 0 in every byte of a lane but its first.
      const unsigned char* got = s.p[pd_is_pg ? 2 : 1];
      for (unsigned i = 0; i < k.want.size(); ++i) EXPECT_EQ(got[i * e], k.want[i]) << k.what << " lane " << i;
      for (unsigned b = 0; b < 48; ++b)
        if (b % e) {
          EXPECT_EQ(got[b], 0) << k.what << " byte " << b;
        }
    }
  }
}

// p1 = Pd (or Pdn, Pdm), p2 = Pg, p3 = Pn, p4 = Pm. Lists name the predicate
// bytes set to 1; kAll sets all 48.
const std::vector<unsigned> kAll{99};

void set_pred(unsigned char* p, const std::vector<unsigned>& on) {
  std::memset(p, 0, 48);
  if (on == kAll) std::memset(p, 1, 48);
  else for (unsigned b : on) p[b] = 1;
}

struct PredCase {
  const char* what;
  uint32_t word;
  std::vector<unsigned> d, g, n, m, want;
  bool flags;
  uint32_t nzcv;
};

TEST(PredBreak, NothingActiveAndOtherCorners) {
  const PredCase cases[] = {
      {"brka /z, empty Pg", 0x25104861u, {3}, {}, kAll, {}, {}, false, 0},
      {"brka /m keeps inactive lanes", 0x25104871u, {3, 9}, {4, 5}, {}, {}, {3, 4, 5, 9}, false, 0},
      {"brkb, Pn true at the first active lane", 0x25904861u, {}, {2, 3}, {2}, {}, {}, false, 0},
      {"brkns, empty Pg clears Pdm", 0x25584861u, {0, 47}, {}, kAll, {}, {}, true, Z | C},
      {"brkns keeps Pdm, flags from Pdm alone", 0x25584861u, {0, 30}, {5}, {5}, {}, {0, 30}, true, N | C},
      {"brkpbs, Pn false at the last active lane", 0x2544c871u, {7}, {1, 5}, {1}, {}, {}, true, Z | C},
      {"brkpbs stops before the first Pm", 0x2544c871u, {}, {1, 5, 9}, {9}, {9}, {1, 5}, true, N | C},
      {"pnext .d, Pdn at the top lane", 0x25d9c441u, {40}, kAll, {}, {}, {}, true, Z | C},
      {"pnext .d ignores stray bytes", 0x25d9c441u, {0, 12}, {3, 9, 16, 24}, {}, {}, {16}, true, N | C},
      {"pfirst keeps the other lanes", 0x2558c041u, {2, 40}, {7, 9}, {}, {}, {2, 7, 40}, true, N | C},
  };
  std::mt19937_64 rng(1);
  for (const PredCase& k : cases) {
    cpu_state s;
    random_state(s, rng);
    const uint64_t nzcv = s.nzcv;
    set_pred(s.p[1], k.d);
    set_pred(s.p[2], k.g);
    set_pred(s.p[3], k.n);
    set_pred(s.p[4], k.m);
    ASSERT_EQ(run_word(s, k.word), AARCH64_DECODE_OK) << k.what;
    unsigned char want[48];
    set_pred(want, k.want);
    EXPECT_EQ(bytes_of(s.p[1]), bytes_of(want)) << k.what;
    EXPECT_EQ(s.nzcv, k.flags ? k.nzcv : nzcv) << k.what;
  }
}

TEST(PredCount, CntpToXzrAndWideLanes) {
  cpu_state s;
  std::mt19937_64 rng(8);
  random_state(s, rng);
  set_pred(s.p[2], kAll);
  set_pred(s.p[3], {0, 1, 8, 17, 40});
  ASSERT_EQ(run_word(s, 0x25e08861u), AARCH64_DECODE_OK);   // cntp x1, p2, p3.d
  EXPECT_EQ(s.x[1], 3u);
  const cpu_state before = s;
  ASSERT_EQ(run_word(s, 0x25e0887fu), AARCH64_DECODE_OK);   // cntp xzr, p2, p3.d
  s.encoding = before.encoding;
  EXPECT_EQ(std::memcmp(&before, &s, sizeof before), 0) << quern_test::describe_diff(before, s);
}

}  // namespace
