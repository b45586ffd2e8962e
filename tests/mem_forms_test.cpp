// Addressing of the memory rows, one case per form and scaling: which element
// lane 0 reads when the base, index or offset is set so that the sum lands on
// a known byte. Offsets that wrap around 2^64, 32-bit offsets with junk in the
// upper half, negative multiples of the vector length, base register 31 as SP
// and register lists that wrap from Z31 to Z0. Only lane 0 is active.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>

#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

void set_lane0(cpu_state& s, unsigned z, uint64_t v, unsigned bytes) { std::memcpy(s.z[z], &v, bytes); }

struct Case {
  const char* what;
  uint32_t word;               // Zt 5, Pg 1, Xn 2, Xm/Zm 3 (see the disassembly in each name)
  unsigned msize, esize;
  bool sign;
  std::function<void(cpu_state&, uint64_t)> aim;   // point lane 0 at the address given
  unsigned regs = 1;           // structure registers, from Z5
  unsigned period = 48;        // 16 for LD1RQ: the quadword repeats
};

TEST(MemoryForms, LaneZeroReadsTheAddressOfItsForm) {
  const uint64_t wrap32 = 0xFFFFFFFFull;
  const Case cases[] = {
      {"ld1d [x2, z3.d]: 64-bit offset -16 wraps", 0xc5c3c445, 8, 8, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 16; set_lane0(s, 3, uint64_t(-16), 8); }},
      {"ld1d [x2, z3.d, sxtw]: junk above, -1 below", 0xc5c34445, 8, 8, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 1; set_lane0(s, 3, 0xABCD0000FFFFFFFFull, 8); }},
      {"ld1d [x2, z3.d, uxtw]: 0xFFFFFFFF", 0xc5834445, 8, 8, false,
       [=](cpu_state& s, uint64_t a) { s.x[2] = a - wrap32; set_lane0(s, 3, 0x12345678FFFFFFFFull, 8); }},
      {"ld1d [x2, z3.d, lsl #3]", 0xc5e3c445, 8, 8, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a - 40; set_lane0(s, 3, 5, 8); }},
      {"ld1d [x2, z3.d, sxtw #3]", 0xc5e34445, 8, 8, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 8; set_lane0(s, 3, 0x00000001FFFFFFFFull, 8); }},
      {"ld1w [x2, z3.s, uxtw #2]", 0x85234445, 4, 4, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a - 28; set_lane0(s, 3, 7, 4); }},
      {"ld1w [x2, z3.s, sxtw #2]", 0x85634445, 4, 4, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 12; set_lane0(s, 3, uint32_t(-3), 4); }},
      {"ld1sh {z.s} [x2, z3.s, sxtw #1]", 0x84e30445, 2, 4, true,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 2; set_lane0(s, 3, uint32_t(-1), 4); }},
      {"ld1w {z.d} [z3.d, #124]", 0xc53fc465, 4, 8, false,
       [](cpu_state& s, uint64_t a) { set_lane0(s, 3, a - 124, 8); }},
      {"ld1b {z.d} [z3.d, #31]", 0xc43fc465, 1, 8, false,
       [](cpu_state& s, uint64_t a) { set_lane0(s, 3, a - 31, 8); }},
      {"ld1w [x2, x3, lsl #2]: index -1", 0xa5434445, 4, 4, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 4; s.x[3] = ~0ull; }},
      {"ld1h {z.s} [x2, #-1, mul vl]: steps by 24", 0xa4cfa445, 2, 4, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 24; }},
      {"ld1sb {z.d} [x2, #-8, mul vl]: steps by 6", 0xa588a445, 1, 8, true,
       [](cpu_state& s, uint64_t a) { s.x[2] = a + 48; }},
      {"ld1b [sp]", 0xa400a7e5, 1, 1, false, [](cpu_state& s, uint64_t a) { s.sp = a; }},
      {"ld1rw [x2, #252]", 0x857fc445, 4, 4, false, [](cpu_state& s, uint64_t a) { s.x[2] = a - 252; }},
      {"ld1rqw [x2, #-16]", 0xa50f2445, 4, 4, false, [](cpu_state& s, uint64_t a) { s.x[2] = a + 16; }, 1, 16},
      {"ld1rqh [x2, x3, lsl #1]", 0xa4830445, 2, 2, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a - 6; s.x[3] = 3; }, 1, 16},
      {"ld3w [x2, #3, mul vl] (field 1): groups of three vectors", 0xa541e445, 4, 4, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a - 144; }, 3},
      {"ld2h [x2, x3, lsl #1]: the index counts elements", 0xa4a3c445, 2, 2, false,
       [](cpu_state& s, uint64_t a) { s.x[2] = a - 10; s.x[3] = 5; }, 2},
  };
  alignas(16) unsigned char buf[1024];
  std::mt19937_64 rng(77);
  for (auto& b : buf) b = static_cast<unsigned char>(rng());
  unsigned char* target = buf + 512;
  target[1] |= 0x80;   // negative as a halfword
  target[0] |= 0x80;   // negative as a byte
  for (const Case& c : cases) {
    cpu_state s;
    random_state(s, rng);
    std::memset(s.p[1], 0, 48);
    s.p[1][0] = 1;
    c.aim(s, reinterpret_cast<uint64_t>(target));
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK) << c.what;
    for (unsigned k = 0; k < c.regs; ++k) {
      const unsigned char* at = target + k * c.msize;
      uint64_t want = 0, got = 0;
      std::memcpy(&want, at, c.msize);
      if (c.sign && (at[c.msize - 1] & 0x80)) want |= ~0ull << (8 * c.msize);
      if (c.esize < 8) want &= (1ull << (8 * c.esize)) - 1;
      std::memcpy(&got, s.z[5 + k], c.esize);
      EXPECT_EQ(got, want) << c.what << ", register " << k;
      for (unsigned b = c.esize; b < 48; ++b)
        ASSERT_EQ(s.z[5 + k][b], b % c.period < c.esize ? s.z[5 + k][b % c.period] : 0) << c.what << " byte " << b;
    }
  }
}

