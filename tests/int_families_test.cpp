// The integer families where the differential test cannot look: encodings the
// reference rejects, the fast handlers' pattern table against VecTrueILength
// for every pattern, and the bitmask immediate against a brute-force list of
// every valid immediate.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "sve/dispatch/adapter_support.h"
#include "sve/int/sat_count.h"
#include "sve/lib/int_helpers.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

// ---- element counts -------------------------------------------------------------

// The fast handlers' table agrees with VecTrueILength at each of the four lane
// counts, for all 32 patterns.
TEST(IntFamilies, PatternTableAgreesWithVecTrueILength) {
  for (int size = 0; size < 4; ++size)
    for (unsigned pat = 0; pat < 32; ++pat)
      EXPECT_EQ(fast::pattern_count(size, pat), static_cast<uint64_t>(VecTrueILength(pat, 48 >> size)))
          << "size " << size << " pattern " << pat;
}

// INC/DEC on the fast road and CNT on the generic road give the same count
// for every element size, pattern and a spread of multipliers; UQDECB (fast)
// clamps at zero and clears the upper half of a W register.
TEST(IntFamilies, CountRoadsAgreeForEveryPattern) {
  for (unsigned size = 0; size < 4; ++size) {
    for (unsigned pat = 0; pat < 32; ++pat) {
      for (unsigned imm4 : {0u, 1u, 7u, 15u}) {
        SCOPED_TRACE(testing::Message() << "size " << size << " pattern " << pat << " imm4 " << imm4);
        const uint64_t want = uint64_t(VecTrueILength(pat, 48 >> size)) * (imm4 + 1);
        const uint32_t fields = size << 22 | imm4 << 16 | pat << 5 | 3;
        cpu_state s;
        std::memset(&s, 0, sizeof s);
        s.x[3] = 1000;
        ASSERT_EQ(run_word(s, 0x0430E000u | fields), 0);  // INC<T> X3
        EXPECT_EQ(s.x[3], 1000 + want);
        ASSERT_EQ(run_word(s, 0x0430E400u | fields), 0);  // DEC<T> X3
        EXPECT_EQ(s.x[3], 1000u);
        s.x[3] = 0xdeadbeef;
        ASSERT_EQ(run_word(s, 0x0420E000u | fields), 0);  // CNT<T> X3
        EXPECT_EQ(s.x[3], want);
        if (size == 0) {
          s.x[3] = 0xffffffff00000000ull | 500;
          ASSERT_EQ(run_word(s, 0x0420FC00u | fields), 0);  // UQDECB W3
          EXPECT_EQ(s.x[3], want >= 500 ? 0 : 500 - want);
        }
      }
    }
  }
}

// ---- encodings the reference rejects ------------------------------------------------

// With byte elements the shifted immediate (bit 13) does not exist. The
// adapters pass imm8 << 8 and the byte lane sees its low byte, 0: the
// saturating forms leave the vector as it is, SUBR negates it, DUP and CPY
// write zeros.
TEST(IntFamilies, ByteLanesWithTheShiftedImmediate) {
  std::mt19937_64 rng(7);
  struct Case { const char* name; uint32_t base; int kind; };  // kind: 0 same, 1 negated, 2 zero, 3 zero where active
  const Case cases[] = {
      {"SQADD", 0x2524C000u, 0}, {"UQADD", 0x2525C000u, 0}, {"SQSUB", 0x2526C000u, 0},
      {"UQSUB", 0x2527C000u, 0}, {"SUBR", 0x2523C000u, 1},  {"DUP", 0x2538C000u, 2},
      {"CPY/m", 0x05104000u | 2u << 16, 3}, {"CPY/z", 0x05100000u | 2u << 16, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    cpu_state s;
    random_state(s, rng);
    const cpu_state before = s;
    ASSERT_EQ(run_word(s, c.base | 1u << 13 | 0xA5u << 5 | 4), 0);
    for (unsigned i = 0; i < 48; ++i) {
      const uint8_t old = before.z[4][i];
      const uint8_t want = c.kind == 0 ? old : c.kind == 1 ? uint8_t(-old) : c.kind == 2 ? 0
                           : (before.p[2][i] & 1) ? 0 : (c.base & 1u << 14) ? old : 0;
      EXPECT_EQ(s.z[4][i], want) << "byte " << i;
    }
  }
}

// ---- governing predicates ------------------------------------------------------------

// Only bit 0 of a predicate byte governs. Bytes that hold other bits as well
// (which no reference processor can hold) change nothing, on every predicated
// fast handler of these families.
TEST(IntFamilies, OnlyBitZeroOfAPredicateByteCounts) {
  struct Case { uint32_t word; const char* text; };
  const Case cases[] = {
      {0x04080861u, "smax z1.b, p2/m, z1.b, z3.b"}, {0x044B0861u, "umin z1.h, p2/m, z1.h, z3.h"},
      {0x049A0861u, "and z1.s, p2/m, z1.s, z3.s"},  {0x04DB0861u, "bic z1.d, p2/m, z1.d, z3.d"},
      {0x0457A861u, "neg z1.h, p2/m, z3.h"},        {0x05A78861u, "rbit z1.s, p2/m, z3.s"},
      {0x04D0A861u, "sxtb z1.d, p2/m, z3.d"},       {0x0493A861u, "uxth z1.s, p2/m, z3.s"},
      {0x0523C841u, "sel z1.b, p2, z2.b, z3.b"},    {0x04512861u, "movprfx z1.h, p2/m, z3.h"},
      {0x04902861u, "movprfx z1.s, p2/z, z3.s"},    {0x05D200A1u, "mov z1.d, p2/z, #5"},
      {0x051240A1u, "mov z1.b, p2/m, #5"},          {0x0568A881u, "mov z1.h, p2/m, w4"},
      {0x05A08861u, "mov z1.s, p2/m, s3"},          {0x25EC8844u, "incp x4, p2.d"},
      {0x252C8844u, "incp x4, p2.b"},
  };
  std::mt19937_64 rng(11);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    for (int trial = 0; trial < 20; ++trial) {
      cpu_state canonical;
      random_state(canonical, rng);
      for (auto& b : canonical.p[2]) b = rng() & 1;
      cpu_state noisy = canonical;
      for (auto& b : noisy.p[2]) b = static_cast<unsigned char>(b | (rng() & 0xFE));
      ASSERT_EQ(run_word(canonical, c.word), 0);
      ASSERT_EQ(run_word(noisy, c.word), 0);
      std::memcpy(noisy.p[2], canonical.p[2], 48);
      EXPECT_EQ(std::memcmp(&canonical, &noisy, sizeof canonical), 0) << quern_test::describe_diff(canonical, noisy);
    }
  }
}

