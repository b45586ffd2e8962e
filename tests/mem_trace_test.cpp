// Gathers and scatters report each active lane to the trace sink while their
// thread is inside a marked region, and nothing otherwise: the records as the
// sink stored them, read back through the trace reader.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "companion/trace_reader.h"
#include "sve/memory/memtrace.h"
#include "test_state.h"

namespace {

using quern_test::random_state;
using quern_test::run_word;

constexpr uint32_t kStart = 0x2520E020, kStop = 0x2520E040;   // ADD Z0.B, Z0.B, #1/#2, LSL #8
constexpr uint32_t kLd1wSxtw2 = 0x85634445;   // ld1w {z5.s}, p1/z, [x2, z3.s, sxtw #2]
constexpr uint32_t kSt1hD = 0xe4a3a445;       // st1h {z5.d}, p1, [x2, z3.d, lsl #1]
constexpr uint32_t kLd1bDImm = 0xc43fc465;    // ld1b {z5.d}, p1/z, [z3.d, #31]

// A sink writing to a fresh file; the records are read back at the end.
struct Sink {
  std::string path = "/tmp/quern_mem_trace_" + std::to_string(getpid()) + ".qtrace";
  Sink() {
    setenv("QUERN_TRACE_FILE", path.c_str(), 1);
    EXPECT_TRUE(sve_init(nullptr, "mem_trace_test"));
  }
  std::vector<sve_mem_ref_t> close() {
    sve_exit();
    trace_contents t;
    std::string error;
    EXPECT_TRUE(trace_load(path.c_str(), t, error)) << error;
    unlink(path.c_str());
    return t.records;
  }
};

struct Gather {
  cpu_state s;
  alignas(16) unsigned char buf[256] = {};
  explicit Gather(unsigned seed) {
    std::mt19937_64 rng(seed);
    random_state(s, rng);
    s.pc = reinterpret_cast<unsigned char*>(0x400000 + seed * 4);
    s.x[2] = reinterpret_cast<uint64_t>(buf + 128);
    for (unsigned e = 0; e < 12; ++e) {
      const int32_t off = int32_t(e * 3) - 16;   // scaled by 4: both sides of the base
      std::memcpy(s.z[3] + 4 * e, &off, 4);
    }
  }
  uint64_t lane_addr(unsigned e) const { return s.x[2] + uint64_t(int64_t(int32_t(e * 3) - 16) * 4); }
};

TEST(MemoryTrace, OneRecordPerActiveLaneInsideTheRegion) {
  Sink sink;
  Gather g(1);
  const int32_t tid = static_cast<int32_t>(pthread_self());
  run_word(g.s, kLd1wSxtw2);                        // outside the region: nothing
  run_word(g.s, kStart);
  std::memset(g.s.p[1], 1, 48);
  run_word(g.s, kLd1wSxtw2);                        // 12 lanes
  std::memset(g.s.p[1], 0, 48);
  run_word(g.s, kLd1wSxtw2);                        // no lane: no record, no count
  g.s.p[1][4 * 5] = 1;
  run_word(g.s, kLd1wSxtw2);                        // one lane
  std::memset(g.s.p[1], 0, 48);
  g.s.p[1][8] = g.s.p[1][24] = 1;                   // lanes 1 and 3 of a doubleword scatter
  const uint64_t scatter_off[6] = {0, 7, 0, ~0ull, 0, 0};   // index -1, scaled by 2
  std::memcpy(g.s.z[3], scatter_off, 48);
  run_word(g.s, kSt1hD);
  g.s.p[1][8] = 0;
  const uint64_t bases[6] = {0, 0, 0, g.s.x[2] + 1, 0, 0};
  std::memcpy(g.s.z[3], bases, 48);
  run_word(g.s, kLd1bDImm);                         // one lane at base + 1 + 31
  run_word(g.s, kStop);
  std::memset(g.s.p[1], 1, 48);
  for (unsigned e = 0; e < 6; ++e) std::memcpy(g.s.z[3] + 8 * e, &g.s.x[2], 8);
  run_word(g.s, kLd1bDImm);                         // after the stop: nothing
  const std::vector<sve_mem_ref_t> r = sink.close();

  ASSERT_EQ(r.size(), 1u + 12 + 1 + 2 + 1 + 1);
  EXPECT_EQ(r.front().tid, -1);
  EXPECT_EQ(r.back().tid, -2);
  for (size_t i = 1; i < r.size(); ++i) EXPECT_EQ(r[i].count, r[i - 1].count + 1) << i;
  for (unsigned e = 0; e < 12; ++e) {
    const sve_mem_ref_t& x = r[1 + e];
    EXPECT_EQ(x.position, e == 0 ? 3 : e == 11 ? 6 : 2) << e;
    EXPECT_EQ(x.access, MEMACCESS_LOAD);
    EXPECT_EQ(x.size, 4u);
    EXPECT_EQ(x.vaddr, g.lane_addr(e)) << e;
    EXPECT_EQ(x.paddr, virtual2physical(x.vaddr));
    EXPECT_EQ(x.pc, reinterpret_cast<uint64_t>(g.s.pc));
    EXPECT_EQ(x.tid, tid);
  }
  EXPECT_EQ(r[13].position, 7);
  EXPECT_EQ(r[13].vaddr, g.lane_addr(5));
  EXPECT_EQ(r[14].position, 3);
  EXPECT_EQ(r[15].position, 6);
  EXPECT_EQ(r[14].access, MEMACCESS_STORE);
  EXPECT_EQ(r[14].size, 2u);   // a halfword, also in a doubleword lane
  EXPECT_EQ(r[14].vaddr, g.s.x[2] + 14);
  EXPECT_EQ(r[15].vaddr, g.s.x[2] - 2);
  EXPECT_EQ(r[16].position, 7);
  EXPECT_EQ(r[16].size, 1u);
  EXPECT_EQ(r[16].vaddr, g.s.x[2] + 32);
}

TEST(MemoryTrace, EachThreadHasItsOwnRegion) {
  Sink sink;
  std::map<int32_t, unsigned> per_tid;
  auto work = [](bool marked, unsigned lanes) {
    Gather g(marked ? 2 : 3);
    if (marked) run_word(g.s, kStart);
    std::memset(g.s.p[1], 0, 48);
    for (unsigned e = 0; e < lanes; ++e) g.s.p[1][4 * e] = 1;
    for (int i = 0; i < 50; ++i) run_word(g.s, kLd1wSxtw2);
    if (marked) run_word(g.s, kStop);
  };
  std::thread a(work, true, 5), b(work, true, 3), c(work, false, 12);
  a.join();
  b.join();
  c.join();
  const std::vector<sve_mem_ref_t> r = sink.close();
  unsigned markers = 0;
  for (const sve_mem_ref_t& x : r) {
    if (x.position == 0) ++markers;   // a marker; a thread id may be negative too
    else ++per_tid[x.tid];
  }
  EXPECT_EQ(markers, 4u);
  ASSERT_EQ(per_tid.size(), 2u);   // the unmarked thread reports nothing
  std::vector<unsigned> counts;
  for (const auto& kv : per_tid) counts.push_back(kv.second);
  std::sort(counts.begin(), counts.end());
  EXPECT_EQ(counts, (std::vector<unsigned>{150, 250}));
}

}  // namespace