TEST(MemoryForms, StructureListsWrapFromZ31ToZ0) {
  alignas(16) unsigned char buf[256];
  for (unsigned i = 0; i < sizeof buf; ++i) buf[i] = static_cast<unsigned char>(i);
  cpu_state s;
  std::mt19937_64 rng(78);
  random_state(s, rng);
  std::memset(s.p[1], 1, 48);
  s.x[2] = reinterpret_cast<uint64_t>(buf);
  s.x[3] = 1;
  ASSERT_EQ(run_word(s, 0xa5e3c45e), AARCH64_DECODE_OK);   // ld4d {z30.d-z1.d}, p1/z, [x2, x3, lsl #3]
  const unsigned regs[4] = {30, 31, 0, 1};
  for (unsigned k = 0; k < 4; ++k)
    for (unsigned e = 0; e < 6; ++e) {
      uint64_t got, want;
      std::memcpy(&got, s.z[regs[k]] + 8 * e, 8);
      std::memcpy(&want, buf + 8 + 32 * e + 8 * k, 8);
      EXPECT_EQ(got, want) << "z" << regs[k] << " lane " << e;
    }
}

// Lanes go out in ascending order: where scatter lanes collide, the highest
// active one is what memory keeps; an inactive lane writes nothing.
TEST(MemoryForms, CollidingScatterLanesLeaveTheHighestActive) {
  const struct {
    uint32_t word;
    unsigned esize;
  } cases[] = {{0xe583a445, 8}, {0xe5438445, 4}};   // st1d [x2, z3.d]; st1w [x2, z3.s, uxtw]
  for (const auto& c : cases) {
    alignas(16) unsigned char buf[64] = {};
    cpu_state s;
    std::mt19937_64 rng(79);
    random_state(s, rng);
    std::memset(s.z[3], 0, 48);   // every lane at the base
    std::memset(s.p[1], 1, 48);
    const unsigned lanes = 48 / c.esize;
    s.p[1][(lanes - 1) * c.esize] = 0;   // the top lane is inactive
    s.x[2] = reinterpret_cast<uint64_t>(buf + 8);
    ASSERT_EQ(run_word(s, c.word), AARCH64_DECODE_OK);
    EXPECT_EQ(std::memcmp(buf + 8, s.z[5] + (lanes - 2) * c.esize, c.esize), 0) << c.esize;
    for (unsigned b = 0; b < 64; ++b) {
      if (b < 8 || b >= 8 + c.esize) {
        EXPECT_EQ(buf[b], 0) << c.esize << " byte " << b;
      }
    }
  }
}

}  // namespace
