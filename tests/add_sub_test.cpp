// ADD and SUB from instruction word to result, on a cpu_state in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "sve/dispatch/decode.h"
#include "sve/int/add_sub.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

// Encodings, with every operand field a parameter.
uint32_t add_zpz(unsigned size, unsigned zdn, unsigned pg, unsigned zm, bool sub) {
  return 0x04000000u | size << 22 | (sub ? 1u << 16 : 0) | pg << 10 | zm << 5 | zdn;
}
uint32_t add_zzz(unsigned size, unsigned zd, unsigned zn, unsigned zm, bool sub) {
  return 0x04200000u | size << 22 | zm << 16 | (sub ? 1u << 10 : 0) | zn << 5 | zd;
}
uint32_t add_zi(unsigned size, unsigned zdn, unsigned imm8, bool sh, bool sub) {
  return 0x2520C000u | size << 22 | (sub ? 1u << 16 : 0) | (sh ? 1u << 13 : 0) | imm8 << 5 | zdn;
}

uint64_t get_lane(const unsigned char* reg, unsigned size, unsigned i) {
  uint64_t v = 0;
  std::memcpy(&v, reg + (i << size), 1u << size);
  return v;
}

// What the architecture gives for one lane of the three forms.
uint64_t lane_result(uint64_t a, uint64_t b, unsigned size, bool sub) {
  const uint64_t mask = size == 3 ? ~0ull : (1ull << (8u << size)) - 1;
  return (sub ? a - b : a + b) & mask;
}

struct Form {
  const char* name;
  int kind;   // 0 merging, 1 unpredicated, 2 immediate
  bool sub;
};
const Form kForms[] = {{"ADD zpz", 0, false}, {"SUB zpz", 0, true}, {"ADD zzz", 1, false},
                       {"SUB zzz", 1, true},  {"ADD zi", 2, false}, {"SUB zi", 2, true}};

// Random registers, sizes and data: the instruction changes its destination
// as the architecture says and nothing else but `encoding`.
TEST(AddSub, RandomOperandsAllForms) {
  std::mt19937_64 rng(2024);
  for (const Form& f : kForms) {
    for (int trial = 0; trial < 400; ++trial) {
      cpu_state before;
      random_state(before, rng);
      const unsigned size = rng() % 4, d = rng() % 32, n = rng() % 32, m = rng() % 32, pg = rng() % 8;
      const unsigned imm8 = rng() % 256;
      const bool sh = size != 0 && (rng() & 1);
      const uint32_t w = f.kind == 0   ? add_zpz(size, d, pg, m, f.sub)
                         : f.kind == 1 ? add_zzz(size, d, n, m, f.sub)
                                       : add_zi(size, d, imm8, sh, f.sub);
      cpu_state after = before;
      ASSERT_EQ(run_word(after, w), AARCH64_DECODE_OK) << f.name;

      cpu_state expect = before;
      expect.encoding = w;
      const unsigned lanes = 48u >> size;
      for (unsigned i = 0; i < lanes; ++i) {
        const unsigned char* zdn = before.z[d];
        uint64_t r;
        if (f.kind == 0) {
          const bool on = before.p[pg][i << size] & 1;
          r = on ? lane_result(get_lane(zdn, size, i), get_lane(before.z[m], size, i), size, f.sub)
                 : get_lane(zdn, size, i);
        } else if (f.kind == 1) {
          r = lane_result(get_lane(before.z[n], size, i), get_lane(before.z[m], size, i), size, f.sub);
        } else {
          r = lane_result(get_lane(zdn, size, i), sh ? imm8 << 8 : imm8, size, f.sub);
        }
        std::memcpy(expect.z[d] + (i << size), &r, 1u << size);
      }
      const std::string diff = quern_test::describe_diff(expect, after);
      ASSERT_TRUE(diff.empty()) << f.name << " word 0x" << std::hex << w << diff;
    }
  }
}

TEST(AddSub, OverlapOfDestinationAndSources) {
  std::mt19937_64 rng(5);
  for (unsigned size = 0; size < 4; ++size) {
    cpu_state s;
    random_state(s, rng);
    cpu_state before = s;
    // add z7, z7, z7: every lane doubles.
    run_word(s, add_zzz(size, 7, 7, 7, false));
    for (unsigned i = 0; i < (48u >> size); ++i)
      EXPECT_EQ(get_lane(s.z[7], size, i), lane_result(get_lane(before.z[7], size, i),
                                                       get_lane(before.z[7], size, i), size, false));
    // sub z3, p1/m, z3, z3: active lanes become 0, inactive ones stay.
    s = before;
    run_word(s, add_zpz(size, 3, 1, 3, true));
    for (unsigned i = 0; i < (48u >> size); ++i) {
      const bool on = before.p[1][i << size] & 1;
      EXPECT_EQ(get_lane(s.z[3], size, i), on ? 0 : get_lane(before.z[3], size, i)) << size << " " << i;
    }
  }
}

