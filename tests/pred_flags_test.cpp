// The predicate flag setters of both roads.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "sve/predicate/pred_flags.h"

namespace {

constexpr uint32_t N = kFlagN, Z = kFlagZ, C = kFlagC, V = kFlagV;

CpuContext context(uint32_t nzcv) {
  CpuContext c{};
  c.nzcv = nzcv;
  c.vl = kVecUnits;
  return c;
}

PredV packed(uint64_t bits) {
  PredV p{};
  p.w[0] = bits;
  return p;
}

// The fast test on 48-byte predicates, at lane stride `esize` bits.
uint32_t fast_flags(const unsigned char* g, const unsigned char* r, int esize, uint64_t nzcv_before = 0) {
  cpu_state cs{};
  cs.nzcv = nzcv_before;
  const char* gc = reinterpret_cast<const char*>(g);
  const char* rc = reinterpret_cast<const char*>(r);
  switch (esize) {
    case 8: sve_ptest<signed char>(&cs, gc, rc); break;
    case 16: sve_ptest<short>(&cs, gc, rc); break;
    case 32: sve_ptest<int>(&cs, gc, rc); break;
    default: sve_ptest<long>(&cs, gc, rc); break;
  }
  EXPECT_EQ(cs.nzcv & ~uint64_t{kFlagsNZCV}, nzcv_before & ~uint64_t{kFlagsNZCV}) << "bits besides NZCV changed";
  return static_cast<uint32_t>(cs.nzcv & kFlagsNZCV);
}

// The architecture's test, element by element, on the lowest bit only.
uint32_t model_flags(const unsigned char* g, const unsigned char* r, int esize) {
  const unsigned e = esize / 8;
  int first = -1, last = -1;
  bool any = false;
  for (unsigned i = 0; i < 48 / e; ++i) {
    if (!(g[i * e] & 1)) continue;
    if (first < 0) first = static_cast<int>(i);
    last = static_cast<int>(i);
    any |= r[i * e] & 1;
  }
  uint32_t f = any ? 0 : Z;
  if (first >= 0 && (r[first * e] & 1)) f |= N;
  if (last < 0 || !(r[last * e] & 1)) f |= C;
  return f;
}

// The generic road counts any bit of a wide element of the result as true for
// Z and C, the lowest bit only for N.
TEST(PredFlags, GenericRoadReadsAllBitsOfAWideResultElement) {
  CpuContext c = context(0);
  PredSetNZCV(packed(1), packed(2), 64, &c);
  EXPECT_EQ(c.nzcv, 0u);
  c = context(0);
  PredSetNZCV(packed(1), packed(1u << 8), 64, &c);   // element 1 is not governed
  EXPECT_EQ(c.nzcv, Z | C);
}

TEST(PredFlags, GenericMembersKeepWhatTheyDoNotSet) {
  const PredV g = packed(0x3), none = packed(0), r = packed(0x1);
  struct {
    const char* what;
    void (*fn)(PredV, PredV, int, CpuContext*);
    PredV g, r;
    uint32_t before, after;
  } const cases[] = {
      {"NZCV clears V", PredSetNZCV, g, r, V, N | C},
      {"NZC keeps V", PredSetNZC, g, r, V, N | C | V},
      {"NZC, nothing true", PredSetNZC, g, none, N | V, Z | C | V},
      {"NC keeps Z and V", PredSetNC, g, r, Z | V, N | Z | C | V},
      {"NC writes nothing without a governed element", PredSetNC, none, r, N | V, N | V},
      {"NCV keeps Z, clears V", PredSetNCV, g, r, Z | V, N | Z | C},
      {"NCV, nothing true", PredSetNCV, g, none, N | V, C},
  };
  for (const auto& k : cases) {
    CpuContext c = context(k.before);
    k.fn(k.g, k.r, 8, &c);
    EXPECT_EQ(c.nzcv, k.after) << k.what;
  }
  CpuContext c = context(V);
  c.vl = 0;   // no elements at all
  PredSetNZC(g, r, 8, &c);
  EXPECT_EQ(c.nzcv, Z | C | V);
}

TEST(PredFlags, FindActive) {
  CpuContext c = context(0);
  EXPECT_EQ(FindFirstActive(packed(0), 8, &c), -1);
  EXPECT_EQ(FindLastActive(packed(0), 8, &c), -1);
  EXPECT_EQ(FindFirstActive(packed(0x0000F00000000100ull), 8, &c), 8);
  EXPECT_EQ(FindLastActive(packed(0x0000F00000000100ull), 8, &c), 47);
  EXPECT_EQ(FindLastActive(packed(0x0000F00000000100ull), 64, &c), 1);   // bits 44..47 are no lane's lowest
  EXPECT_EQ(FindFirstActive(packed(0x10), 32, &c), 1);
  EXPECT_EQ(FindFirstActive(packed(0x1ull << 48), 8, &c), -1);    // beyond the vector length
}

// Random predicates, sparse to dense, so that first, last and no active
// element all occur. The fast road also gets bytes other than 0 and 1 and
// stray bytes inside wide lanes, which it must ignore (a byte of 2 is
// inactive); the generic road gets the canonical packed form.
TEST(PredFlags, RandomPredicatesBothRoadsAgreeWithTheModel) {
  std::mt19937_64 rng(7);
  for (int esize : {8, 16, 32, 64}) {
    const unsigned e = esize / 8;
    for (int t = 0; t < 4000; ++t) {
      unsigned char g[48] = {}, r[48] = {};
      const unsigned density = rng() % 5;   // 0: nothing governed
      for (unsigned i = 0; i < 48; i += e) {
        g[i] = (rng() % 4) < density ? 1 : 0;
        r[i] = (rng() % 4) < density ? 1 : 0;
      }
      const uint32_t want = model_flags(g, r, esize);
      CpuContext c = context(V | 0x5);
      PredSetNZCV(pack_pred(g), pack_pred(r), esize, &c);
      ASSERT_EQ(c.nzcv, want | 0x5) << "esize " << esize << " trial " << t << " (generic)";
      for (unsigned i = 0; i < 48; ++i) {
        if (rng() % 4) continue;
        unsigned char* p = rng() & 1 ? g : r;
        p[i] = static_cast<unsigned char>(rng());
      }
      ASSERT_EQ(fast_flags(g, r, esize, 0xFFFFFFFF00000000ull | V), model_flags(g, r, esize))
          << "esize " << esize << " trial " << t;
    }
  }
}

}  // namespace
