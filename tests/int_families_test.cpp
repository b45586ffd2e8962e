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
