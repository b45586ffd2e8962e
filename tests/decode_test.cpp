// The decode table's invariants, checked by computation, and the lookup.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <string>

#include "sve/dispatch/decode.h"

namespace {

const decode_row& row_named(const char* adapter) {
  for (const decode_row& r : decode_rows)
    if (!strcmp(r.adapter, adapter)) return r;
  ADD_FAILURE() << "no row " << adapter;
  return decode_rows[0];
}

unsigned key_width(const decode_map_info& m) {
  unsigned w = 0;
  for (unsigned i = 0; i < m.nranges; ++i) w += m.ranges[i][0] - m.ranges[i][1] + 1;
  return w;
}

TEST(DecodeTable, MapsHoldTheirRowsInOrder) {
  // Row counts per map, in search order.
  const unsigned expected[kDecodeMaps] = {1,  1,  2,  1,   13, 8,   58, 24, 4,  38, 4,   1,  1,  24, 8,
                                          18, 4,  4,  6,   1,  403, 3,  32, 4,  65, 1,   32, 1,  135, 2,
                                          19, 1,  6,  131, 2,  81,  285, 8, 4,  6,  4,   16, 18, 3};
  unsigned next = 0, fast = 0, generic = 0, noop = 0;
  for (unsigned i = 0; i < kDecodeMaps; ++i) {
    const decode_map_info& m = decode_maps[i];
    EXPECT_EQ(m.nrows, expected[i]) << m.name;
    EXPECT_EQ(m.first_row, next) << m.name;
    next += m.nrows;
    if (i > 0) {
      EXPECT_LE(key_width(m), key_width(decode_maps[i - 1])) << m.name;
    }
    for (unsigned r = m.first_row; r < m.first_row + m.nrows; ++r) {
      EXPECT_EQ(decode_rows[r].map, i);
      if (r > m.first_row) {
        EXPECT_LT(decode_rows[r - 1].key, decode_rows[r].key) << decode_rows[r].adapter;
      }
    }
  }
  EXPECT_EQ(next, kDecodeRows);
  for (const decode_row& r : decode_rows) {
    if (r.road[0] == 'N') ++noop;
    else if (r.road[0] == 'G') ++generic;
    else ++fast;
  }
  EXPECT_EQ(fast, 803u);
  EXPECT_EQ(generic, 644u);
  EXPECT_EQ(noop, 36u);
}

TEST(DecodeTable, EveryRowIsInTheSveGroupAndKeysMatchMasks) {
  const std::set<unsigned> top_bytes = {0x04, 0x05, 0x24, 0x25, 0x44, 0x64, 0x65, 0x84,
                                        0x85, 0xA4, 0xA5, 0xC4, 0xC5, 0xE4, 0xE5};
  std::set<std::string> names;
  for (const decode_row& r : decode_rows) {
    EXPECT_EQ(r.mask & 0x1E000000u, 0x1E000000u) << r.adapter;
    EXPECT_EQ(r.value & 0x1E000000u, 0x04000000u) << r.adapter;
    EXPECT_EQ(r.value & ~r.mask, 0u) << r.adapter;
    EXPECT_TRUE(top_bytes.count(r.value >> 24)) << r.adapter;
    EXPECT_EQ(decode_map_key(decode_maps[r.map], r.value), r.key) << r.adapter;
    EXPECT_TRUE(names.insert(r.adapter).second) << "two rows named " << r.adapter;
  }
}

TEST(DecodeTable, NoWordMatchesTwoRows) {
  for (unsigned i = 0; i < kDecodeRows; ++i)
    for (unsigned j = i + 1; j < kDecodeRows; ++j) {
      const decode_row &a = decode_rows[i], &b = decode_rows[j];
      const uint32_t common = a.mask & b.mask;
      EXPECT_NE(a.value & common, b.value & common) << a.adapter << " and " << b.adapter;
    }
}

TEST(DecodeTable, FpsrBracketIsOnNinetySevenFastRows) {
  unsigned bracketed = 0;
  for (const decode_row& r : decode_rows) {
    const size_t n = strlen(r.road);
    if (r.road[n - 1] == '+') {
      ++bracketed;
      EXPECT_EQ(strncmp(r.road, "sve_f", 5) == 0 || strncmp(r.road, "sve_scvtf", 9) == 0 ||
                    strncmp(r.road, "sve_ucvtf", 9) == 0,
                true)
          << r.adapter << " " << r.road;
    }
  }
  EXPECT_EQ(bracketed, 97u);
}

// Every row is found, whatever its operand fields hold, by both lookups.
TEST(Lookup, EveryRowWithRandomOperandsFindsItsAdapter) {
  std::mt19937 rng(12345);
  for (const decode_row& r : decode_rows) {
    for (int trial = 0; trial < 16; ++trial) {
      const uint32_t w = r.value | (rng() & ~r.mask);
      ASSERT_EQ(get_sve_handler(w), r.fn) << r.adapter << " word " << std::hex << w;
      ASSERT_EQ(get_sve_handler_cascade(w), r.fn) << r.adapter << " word " << std::hex << w;
    }
  }
}

// The bucket index gives the cascade's answer for words that hit and that miss.
TEST(Lookup, IndexAgreesWithCascadeOnRandomWords) {
  std::mt19937 rng(777);
  unsigned hits = 0;
  for (int i = 0; i < 200000; ++i) {
    uint32_t w = rng();
    if (i & 1) w = (w & ~0x1E000000u) | 0x04000000u;   // half of them in the SVE group
    const sve_handler_fn f = get_sve_handler(w);
    ASSERT_EQ(f, get_sve_handler_cascade(w)) << std::hex << w;
    hits += f != nullptr;
  }
  EXPECT_GT(hits, 1000u);   // the sample must reach into the table
}

struct LookupCase {
  uint32_t word;
  const char* adapter;   // null: not an emulated instruction
};

TEST(Lookup, KnownWords) {
  const LookupCase cases[] = {
      {0x252C9000, "VecPClearFFSR"},   // the one row of the 32-bit map
      {0x04000000, "VecU8AddVVM"},     // add z0.b, p0/m, z0.b, z0.b
      {0x04E00000, "VecU64AddVVX"},    // add z0.d, z0.d, z0.d
      {0x2520C020, "VecU8AddVIX"},     // add z0.b, z0.b, #1
      {0x2520E020, "VecU8AddVIX"},     // the same with bit 13 set: reserved, yet found
      {0xC4647159, nullptr},           // SVE group, top byte C4, unallocated
      {0x25AB6C39, nullptr},           // psel: an SME instruction, not emulated
      {0xC4404000, "VecU64Load1XVSZ"}, // ld1b {z0.d}, p0/z, [x0, z0.d, sxtw]
      {0x00000000, nullptr},           // udf: outside the SVE group
      {0x8B000000, nullptr},           // add x0, x0, x0
      {0x1E202800, nullptr},           // fadd s0, s0, s0
  };
  for (const LookupCase& c : cases) {
    const decode_row* r = find_decode_row(c.word);
    if (!c.adapter) {
      EXPECT_EQ(r, nullptr) << std::hex << c.word << " found " << (r ? r->adapter : "");
      EXPECT_EQ(get_sve_handler(c.word), nullptr);
      continue;
    }
    ASSERT_NE(r, nullptr) << std::hex << c.word;
    EXPECT_STREQ(r->adapter, c.adapter) << std::hex << c.word;
  }
}

TEST(Lookup, FirstMapWordWithAnyBitChangedIsNotInThatMap) {
  const decode_row& setffr = row_named("VecPClearFFSR");
  for (int bit = 0; bit < 32; ++bit) {
    const decode_row* r = find_decode_row(0x252C9000u ^ (1u << bit));
    EXPECT_NE(r, &setffr) << bit;
    if (r) {
      EXPECT_NE(r->map, 0) << bit;
    }
  }
}

TEST(Lookup, WideTopBitKeysAreNonNegative) {
  // A word with bit 31 set is found through a narrower map with a positive key.
  const decode_row& r = row_named("VecU64Load1XVSZ");
  EXPECT_EQ(r.value >> 24, 0xC4u);
  EXPECT_NE(r.map, 0);
  EXPECT_GT(static_cast<int>(decode_map_key(decode_maps[r.map], 0xC4404000u)), 0);
}

TEST(Lookup, MissesAreStable) {
  for (uint32_t w : {0x0427C4D1u, 0x25BF992Du, 0xA5EC0806u}) {
    EXPECT_EQ(get_sve_handler(w), nullptr);
    EXPECT_EQ(get_sve_handler(w), nullptr);
  }
}

}  // namespace
