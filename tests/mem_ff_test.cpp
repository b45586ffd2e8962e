// Memory rows at the edges the differential test reaches only by luck or not
// at all: the guarded reads at a page border, the first-fault and non-fault
// loads of the fast road at an unmapped page (the departures it keeps), and
// faults that must end the program.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "decode_decls.h"
#include "sve/client/sve_fault.h"
#include "sve/memory/mem_lib.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

// Four pages: [0], [2] and [3] readable and filled with a pattern, [1] unreadable.
struct Pages {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  unsigned char* base = static_cast<unsigned char*>(
      mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  Pages() {
    for (size_t i = 0; i < 4 * page; ++i)
      if (i < page || i >= 2 * page) base[i] = static_cast<unsigned char>(i * 7 + 1);
    mprotect(base + page, page, PROT_NONE);
  }
  ~Pages() { munmap(base, 4 * page); }
  unsigned char* hole() const { return base + page; }   // end of the first readable page
  unsigned char* after() const { return base + 2 * page; }
};

// Word builders: Zt 4:0, Rn 9:5, Pg 12:10, Rm 20:16.
uint32_t with_regs(uint32_t op, unsigned zt, unsigned pg, unsigned rn, unsigned rm) {
  return op | rm << 16 | pg << 10 | rn << 5 | zt;
}
constexpr uint32_t kLdff1b = 0xa4006000, kLdff1bS = 0xa4406000, kLdff1bD = 0xa4606000,
                   kLdff1w = 0xa5406000, kLdff1d = 0xa5e06000,
                   kLdnf1b = 0xa410a000, kLdnf1w = 0xa550a000;

void all_true(cpu_state& s, unsigned p) { std::memset(s.p[p], 1, 48); }

// ---- guarded and plain reads ------------------------------------------------

TEST(GuardedRead, ElementsAtThePageEnd) {
  Pages pg;
  ASSERT_EQ(SVEInitialize(), 1);
  for (unsigned size : {1u, 2u, 4u, 8u})
    for (unsigned back = 1; back <= 8; ++back) {
      const unsigned long a = reinterpret_cast<unsigned long>(pg.hole() - back);
      bool fault = true;   // left as it was on success
      uint64_t got = 0;
      switch (size) {
        case 1: got = ReadMemLib1(a, 0, &fault, nullptr); break;
        case 2: got = ReadMemLib2(a, 1, &fault, nullptr); break;
        case 4: got = ReadMemLib4(a, 0, &fault, nullptr); break;
        default: got = ReadMemLib8(a, 1, &fault, nullptr); break;
      }
      if (back >= size) {
        uint64_t want = 0;
        std::memcpy(&want, pg.hole() - back, size);
        EXPECT_EQ(got, want) << size << " " << back;
        EXPECT_TRUE(fault) << "success must not touch *fault: " << size << " " << back;
      } else {   // straddles into the hole: caught by its last byte
        EXPECT_EQ(got, 0u) << size << " " << back;
        EXPECT_TRUE(fault) << size << " " << back;
        bool clean = false;
        ReadMemLib1(a, 0, &clean, nullptr);
        EXPECT_FALSE(clean) << "a readable first byte alone is fine";
      }
    }
  bool fault = false;
  EXPECT_EQ(ReadMemLib4(reinterpret_cast<unsigned long>(pg.hole() + 100), 0, &fault, nullptr), 0u);
  EXPECT_TRUE(fault);
  EXPECT_EQ(SVEFaultRegion, 0);
}

// ---- first-fault, fast road --------------------------------------------------

// (word, bytes before the hole, expected limit in lanes, lanes, element bytes)
TEST(FirstFaultFast, StopsAtThePageEndCountedInRegisterElements) {
  Pages pg;
  const struct {
    uint32_t op;
    unsigned back, limit, lanes, esize, msize;
  } cases[] = {
      {kLdff1b, 10, 10, 48, 1, 1},
      {kLdff1bS, 10, 2, 12, 4, 1},    // 10 bytes of memory would fit: the rule counts lanes of 4
      {kLdff1bD, 24, 3, 6, 8, 1},
      {kLdff1w, 2, 0, 12, 4, 4},      // nothing fits: Z untouched, FFR all clear
      {kLdff1d, 40, 5, 6, 8, 8},
      {kLdff1b, 48, 48, 48, 1, 1},    // the crossing test fires; everything fits
  };
  for (const auto& c : cases) {
    cpu_state s;
    std::mt19937_64 rng(c.back * 100 + c.lanes);
    random_state(s, rng);
    all_true(s, 1);
    std::memset(s.ffr, 1, 48);
    s.x[2] = reinterpret_cast<uint64_t>(pg.hole() - c.back);
    const cpu_state before = s;
    ASSERT_EQ(run_word(s, with_regs(c.op, 5, 1, 2, 31)), AARCH64_DECODE_OK) << std::hex << c.op;
    for (unsigned e = 0; e < c.lanes; ++e) {
      uint64_t got = 0, want = 0;
      std::memcpy(&got, s.z[5] + e * c.esize, c.esize);
      if (e < c.limit)
        std::memcpy(&want, pg.hole() - c.back + e * c.msize, c.msize);
      else
        std::memcpy(&want, before.z[5] + e * c.esize, c.esize);
      EXPECT_EQ(got, want) << std::hex << c.op << std::dec << " lane " << e;
    }
    for (unsigned b = 0; b < 48; ++b) EXPECT_EQ(s.ffr[b], b < c.limit * c.esize ? 1 : 0) << std::hex << c.op << " ffr " << b;
  }
}

TEST(FirstFaultFast, AllFalsePredicateStillClearsAboveTheLimit) {
  Pages pg;
  cpu_state s;
  std::mt19937_64 rng(9);
  random_state(s, rng);
  std::memset(s.p[3], 0, 48);
  std::memset(s.ffr, 1, 48);
  s.x[4] = reinterpret_cast<uint64_t>(pg.hole() - 20);
  ASSERT_EQ(run_word(s, with_regs(kLdff1d, 0, 3, 4, 31)), AARCH64_DECODE_OK);
  for (unsigned b = 0; b < 48; ++b) EXPECT_EQ(s.ffr[b], b < 16 ? 1 : 0) << b;
  for (unsigned b = 0; b < 16; ++b) EXPECT_EQ(s.z[0][b], 0) << b;
}

// ---- non-fault, fast road ------------------------------------------------------

TEST(NonFaultFast, EachLaneIsJudgedByItsOwnPage) {
  Pages pg;
  cpu_state s;
  std::mt19937_64 rng(11);
  random_state(s, rng);
  all_true(s, 2);
  std::memset(s.ffr, 1, 48);
  // ldnf1w: lanes 0..3 in the hole's last 16 bytes, lanes 4..11 in the readable page after it.
  s.x[6] = reinterpret_cast<uint64_t>(pg.after() - 16);
  const cpu_state before = s;
  ASSERT_EQ(run_word(s, with_regs(kLdnf1w, 7, 2, 6, 0)), AARCH64_DECODE_OK);
  EXPECT_EQ(std::memcmp(s.z[7], before.z[7], 16), 0) << "unreadable lanes keep their value";
  EXPECT_EQ(std::memcmp(s.z[7] + 16, pg.after(), 32), 0);
  for (unsigned b = 0; b < 48; ++b) EXPECT_EQ(s.ffr[b], b < 16 ? 0 : 1) << b;

  // ldnf1b with lane 0 in the hole and the others inactive: only FFR byte 0 goes.
  std::memset(s.p[2], 0, 48);
  s.p[2][0] = 1;
  std::memset(s.ffr, 1, 48);
  s.x[6] = reinterpret_cast<uint64_t>(pg.hole());
  const cpu_state before2 = s;
  ASSERT_EQ(run_word(s, with_regs(kLdnf1b, 7, 2, 6, 0)), AARCH64_DECODE_OK);
  EXPECT_EQ(s.z[7][0], before2.z[7][0]);
  for (unsigned b = 1; b < 48; ++b) EXPECT_EQ(s.z[7][b], 0) << b;
  for (unsigned b = 0; b < 48; ++b) EXPECT_EQ(s.ffr[b], b == 0 ? 0 : 1) << b;
}

// ---- real faults --------------------------------------------------------------------

// An active lane at an unmapped address ends the program by SIGSEGV, after the
// handler's one line; a guarded read in the same situation never does.
TEST(MemoryFaults, ActiveLaneAtAnUnmappedAddressIsTheProgramsFault) {
  GTEST_FLAG_SET(death_test_style, "fast");
  Pages pg;
  const struct {
    const char* what;
    uint32_t word;   // Zt 5, Pg 1, Xn 2, Xm/Zm 3
    unsigned back;   // bytes before the hole
  } cases[] = {
      {"ld1w", 0xa540a000u | 1 << 10 | 2 << 5 | 5, 4},                // lane 1 is in the hole
      {"st1w", 0xe540e000u | 1 << 10 | 2 << 5 | 5, 4},
      {"ld3w", 0xa540e000u | 1 << 10 | 2 << 5 | 5, 8},
      {"ldff1b in its first page", kLdff1b | 3 << 16 | 1 << 10 | 2 << 5 | 5, 0},
      {"ld1d gather", 0xc5e0c000u | 3 << 16 | 1 << 10 | 2 << 5 | 5, 0},
  };
  for (const auto& c : cases) {
    auto body = [&] {
      SVEInitialize();
      cpu_state s;
      std::mt19937_64 rng(1);
      random_state(s, rng);
      all_true(s, 1);
      s.x[2] = reinterpret_cast<uint64_t>(pg.hole() - c.back);
      s.x[3] = 0;
      std::memset(s.z[3], 0, 48);
      run_word(s, c.word);
      _exit(0);
    };
    EXPECT_EXIT(body(), ::testing::KilledBySignal(SIGSEGV), "caught signal SIGSEGV from the process being emulated")
        << c.what;
  }
  // Nothing active, nothing read: no fault, and the register is cleared.
  cpu_state s;
  std::mt19937_64 rng(2);
  random_state(s, rng);
  std::memset(s.p[1], 0, 48);
  s.x[2] = reinterpret_cast<uint64_t>(pg.hole());
  ASSERT_EQ(run_word(s, 0xa540a000u | 1 << 10 | 2 << 5 | 5), AARCH64_DECODE_OK);
  for (unsigned b = 0; b < 48; ++b) EXPECT_EQ(s.z[5][b], 0) << b;
}

}  // namespace
