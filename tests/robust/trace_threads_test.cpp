// The trace sink under many threads, and a traced process killed by SIGKILL.
//
// A child process opens a trace and runs writer threads; each writes its own
// numbered records and, once trace_mem has returned, publishes how many it has
// handed over in memory shared with the parent. The child then either closes
// the trace and exits, or kills itself with SIGKILL once a given number of
// records have been handed over in all. The parent reads the file back, through
// the reader and through `quern trace dump`, and holds it against the counts:
// every record handed over is there, attributed to its thread, none twice,
// none invented; a killed trace is read up to the kill and said to be cut short.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "companion/trace_reader.h"
#include "sve/memory/sve_mem_ref.h"

namespace {

constexpr int kMaxThreads = 64;
constexpr int32_t kTidBase = 1000;

struct shared_counts {
  std::atomic<uint64_t> accepted[kMaxThreads];
  std::atomic<uint64_t> total;
};

struct writer_case {
  const char* name;
  int threads;
  uint64_t per_thread;
  uint64_t kill_at;  // 0: close the trace and exit normally
  bool churn;        // threads created and ended while others write
};

void PrintTo(const writer_case& c, std::ostream* os) { *os << c.name; }

struct writer_arg {
  int index;
  const writer_case* c;
  shared_counts* counts;
};

void* writer(void* p) {
  const writer_arg& a = *static_cast<writer_arg*>(p);
  for (uint64_t i = 0; i < a.c->per_thread; ++i) {
    sve_mem_ref_t r{};
    r.count = incr_count();
    r.tid = kTidBase + a.index;
    r.position = i == 0 ? 3 : 2;
    r.access = (i & 1) ? MEMACCESS_LOAD : MEMACCESS_STORE;
    r.size = 4;
    r.vaddr = (uint64_t(a.index) << 32) | i;
    r.pc = 0x400000 + uint64_t(a.index) * 4;
    trace_mem(r);
    a.counts->accepted[a.index].store(i + 1);
    if (a.c->kill_at && a.counts->total.fetch_add(1) + 1 == a.c->kill_at) raise(SIGKILL);
  }
  return nullptr;
}

[[noreturn]] void run_child(const writer_case& c, const std::string& path, shared_counts* counts) {
  setenv("QUERN_TRACE_FILE", path.c_str(), 1);
  setenv("QUERN_TRACE_WINDOW", "65536", 1);  // small windows: the runs cross many
  if (!sve_init(nullptr, "threads_writer")) _exit(10);
  std::vector<pthread_t> th(static_cast<size_t>(c.threads));
  std::vector<writer_arg> args(static_cast<size_t>(c.threads));
  // With churn, threads come in waves of 8, and a wave is joined only after
  // the next has started.
  const int wave = c.churn ? 8 : c.threads;
  int joined = 0;
  for (int t = 0; t < c.threads; ++t) {
    args[size_t(t)] = writer_arg{t, &c, counts};
    if (pthread_create(&th[size_t(t)], nullptr, writer, &args[size_t(t)]) != 0) _exit(11);
    if (c.churn && (t + 1) % wave == 0)
      for (; joined + wave <= t; ++joined) pthread_join(th[size_t(joined)], nullptr);
  }
  for (; joined < c.threads; ++joined) pthread_join(th[size_t(joined)], nullptr);
  sve_exit();
  _exit(0);
}

std::string slurp(const std::string& p) {
  std::ifstream f(p);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

class TraceThreads : public ::testing::TestWithParam<writer_case> {};

TEST_P(TraceThreads, EveryAcceptedRecordOnceAndNoOther) {
  const writer_case& c = GetParam();
  char dir_template[] = "/tmp/quern_trace_threads_XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template, path = dir + "/t.qtrace";

  void* m = mmap(nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(m, MAP_FAILED);
  auto* counts = new (m) shared_counts();
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) run_child(c, path, counts);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  if (c.kill_at) {
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
  } else {
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }

  trace_contents tc;
  std::string err;
  ASSERT_TRUE(trace_load(path.c_str(), tc, err)) << err;
  std::vector<std::set<uint64_t>> seen(static_cast<size_t>(c.threads));
  std::set<uint64_t> counts_seen;
  for (const sve_mem_ref_t& r : tc.records) {
    const int t = r.tid - kTidBase;
    ASSERT_TRUE(t >= 0 && t < c.threads) << "record of an unknown thread " << r.tid;
    ASSERT_EQ(r.vaddr >> 32, uint64_t(t)) << "record attributed to the wrong thread";
    ASSERT_EQ(r.pc, 0x400000 + uint64_t(t) * 4);
    const uint64_t i = r.vaddr & 0xFFFFFFFFu;
    ASSERT_LT(i, c.per_thread) << "invented record";
    ASSERT_TRUE(seen[size_t(t)].insert(i).second) << "record " << i << " of thread " << t << " twice";
    ASSERT_TRUE(counts_seen.insert(r.count).second) << "count " << r.count << " twice";
  }
  uint64_t accepted_total = 0;
  for (int t = 0; t < c.threads; ++t) {
    const uint64_t acc = counts->accepted[t].load();
    accepted_total += acc;
    const auto& s = seen[size_t(t)];
    // Every record handed over is there; beyond them at most the one that was
    // being written when the process died.
    for (uint64_t i = 0; i < acc; ++i) ASSERT_TRUE(s.count(i)) << "thread " << t << " lost record " << i;
    ASSERT_LE(s.size(), acc + (c.kill_at ? 1 : 0)) << "thread " << t;
  }
  if (!c.kill_at) {
    EXPECT_EQ(tc.records.size(), uint64_t(c.threads) * c.per_thread);
    EXPECT_EQ(tc.info.unused_tail, 0u);
    EXPECT_EQ(tc.info.holes, 0u);
  } else {
    EXPECT_GE(accepted_total, c.kill_at);
  }

  // The tool: every record as a CSV line, and the cut reported on stderr.
  const std::string out = dir + "/out", errf = dir + "/err";
  const std::string cmd = std::string(QUERN_TOOL) + " trace dump " + path + " >" + out + " 2>" + errf;
  const int rc = system(cmd.c_str());
  EXPECT_EQ(rc, 0) << slurp(errf);
  const std::string dumped = slurp(out), dump_err = slurp(errf);
  EXPECT_EQ(size_t(std::count(dumped.begin(), dumped.end(), '\n')), tc.records.size() + 1);
  const bool cut = dump_err.find("trace cut short") != std::string::npos;
  EXPECT_EQ(cut, c.kill_at != 0) << dump_err;
  std::printf("[ figures  ] %s: %d threads, %zu records found, %" PRIu64 " handed over before the end\n", c.name,
              c.threads, tc.records.size(), accepted_total);

  counts->~shared_counts();
  munmap(m, sizeof(shared_counts));
  system(("rm -rf " + dir).c_str());
}

const writer_case kCases[] = {
    {"threads64", 64, 2000, 0, false},
    {"threads64_churn", 64, 2000, 0, true},
    {"kill_first_record", 1, 1000, 1, false},
    {"kill_single_thread", 1, 5000, 3001, false},
    // Windows of 1536 slots, the first after the two of the header: killed
    // with the first and the second window exactly full.
    {"kill_window_full", 1, 5000, 1534, false},
    {"kill_two_windows_full", 1, 5000, 1534 + 1536, false},
    {"kill_8_threads", 8, 5000, 17777, false},
    {"kill_64_threads", 64, 2000, 50001, false},
    {"kill_64_churn", 64, 2000, 90001, true},
};

INSTANTIATE_TEST_SUITE_P(Sink, TraceThreads, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<writer_case>& i) { return std::string(i.param.name); });

}  // namespace