// ---- bitmask immediates -----------------------------------------------------------------

// Every valid immediate, built the plain way: a run of ones in an element of
// 2 to 64 bits, rotated right, repeated to 64 bits; with the encoding that
// stands for it.
struct Bitmask { uint32_t n, immr, imms; uint64_t value; };

std::vector<Bitmask> all_bitmasks() {
  std::vector<Bitmask> out;
  for (unsigned esize = 2; esize <= 64; esize *= 2) {
    const uint64_t emask = esize == 64 ? ~0ull : (1ull << esize) - 1;
    for (unsigned run = 1; run < esize; ++run) {
      for (unsigned rot = 0; rot < esize; ++rot) {
        const uint64_t ones_run = (1ull << run) - 1;
        uint64_t elem = rot == 0 ? ones_run : ((ones_run >> rot) | (ones_run << (esize - rot))) & emask;
        uint64_t v = 0;
        for (unsigned k = 0; k < 64; k += esize) v |= elem << k;
        const uint32_t imms = (~(2 * esize - 1) & 0x3Fu) | (run - 1);
        out.push_back({esize == 64 ? 1u : 0u, rot, imms, v});
      }
    }
  }
  return out;
}

TEST(IntFamilies, BitmaskImmediateAgainstEveryValidValue) {
  const std::vector<Bitmask> valid = all_bitmasks();
  std::set<uint64_t> values;
  std::map<std::tuple<uint32_t, uint32_t, uint32_t>, uint64_t> by_fields;
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> rotations;  // (N, imms) -> element size
  for (const Bitmask& b : valid) {
    values.insert(b.value);
    by_fields[{b.n, b.immr, b.imms}] = b.value;
    rotations[{b.n, b.imms}] += 1;
  }
  EXPECT_EQ(values.size(), 5334u);
  // Every one of the 8192 field combinations: a valid one gives the value of
  // its rotation taken within the element (the rotation bits above the element
  // size are ignored); a reserved one gives no valid immediate: all ones, or 0
  // where no element size exists.
  size_t reserved = 0;
  for (uint32_t f = 0; f < 8192; ++f) {
    const uint32_t n = f >> 12, immr = (f >> 6) & 63, imms = f & 63;
    const uint64_t v = adapter::decode_bitmask(n, immr, imms);
    const auto size = rotations.find({n, imms});
    if (size != rotations.end()) {
      EXPECT_EQ(v, by_fields.at({n, immr & (size->second - 1), imms})) << "N=" << n << " immr=" << immr << " imms=" << imms;
    } else {
      ++reserved;
      EXPECT_TRUE(v == 0 || v == ~0ull) << "N=" << n << " immr=" << immr << " imms=" << imms << " gave " << std::hex << v;
    }
  }
  // An all-ones run at each of the six sizes, and N clear with imms 11111x,
  // each with any of 64 rotation fields.
  EXPECT_EQ(reserved, (6u + 2u) * 64);
}

}  // namespace