TEST(AddSub, GoverningPredicateReadsBitZeroOfTheLanesFirstByte) {
  cpu_state s;
  std::mt19937_64 rng(9);
  random_state(s, rng);
  std::memset(s.z[1], 0, 48);
  std::memset(s.z[2], 1, 48);
  // Words: lane i of P2 has first byte 2 (bit 0 clear) or 1, second byte the opposite.
  for (unsigned i = 0; i < 48; ++i) s.p[2][i] = (i % 8 == 0) ? 1 : (i % 4 == 0) ? 2 : (i % 4 == 1) ? 1 : 0;
  run_word(s, add_zpz(2, 1, 2, 2, false));
  for (unsigned i = 0; i < 12; ++i)
    EXPECT_EQ(get_lane(s.z[1], 2, i), i % 2 == 0 ? 0x01010101u : 0u) << i;
}

TEST(AddSub, AllFalsePredicateLeavesDestination) {
  cpu_state s;
  std::mt19937_64 rng(10);
  random_state(s, rng);
  std::memset(s.p[0], 0, 48);
  const cpu_state before = s;
  for (unsigned size = 0; size < 4; ++size) {
    run_word(s, add_zpz(size, 4, 0, 9, size & 1));
    EXPECT_EQ(std::memcmp(s.z, before.z, sizeof s.z), 0);
  }
}

// The byte form with the shift bit is not an instruction of the architecture,
// but its words reach the handler: the immediate's low byte is 0, nothing changes.
TEST(AddSub, ByteFormWithShiftLeavesRegister) {
  cpu_state s;
  std::mt19937_64 rng(11);
  random_state(s, rng);
  const cpu_state before = s;
  for (bool sub : {false, true})
    for (unsigned imm8 : {1u, 2u, 0xFFu}) {
      EXPECT_EQ(run_word(s, add_zi(0, 3, imm8, true, sub)), AARCH64_DECODE_OK);
      EXPECT_EQ(std::memcmp(s.z, before.z, sizeof s.z), 0) << imm8;
    }
}

// Both roads give the same 48 bytes.
TEST(AddSub, GenericRoutinesAgreeWithFastHandlers) {
  using VVM = VecV (*)(VecV, PredV, VecV, CpuContext*);
  using VVX = VecV (*)(VecV, VecV, CpuContext*);
  using VIX = VecV (*)(VecV, uint32_t, CpuContext*);
  const VVM vvm[2][4] = {{VecU8AddVVM, VecU16AddVVM, VecU32AddVVM, VecU64AddVVM},
                         {VecU8SubVVM, VecU16SubVVM, VecU32SubVVM, VecU64SubVVM}};
  const VVX vvx[2][4] = {{VecU8AddVVX, VecU16AddVVX, VecU32AddVVX, VecU64AddVVX},
                         {VecU8SubVVX, VecU16SubVVX, VecU32SubVVX, VecU64SubVVX}};
  const VIX vix[2][4] = {{VecU8AddVIX, VecU16AddVIX, VecU32AddVIX, VecU64AddVIX},
                         {VecU8SubVIX, VecU16SubVIX, VecU32SubVIX, VecU64SubVIX}};
  std::mt19937_64 rng(12);
  for (int trial = 0; trial < 50; ++trial)
    for (unsigned sub = 0; sub < 2; ++sub)
      for (unsigned size = 0; size < 4; ++size) {
        cpu_state s;
        random_state(s, rng);
        CpuContext c{};
        c.vl = kVecUnits | 0xFC000000u;   // bits above the 26-bit field must not count
        VecV a, b;
        std::memset(&a, 0xA5, sizeof a);
        std::memset(&b, 0x5A, sizeof b);
        std::memcpy(a.b, s.z[1], 48);
        std::memcpy(b.b, s.z[2], 48);
        const PredV p = pack_pred(s.p[3]);
        const unsigned imm = (rng() & 0xFF) << ((rng() & 1) ? 8 : 0);

        cpu_state f = s;
        run_word(f, add_zpz(size, 1, 3, 2, sub));
        VecV r = vvm[sub][size](a, p, b, &c);
        EXPECT_EQ(std::memcmp(r.b, f.z[1], 48), 0) << "VVM " << size;

        f = s;
        run_word(f, add_zzz(size, 5, 1, 2, sub));
        r = vvx[sub][size](a, b, &c);
        EXPECT_EQ(std::memcmp(r.b, f.z[5], 48), 0) << "VVX " << size;

        f = s;
        run_word(f, add_zi(size, 1, (imm & 0xFF) | (imm >> 8), imm > 0xFF, sub));
        r = vix[sub][size](a, imm, &c);
        EXPECT_EQ(std::memcmp(r.b, f.z[1], 48), 0) << "VIX " << size;
      }
}

}  // namespace
