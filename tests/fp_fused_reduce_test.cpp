// Corners of the fused, complex and reduction families that random operands
// reach only by luck: the order of a reduction, its identities and pad lanes,
// a NaN met half way through it, FADDA with nothing active, negation before
// the fused operation, flush-to-zero of half-precision inputs and outputs and
// default NaN. Everything else is held against the reference processor by the
// differential test.
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <random>
#include <vector>

#include "test_state.h"

namespace {

using quern_test::run_word;

constexpr uint32_t kDN = 1u << 25, kFZ16 = 1u << 19;
constexpr uint32_t kIOC = 1u << 0, kUFC = 1u << 3, kIXC = 1u << 4, kIDC = 1u << 7;

uint64_t lane(const unsigned char* reg, unsigned size, unsigned i) {
  uint64_t v = 0;
  std::memcpy(&v, reg + (i << size), 1u << size);
  return v;
}
void set_lane(unsigned char* reg, unsigned size, unsigned i, uint64_t v) { std::memcpy(reg + (i << size), &v, 1u << size); }
void fill(unsigned char* reg, unsigned size, uint64_t v) {
  for (unsigned i = 0; i < (48u >> size); ++i) set_lane(reg, size, i, v);
}
uint32_t f32(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
uint64_t f64(double f) {
  uint64_t u;
  std::memcpy(&u, &f, 8);
  return u;
}

cpu_state base_state(uint32_t fpcr) {
  std::mt19937_64 rng(11);
  cpu_state s;
  quern_test::random_state(s, rng);
  s.fpsr = 0;
  s.fpcr = fpcr;
  return s;
}

// Lanes of `size` set from `first` (lane 0 upward), the rest `rest`; the
// predicate active on the lanes whose bit is set in `active`.
void load(cpu_state& s, unsigned reg, unsigned size, std::initializer_list<uint64_t> first, uint64_t rest) {
  fill(s.z[reg], size, rest);
  unsigned i = 0;
  for (uint64_t v : first) set_lane(s.z[reg], size, i++, v);
}
void load_pred(cpu_state& s, unsigned size, uint32_t active) {
  std::memset(s.p[0], 0, 48);
  for (unsigned i = 0; i < (48u >> size); ++i) s.p[0][i << size] = (active >> i) & 1u;
}

constexpr uint32_t kAllLanes = 0xffffffu;

// Reductions: Vd = reduce(P0, Z1); FADDA starts from lane 0 of Z0.
struct ReduceCase {
  const char* what;
  uint32_t word;
  unsigned size;
  uint32_t fpcr, active;
  uint64_t start;
  std::initializer_list<uint64_t> lanes;
  uint64_t rest, want;
  uint32_t flags_set, flags_clear;
};

TEST(FpReduce, OrderIdentitiesAndNaNs) {
  const uint32_t s_2p24 = f32(16777216.0f);
  const ReduceCase cases[] = {
      {"FADDV combines in pairs, not left to right", 0x65802020, 2, 0, kAllLanes, 0, {s_2p24, 0, f32(1), f32(1)}, 0,
       0x4b800001, 0, kIXC},
      {"FADDA adds strictly in order", 0x65982020, 2, 0, 0x3, s_2p24, {f32(1), f32(1)}, 0, s_2p24, kIXC, 0},
      {"FADDV of all -0.0 is +0.0 through the pad lanes", 0x65802020, 2, 0, kAllLanes, 0, {}, 0x80000000u, 0, 0, 0},
      {"FADDV: -0.0 next to an inactive lane gives +0.0", 0x65402020, 1, 0, 0x1, 0, {}, 0x8000, 0, 0, 0},
      {"FADDV under FZ16 flushes a subnormal input, no IDC", 0x65402020, 1, kFZ16, kAllLanes, 0, {0x0001}, 0, 0, 0,
       kIDC},
      {"FADDV without FZ16 keeps a subnormal input", 0x65402020, 1, 0, kAllLanes, 0, {0x0001}, 0, 0x0001, 0, kIDC},
      {"FADDA with no active lane returns a signalling NaN start unchanged", 0x65982020, 2, 0, 0, 0x7f800001u,
       {}, 0x7f800003u, 0x7f800001u, 0, kIOC},
      {"FADDA skips an inactive signalling NaN", 0x65d82020, 3, 0, 0x3d, 0, {f64(1), 0x7ff0000000000001ull}, f64(1),
       f64(5), 0, kIOC},
      {"FMAXNMV keeps a lone quiet NaN that stays first", 0x65842020, 2, 0, 0x1, 0, {0x7fc00123u}, 0x7f800001u,
       0x7fc00123u, 0, kIOC},
      {"FMAXNMV drops a lone quiet NaN that comes second", 0x65842020, 2, 0, 0x2, 0, {0, 0x7fc00123u}, 0x7f800001u,
       0x7fc00000u, 0, kIOC},
      {"FMAXNMV half, lone quiet NaN first", 0x65442020, 1, 0, 0x1, 0, {0x7e23}, 0, 0x7e23, 0, kIOC},
      {"FMAXNMV half, lone quiet NaN under DN", 0x65442020, 1, kDN, 0x1, 0, {0x7e23}, 0, 0x7e00, 0, kIOC},
      {"FMAXNMV of an empty vector is the default NaN", 0x65842020, 2, 0, 0, 0, {}, 0x7f800001u, 0x7fc00000u, 0,
       kIOC},
      {"FMAXV of an empty vector is -infinity", 0x65862020, 2, 0, 0, 0, {}, 0x7f800001u, 0xff800000u, 0, kIOC},
      {"FMINV of an empty vector is +infinity", 0x65c72020, 3, 0, 0, 0, {}, 0x7ff0000000000001ull,
       0x7ff0000000000000ull, 0, kIOC},
      {"FMAXV meets a signalling NaN half way: IOC, quiet result", 0x65862020, 2, 0, kAllLanes, 0,
       {f32(1), f32(2), f32(3), f32(4), f32(5), 0x7f800005u}, f32(1), 0x7fc00005u, kIOC, 0},
  };
  for (const ReduceCase& c : cases) {
    cpu_state s = base_state(c.fpcr);
    load(s, 0, c.size, {c.start}, 0x5a5a5a5a5a5a5a5aull);
    load(s, 1, c.size, c.lanes, c.rest);
    load_pred(s, c.size, c.active);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << c.what;
    EXPECT_EQ(lane(s.z[0], c.size, 0), c.want) << c.what;
    for (unsigned b = 1u << c.size; b < 48; ++b) ASSERT_EQ(s.z[0][b], 0) << c.what << ", byte " << b;
    EXPECT_EQ(s.fpsr & c.flags_set, c.flags_set) << c.what;
    EXPECT_EQ(s.fpsr & c.flags_clear, 0u) << c.what;
  }
}

// Fused forms on Z0 (destination), Z1, Z2 with every lane active and every
// lane alike.
struct FusedCase {
  const char* what;
  uint32_t word;
  unsigned size;
  uint32_t fpcr;
  uint64_t z0, z1, z2, want;
  uint32_t flags_set, flags_clear;
};

TEST(FpFused, NegationFirstFlushAndDefaultNaN) {
  const FusedCase cases[] = {
      {"FMLS flips the sign of a quiet NaN factor", 0x65a22020, 2, 0, f32(1), 0x7fc00001u, f32(1), 0xffc00001u, 0,
       kIOC},
      {"FMLS keeps the sign of a NaN addend: the factor is negated, not the result", 0x65a22020, 2, 0, 0x7fc00001u,
       f32(1), f32(1), 0x7fc00001u, 0, kIOC},
      {"FMLS half, quiet NaN factor, DN clear", 0x65622020, 1, 0, 0x3c00, 0x7e01, 0x3c00, 0xfe01, 0, kIOC},
      {"FMLS half, quiet NaN factor, DN set", 0x65622020, 1, kDN, 0x3c00, 0x7e01, 0x3c00, 0x7e00, 0, kIOC},
      {"FNMLA is -(a + n*m)", 0x65624020, 1, 0, 0x3c00, 0x4000, 0x4200, 0xc700, 0, kIXC},
      {"FMAD: signalling NaN multiplicand times zero", 0x65628020, 1, 0, 0x7c01, 0, 0x3c00, 0x7e01, kIOC, 0},
      {"FMLA half under FZ16 flushes a subnormal addend, no IDC", 0x65620020, 1, kFZ16, 0x0001, 0, 0, 0, 0, kIDC},
      {"FMLA half without FZ16 keeps a subnormal addend", 0x65620020, 1, 0, 0x0001, 0, 0, 0x0001, 0, kIDC},
      {"FMLA half under FZ16 flushes a subnormal result", 0x65620020, 1, kFZ16, 0, 0x0400, 0x3800, 0, kUFC, 0},
      {"FMLA half without FZ16: exact subnormal result", 0x65620020, 1, 0, 0, 0x0400, 0x3800, 0x0200, 0,
       kUFC | kIXC},
  };
  for (const FusedCase& c : cases) {
    cpu_state s = base_state(c.fpcr);
    fill(s.z[0], c.size, c.z0);
    fill(s.z[1], c.size, c.z1);
    fill(s.z[2], c.size, c.z2);
    load_pred(s, c.size, kAllLanes);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << c.what;
    for (unsigned i = 0; i < (48u >> c.size); ++i) ASSERT_EQ(lane(s.z[0], c.size, i), c.want) << c.what << ", lane " << i;
    EXPECT_EQ(s.fpsr & c.flags_set, c.flags_set) << c.what;
    EXPECT_EQ(s.fpsr & c.flags_clear, 0u) << c.what;
  }
}

// Two FCMLA steps, rotations 0 and 90, on a zeroed accumulator give the
// complex product (2 + 3i)(5 + 7i) = -11 + 29i; at both widths that have it
// predicated, on both roads.
TEST(FpComplex, TwoRotationsMakeTheProduct) {
  struct { unsigned size; uint32_t rot0, rot90; uint64_t two, three, five, seven, m11, p29; } widths[] = {
      {2, 0x64820020, 0x64822020, f32(2), f32(3), f32(5), f32(7), f32(-11), f32(29)},
      {1, 0x64420020, 0x64422020, 0x4000, 0x4200, 0x4500, 0x4700, 0xc980, 0x4f40},
  };
  for (const auto& w : widths) {
    cpu_state s = base_state(0);
    const unsigned n = 48u >> w.size;
    fill(s.z[0], w.size, 0);
    for (unsigned k = 0; k < n; k += 2) {
      set_lane(s.z[1], w.size, k, w.two);
      set_lane(s.z[1], w.size, k + 1, w.three);
      set_lane(s.z[2], w.size, k, w.five);
      set_lane(s.z[2], w.size, k + 1, w.seven);
    }
    load_pred(s, w.size, kAllLanes);
    ASSERT_EQ(run_word(s, w.rot0), AARCH64_DECODE_OK);
    ASSERT_EQ(run_word(s, w.rot90), AARCH64_DECODE_OK);
    for (unsigned k = 0; k < n; k += 2) {
      EXPECT_EQ(lane(s.z[0], w.size, k), w.m11) << "size " << w.size << ", pair " << k / 2;
      EXPECT_EQ(lane(s.z[0], w.size, k + 1), w.p29) << "size " << w.size << ", pair " << k / 2;
    }
  }
}

}  // namespace
