// The companion libraries (trace sink, counter, address translator) and the
// trace file reader that `quern trace` uses.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "companion/trace_reader.h"

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
// One test loads a second copy of the sink library on purpose, which
// AddressSanitizer would report as a redefinition of its globals; it still
// reports a global defined twice with two different sizes.
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options() {
  return "detect_odr_violation=1";
}
#endif

namespace {

constexpr const char* kSmallestWindow = "1";  // rounded up to lcm(56, page size)

struct temp_dir {
  fs::path path;
  temp_dir() {
    std::string t = fs::temp_directory_path() / "quern_trace_XXXXXX";
    if (!mkdtemp(t.data())) abort();
    path = t;
  }
  ~temp_dir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

// Sets (or, given null, unsets) an environment variable for the scope.
struct env_var {
  std::string name;
  std::optional<std::string> old;
  env_var(const char* n, const char* value) : name(n) {
    if (const char* o = getenv(n)) old = o;
    value ? setenv(n, value, 1) : unsetenv(n);
  }
  ~env_var() { old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str()); }
};

struct cwd_guard {
  fs::path old = fs::current_path();
  explicit cwd_guard(const fs::path& to) { fs::current_path(to); }
  ~cwd_guard() { fs::current_path(old); }
};

sve_mem_ref_t rec(uint64_t count, int32_t tid, int32_t position, memaccess_type_t access, uint64_t size, uint64_t vaddr,
                  uint64_t paddr, uint64_t pc) {
  return sve_mem_ref_t{count, tid, position, access, size, vaddr, paddr, pc};
}

// A record whose every field follows from its count and tid, so a record
// mixed from two writers, or half written, shows.
sve_mem_ref_t derived(uint64_t c, int32_t tid) {
  return rec(c, tid, static_cast<int32_t>(c % 8), c & 1 ? MEMACCESS_LOAD : MEMACCESS_STORE, uint64_t{1} << (c % 4),
             c * 64 + 3, ~c, c ^ 0x5a5a5a5a5aull);
}

bool same(const sve_mem_ref_t& a, const sve_mem_ref_t& b) {
  return a.count == b.count && a.tid == b.tid && a.position == b.position && a.access == b.access && a.size == b.size &&
         a.vaddr == b.vaddr && a.paddr == b.paddr && a.pc == b.pc;
}

std::string show(const sve_mem_ref_t& r) {
  std::ostringstream o;
  o << std::hex << "{count " << r.count << " tid " << r.tid << " pos " << r.position << " acc " << r.access << " size "
    << r.size << " vaddr " << r.vaddr << " paddr " << r.paddr << " pc " << r.pc << "}";
  return o.str();
}

trace_contents load(const std::string& path) {
  trace_contents c;
  std::string error;
  EXPECT_TRUE(trace_load(path.c_str(), c, error)) << path << ": " << error;
  return c;
}

std::string read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Runs `body` in a forked child that exits with its result. Returns the wait
// status, or -1 if the child had to be killed after `seconds`.
int run_child(const std::function<int()>& body, int seconds = 300, pid_t* child = nullptr) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  if (child) *child = pid;
  for (int i = 0; i < seconds * 100; ++i) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return status;
    usleep(10000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

// Writes `records` through the sink into `path`, start to finish.
void write_trace(const std::string& path, const char* app, const std::vector<sve_mem_ref_t>& records) {
  env_var file("QUERN_TRACE_FILE", path.c_str());
  ASSERT_TRUE(sve_init(nullptr, app));
  for (const sve_mem_ref_t& r : records) trace_mem(r);
  sve_exit();
}

// ---- the sink -------------------------------------------------------------------

TEST(TraceSink, RecordsRoundTripThroughTheFile) {
  const std::vector<sve_mem_ref_t> records = {
      rec(1, -1, 0, MEMACCESS_STORE, 0, 0, 0, 0),  // start marker
      rec(2, 0x1234abcd, 3, MEMACCESS_LOAD, 4, 0x7fff0000, 0x12340000, 0x400100),
      rec(3, 0x1234abcd, 2, MEMACCESS_LOAD, 4, 0x7fff0040, 0x12340040, 0x400100),
      rec(4, 0x1234abcd, 6, MEMACCESS_LOAD, 4, 0x7fff0ffe, 0x12340ffe, 0x400100),
      rec(5, -7, 7, MEMACCESS_STORE, 8, UINT64_MAX - 7, UINT64_MAX, UINT64_MAX),
      rec(UINT64_MAX, INT32_MIN, INT32_MAX, MEMACCESS_STORE, 2, 1, 2, 3),
      rec(7, -2, 0, MEMACCESS_STORE, 0, 0, 0, 0),  // stop marker
  };
  temp_dir d;
  const std::string path = d / "t.qtrace";
  env_var file("QUERN_TRACE_FILE", path.c_str());
  ASSERT_TRUE(sve_init(nullptr, "/usr/local/bin/my_prog"));
  for (const sve_mem_ref_t& r : records) {
    // The caller's padding is garbage; the file's must not be.
    sve_mem_ref_t dirty;
    memset(&dirty, 0xee, sizeof dirty);
    dirty = rec(r.count, r.tid, r.position, r.access, r.size, r.vaddr, r.paddr, r.pc);
    memset(reinterpret_cast<char*>(&dirty) + 20, 0xee, 4);
    trace_mem(dirty);
  }
  sve_exit();

  const trace_contents c = load(path);
  EXPECT_EQ(std::string(c.info.header.magic, 8), "QUERNTRC");
  EXPECT_EQ(c.info.header.version, 1u);
  EXPECT_EQ(c.info.header.record_size, 56u);
  EXPECT_EQ(c.info.header.header_size, 112u);
  EXPECT_EQ(c.info.header.pid, getpid());
  EXPECT_STREQ(c.info.header.app_name, "my_prog");
  EXPECT_EQ(c.info.file_size, 112 + 56 * records.size()) << "sve_exit truncates to the records written";
  EXPECT_EQ(c.info.holes, 0u);
  EXPECT_EQ(c.info.unused_tail, 0u);
  ASSERT_EQ(c.records.size(), records.size());
  for (size_t i = 0; i < records.size(); ++i)
    EXPECT_TRUE(same(c.records[i], records[i])) << i << ": " << show(c.records[i]);
  const std::string raw = read_bytes(path);
  for (size_t i = 0; i < records.size(); ++i)
    EXPECT_EQ(raw.substr(112 + 56 * i + 20, 4), std::string(4, '\0')) << "padding of record " << i;
}

TEST(TraceSink, NamesTheFile) {
  struct naming_case {
    const char* env;  // QUERN_TRACE_FILE, relative to the test directory; null: unset
    const char* app;
    std::string expect;  // file name; %p stands for the pid
  };
  const naming_case cases[] = {
      {nullptr, "/usr/bin/my_prog", "my_prog.%p.qtrace"},
      {"", "my_prog", "my_prog.%p.qtrace"},
      {nullptr, nullptr, "app.%p.qtrace"},
      {nullptr, "weird/", "app.%p.qtrace"},
      {"given.bin", "/usr/bin/my_prog", "given.bin"},
  };
  for (const naming_case& nc : cases) {
    temp_dir d;
    cwd_guard in(d.path);
    const std::string env_path = nc.env && *nc.env ? d / nc.env : std::string();
    env_var file("QUERN_TRACE_FILE", nc.env ? env_path.c_str() : nullptr);
    ASSERT_TRUE(sve_init(nullptr, nc.app));
    trace_mem(derived(1, 1));
    sve_exit();
    std::string want = nc.expect;
    if (size_t at = want.find("%p"); at != std::string::npos) want.replace(at, 2, std::to_string(getpid()));
    std::vector<std::string> present;
    for (const auto& e : fs::directory_iterator(d.path)) present.push_back(e.path().filename().string());
    EXPECT_EQ(present, std::vector<std::string>{want}) << "app " << (nc.app ? nc.app : "(null)");
    EXPECT_EQ(load(d / want).records.size(), 1u);
  }
}

TEST(TraceSink, InitFailsWhenTheFileCannotBeCreated) {
  temp_dir d;
  fs::create_directory(d.path / "a_directory");
  for (const std::string& bad : {d / "missing/t.qtrace", d / "a_directory"}) {
    env_var file("QUERN_TRACE_FILE", bad.c_str());
    testing::internal::CaptureStderr();
    const bool ok = sve_init(nullptr, "prog");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(ok) << bad;
    EXPECT_EQ(err.rfind("quern: ", 0), 0u) << err;
    EXPECT_NE(err.find(bad), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(err.back(), '\n');
    trace_mem(derived(1, 1));  // ignored, and harmless
    sve_exit();
  }
  // And the sink still opens where it can.
  const std::string good = d / "t.qtrace";
  write_trace(good, "prog", {derived(9, 1)});
  const trace_contents c = load(good);
  ASSERT_EQ(c.records.size(), 1u);
  EXPECT_EQ(c.records[0].count, 9u);
}

TEST(TraceSink, CallsOutsideOpenAndCloseAreIgnored) {
  temp_dir d;
  trace_mem(derived(1, 1));  // before any sve_init
  sve_exit();
  {
    env_var file("QUERN_TRACE_FILE", (d / "first").c_str());
    ASSERT_TRUE(sve_init(nullptr, "prog"));
  }
  trace_mem(derived(2, 1));
  {
    env_var file("QUERN_TRACE_FILE", (d / "second").c_str());
    ASSERT_TRUE(sve_init(nullptr, "prog")) << "a second sve_init keeps the open file";
  }
  trace_mem(derived(3, 1));
  sve_exit();
  trace_mem(derived(4, 1));
  sve_exit();
  EXPECT_FALSE(fs::exists(d.path / "second"));
  const trace_contents c = load(d / "first");
  ASSERT_EQ(c.records.size(), 2u);
  EXPECT_EQ(c.records[0].count, 2u);
  EXPECT_EQ(c.records[1].count, 3u);
  EXPECT_EQ(c.info.file_size, 112u + 2 * 56);
}

TEST(TraceSink, ManyThreadsLoseNothingAndShareOneCount) {
  constexpr int kThreads = 8;
  constexpr uint64_t kEach = 20000;
  temp_dir d;
  env_var window("QUERN_TRACE_WINDOW", kSmallestWindow);  // hundreds of growths, under contention
  env_var file("QUERN_TRACE_FILE", (d / "t.qtrace").c_str());
  ASSERT_TRUE(sve_init(nullptr, "prog"));
  std::vector<std::vector<uint64_t>> counts(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&counts, t] {
      for (uint64_t i = 0; i < kEach; ++i) {
        const uint64_t c = incr_count();
        trace_mem(derived(c, t));
        counts[t].push_back(c);
      }
    });
  for (std::thread& th : threads) th.join();
  sve_exit();

  const trace_contents c = load(d / "t.qtrace");
  EXPECT_EQ(c.info.holes, 0u);
  EXPECT_EQ(c.info.unused_tail, 0u);
  EXPECT_EQ(c.info.file_size, 112 + 56 * kThreads * kEach);
  ASSERT_EQ(c.records.size(), kThreads * kEach);
  std::set<uint64_t> seen;
  for (const sve_mem_ref_t& r : c.records) {
    ASSERT_TRUE(same(r, derived(r.count, r.tid))) << show(r);
    ASSERT_TRUE(seen.insert(r.count).second) << "duplicate count " << r.count;
  }
  std::vector<uint64_t> all;
  for (const std::vector<uint64_t>& v : counts) {
    for (uint64_t x : v) ASSERT_TRUE(seen.count(x)) << "lost count " << x;
    EXPECT_TRUE(std::is_sorted(v.begin(), v.end())) << "the count rises within a thread";
    all.insert(all.end(), v.begin(), v.end());
  }
  // One running count for the process: no value twice, none skipped.
  std::sort(all.begin(), all.end());
  EXPECT_GE(all.front(), 1u);
  for (size_t i = 1; i < all.size(); ++i) ASSERT_EQ(all[i], all[i - 1] + 1);
}

// A second copy of the library, loaded fresh: its exported names, and a count
// that starts at 1.
TEST(TraceSink, FreshLibraryExportsTheInterfaceAndCountsFromOne) {
  incr_count();  // the linked copy's counter is not the fresh copy's
  temp_dir d;
  const std::string copy = d / "libcopy.so";
  fs::copy_file(QUERN_SG_LIB, copy);
  void* h = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  for (const char* name :
       {"_Z8sve_initPKcS0_", "_Z8sve_exitv", "_Z9trace_memRK13sve_mem_ref_t", "_Z10incr_countv", "our_stderr"})
    EXPECT_NE(dlsym(h, name), nullptr) << name;
  auto fresh_incr = reinterpret_cast<uint64_t (*)()>(dlsym(h, "_Z10incr_countv"));
  ASSERT_NE(fresh_incr, nullptr);
  EXPECT_EQ(fresh_incr(), 1u);
  EXPECT_EQ(fresh_incr(), 2u);
  const auto* fresh_stderr = static_cast<const file_t*>(dlsym(h, "our_stderr"));
  ASSERT_NE(fresh_stderr, nullptr);
  EXPECT_EQ(*fresh_stderr, 2);
  dlclose(h);
}

TEST(TraceSink, OperationsComeFromTheCompanionLibraries) {
  // An executable that also defined these (a stand-in sink, say) would win
  // over the libraries, and every other test here would test the stand-in.
  const std::pair<void*, const char*> cases[] = {
      {reinterpret_cast<void*>(&trace_mem), "libquern_sg_sve_utils.so"},
      {reinterpret_cast<void*>(&sve_init), "libquern_sg_sve_utils.so"},
      {reinterpret_cast<void*>(&incr_count), "libquern_sg_sve_utils.so"},
      {reinterpret_cast<void*>(&virtual2physical), "libquern_sve_vadr2padr.so"}};
  for (const auto& [address, library] : cases) {
    Dl_info info{};
    ASSERT_NE(dladdr(address, &info), 0);
    EXPECT_NE(std::string(info.dli_fname).find(library), std::string::npos) << info.dli_fname;
  }
  // (our_stderr itself may live in the executable, by copy relocation.)
  EXPECT_EQ(our_stderr, 2);
}

TEST(TraceSink, RecordsSurviveAnAbruptEnd) {
  constexpr uint64_t kRecords = 2000;  // several windows at the smallest size
  struct end_case {
    const char* name;
    bool kill_self;
  };
  for (const end_case& ec : {end_case{"SIGKILL", true}, end_case{"_exit without sve_exit", false}}) {
    temp_dir d;
    const std::string path = d / "t.qtrace";
    const int status = run_child([&] {
      setenv("QUERN_TRACE_WINDOW", kSmallestWindow, 1);
      setenv("QUERN_TRACE_FILE", path.c_str(), 1);
      if (!sve_init(nullptr, "doomed")) return 3;
      for (uint64_t i = 1; i <= kRecords; ++i) trace_mem(derived(i, 42));
      if (ec.kill_self) raise(SIGKILL);
      _exit(0);
    });
    if (ec.kill_self)
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << ec.name << " " << status;
    else
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ec.name << " " << status;
    const trace_contents c = load(path);
    EXPECT_GT(c.info.unused_tail, 0u) << ec.name << ": the file was never finalised";
    EXPECT_EQ(c.info.holes, 0u) << ec.name;
    ASSERT_EQ(c.records.size(), kRecords) << ec.name;
    for (uint64_t i = 0; i < kRecords; ++i) ASSERT_TRUE(same(c.records[i], derived(i + 1, 42))) << show(c.records[i]);
  }
}

// trace_mem from a signal handler that interrupts trace_mem on the same
// thread, while other threads grow the file.
struct handler_log {
  static constexpr uint64_t kMax = 1 << 16;
  std::atomic<bool> closing;
  std::atomic<uint64_t> calls;
  uint64_t count[kMax];
  bool before_close[kMax];
};
handler_log* g_log;
constexpr int32_t kHandlerTid = 77;

void trace_from_handler(int) {
  const uint64_t i = g_log->calls.fetch_add(1);
  if (i >= handler_log::kMax) return;
  g_log->before_close[i] = !g_log->closing.load();
  const uint64_t c = incr_count();
  trace_mem(derived(c, kHandlerTid));
  g_log->count[i] = c;
}

int signal_handler_scenario(const std::string& path) {
  static handler_log log;
  g_log = &log;
  setenv("QUERN_TRACE_WINDOW", kSmallestWindow, 1);
  setenv("QUERN_TRACE_FILE", path.c_str(), 1);
  if (!sve_init(nullptr, "signalled")) return 3;
  struct sigaction sa {};
  sa.sa_handler = trace_from_handler;
  sa.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &sa, nullptr);

  // A signal for every few records of the target thread, which goes on until
  // enough of them have been handled: the same work at any speed, under a
  // sanitizer or an emulator, however the threads are scheduled.
  constexpr uint64_t kMain = 60000, kOther = 30000, kRecordsPerSignal = 20, kHandled = 500;
  std::atomic<uint64_t> progress{0};
  std::atomic<bool> done{false};
  std::vector<std::vector<uint64_t>> ordinary(3);  // [0] the signalled thread
  std::vector<std::thread> others;
  for (int t = 1; t < 3; ++t)
    others.emplace_back([&, t] {
      for (uint64_t i = 0; i < kOther; ++i) {
        const uint64_t c = incr_count();
        trace_mem(derived(c, t));
        ordinary[t].push_back(c);
      }
    });
  const pthread_t target = pthread_self();
  std::thread killer([&] {
    for (uint64_t next = kRecordsPerSignal;; next += kRecordsPerSignal) {
      while (progress.load() < next && !done.load()) sched_yield();
      if (done.load()) return;
      pthread_kill(target, SIGUSR1);
    }
  });
  for (uint64_t i = 0; i < kMain || log.calls.load() < kHandled; ++i) {
    const uint64_t c = incr_count();
    trace_mem(derived(c, 0));
    ordinary[0].push_back(c);
    progress.store(i + 1);
  }
  done = true;
  killer.join();
  for (std::thread& th : others) th.join();
  log.closing = true;
  sve_exit();

  trace_contents c;
  std::string error;
  if (!trace_load(path.c_str(), c, error)) return fprintf(stderr, "unreadable: %s\n", error.c_str()), 1;
  std::set<uint64_t> in_file, expected;
  for (const sve_mem_ref_t& r : c.records) {
    if (!same(r, derived(r.count, r.tid)) || !in_file.insert(r.count).second)
      return fprintf(stderr, "bad or repeated record %s\n", show(r).c_str()), 1;
  }
  for (const auto& v : ordinary)
    for (uint64_t x : v) expected.insert(x);
  const uint64_t calls = std::min(log.calls.load(), handler_log::kMax);
  // A handler that ran before sve_exit must be in the file; one that ran
  // during it may be.
  for (uint64_t i = 0; i < calls; ++i)
    if (log.before_close[i] || in_file.count(log.count[i])) expected.insert(log.count[i]);
  if (in_file != expected)
    return fprintf(stderr, "file has %zu records, expected %zu\n", in_file.size(), expected.size()), 1;
  if (c.info.holes) return fprintf(stderr, "%llu holes\n", (unsigned long long)c.info.holes), 1;
  return 0;
}

TEST(TraceSink, TraceFromASignalHandler) {
  temp_dir d;
  const int status = run_child([&] { return signal_handler_scenario(d / "t.qtrace"); }, 120);
  ASSERT_NE(status, -1) << "timed out: a handler waiting on its own thread, or signals not delivered";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST(TraceSink, ForkedChildWritesItsOwnFile) {
  for (const bool named : {true, false}) {
    temp_dir d;
    cwd_guard in(d.path);
    const std::string given = d / "t.qtrace";
    env_var file("QUERN_TRACE_FILE", named ? given.c_str() : nullptr);
    ASSERT_TRUE(sve_init(nullptr, "/opt/forker"));
    for (uint64_t i = 1; i <= 3; ++i) trace_mem(derived(i, 1));
    pid_t child = 0;
    const int status = run_child(
        [] {
          for (uint64_t i = 101; i <= 105; ++i) trace_mem(derived(i, 2));
          sve_exit();
          return 0;
        },
        300, &child);
    for (uint64_t i = 4; i <= 5; ++i) trace_mem(derived(i, 1));
    sve_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    const std::string parent_file = named ? given : d / ("forker." + std::to_string(getpid()) + ".qtrace");
    const std::string child_file =
        named ? given + "." + std::to_string(child) : d / ("forker." + std::to_string(child) + ".qtrace");
    for (const auto& [path, pid, first] : {std::tuple(parent_file, getpid(), 1), std::tuple(child_file, child, 101)}) {
      const trace_contents c = load(path);
      std::vector<uint64_t> counts;
      for (const sve_mem_ref_t& r : c.records) counts.push_back(r.count);
      const std::vector<uint64_t> want =
          first == 1 ? std::vector<uint64_t>{1, 2, 3, 4, 5} : std::vector<uint64_t>{101, 102, 103, 104, 105};
      EXPECT_EQ(counts, want) << path;
      EXPECT_EQ(c.info.header.pid, pid) << path;
      EXPECT_STREQ(c.info.header.app_name, "forker");
    }
  }
}

// ---- the reader -----------------------------------------------------------------

std::string three_record_file() {
  temp_dir d;
  write_trace(d / "t", "prog", {derived(1, 5), derived(2, 5), derived(3, 5)});
  return read_bytes(d / "t");
}

TEST(TraceReader, SkipsEmptySlotsAndSaysWhere) {
  const std::string good = three_record_file();
  auto zero = [](std::string b, size_t from, size_t len) { return b.replace(from, len, std::string(len, '\0')); };
  struct ok_case {
    const char* name;
    std::string bytes;
    std::vector<uint64_t> counts;
    uint64_t holes, unused_tail, partial;
  };
  const ok_case cases[] = {
      {"as written", good, {1, 2, 3}, 0, 0, 0},
      {"header only", good.substr(0, 112), {}, 0, 0, 0},
      {"zero slots after", good + std::string(4 * 56, '\0'), {1, 2, 3}, 0, 4, 0},
      {"zero part-slot after", good + std::string(20, '\0'), {1, 2, 3}, 0, 0, 20},
      {"slot never written", zero(good, 112 + 56, 56), {1, 3}, 1, 0, 0},
      {"count never stored", zero(good, 112 + 56, 8), {1, 3}, 1, 0, 0},
      {"last one unfinished", zero(good, 112 + 2 * 56, 8), {1, 2}, 0, 1, 0},
      {"first two unfinished", zero(zero(good, 112, 8), 112 + 56, 8), {3}, 2, 0, 0},
  };
  temp_dir d;
  for (const ok_case& oc : cases) {
    write_bytes(d / "f", oc.bytes);
    const trace_contents c = load(d / "f");
    std::vector<uint64_t> counts;
    for (const sve_mem_ref_t& r : c.records) {
      counts.push_back(r.count);
      EXPECT_TRUE(same(r, derived(r.count, 5))) << oc.name << " " << show(r);
    }
    EXPECT_EQ(counts, oc.counts) << oc.name;
    EXPECT_EQ(c.info.records, oc.counts.size()) << oc.name;
    EXPECT_EQ(c.info.holes, oc.holes) << oc.name;
    EXPECT_EQ(c.info.unused_tail, oc.unused_tail) << oc.name;
    EXPECT_EQ(c.info.partial_tail_bytes, oc.partial) << oc.name;
  }
}

// The files `quern trace` is checked on (tests/quern_trace_test.sh): written
// into QUERN_TRACE_FIXTURE_DIR when it is set.
TEST(TraceFixture, KnownTracesReadBack) {
  const int32_t kOther = static_cast<int32_t>(0xdeadbeefu);  // a tid with bit 31 set
  const std::vector<sve_mem_ref_t> known = {
      rec(1, -1, 0, MEMACCESS_STORE, 0, 0, 0, 0),
      rec(2, 0x1234, 3, MEMACCESS_LOAD, 4, 0x1000, 0x81000, 0x400100),
      rec(3, 0x1234, 2, MEMACCESS_LOAD, 4, 0x1040, 0x81040, 0x400100),
      rec(4, 0x1234, 6, MEMACCESS_LOAD, 4, 0x2ffe, 0x82ffe, 0x400100),
      rec(5, kOther, 3, MEMACCESS_STORE, 8, 0x1008, 0x81008, 0x400200),
      rec(6, kOther, 6, MEMACCESS_STORE, 8, 0x8000, 0x88000, 0x400200),
      rec(7, 0x1234, 7, MEMACCESS_LOAD, 1, 0x1000, 0x81000, 0x400100),
      rec(8, -2, 0, MEMACCESS_STORE, 0, 0, 0, 0),
  };
  // 25 pcs, pc k with k records: more than the 20 that stats lists.
  std::vector<sve_mem_ref_t> many_pcs;
  for (uint64_t k = 1; k <= 25; ++k)
    for (uint64_t i = 0; i < k; ++i)
      many_pcs.push_back(
          rec(many_pcs.size() + 1, 9, 7, MEMACCESS_LOAD, 8, 0x10000 + 8 * many_pcs.size(), 0, 0x500000 + 4 * k));
  temp_dir d;
  const char* out = getenv("QUERN_TRACE_FIXTURE_DIR");
  const fs::path dir = out ? fs::path(out) : d.path;
  for (const auto& [name, records] :
       {std::make_pair("known.qtrace", known), std::make_pair("many_pcs.qtrace", many_pcs)}) {
    const std::string path = (dir / name).string();
    write_trace(path, "/opt/bin/fixture_app", records);
    const trace_contents c = load(path);
    EXPECT_STREQ(c.info.header.app_name, "fixture_app");
    ASSERT_EQ(c.records.size(), records.size()) << name;
    for (size_t i = 0; i < records.size(); ++i) EXPECT_TRUE(same(c.records[i], records[i])) << name << " " << i;
  }
}

// ---- the address translator ----------------------------------------------------

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

// The page map read directly: the physical address, or 0 when not known.
uint64_t pagemap_says(uint64_t vaddr) {
  const int fd = open("/proc/self/pagemap", O_RDONLY);
  if (fd < 0) return 0;
  uint64_t e = 0;
  const bool got = pread(fd, &e, 8, static_cast<off_t>(vaddr / kPage * 8)) == 8;
  close(fd);
  const uint64_t pfn = e & ((uint64_t{1} << 55) - 1);
  return got && (e >> 63) && pfn ? pfn * kPage + vaddr % kPage : 0;
}

uint64_t expected_physical(uint64_t vaddr) {
  const uint64_t p = pagemap_says(vaddr);
  return p ? p : vaddr;
}

struct mapping {
  char* base;
  size_t len;
  explicit mapping(size_t pages) : len(pages * kPage) {
    base = static_cast<char*>(mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED) abort();
  }
  ~mapping() { munmap(base, len); }
  uint64_t at(uint64_t off) const { return reinterpret_cast<uint64_t>(base) + off; }
};

TEST(Vadr2padr, TranslatesPresentPagesKeepingTheOffset) {
  mapping m(2);
  memset(m.base, 1, m.len);
  for (uint64_t off :
       {uint64_t{0}, uint64_t{1}, uint64_t{7}, uint64_t{64}, kPage - 1, kPage, kPage + 5, 2 * kPage - 1}) {
    const uint64_t v = m.at(off);
    EXPECT_EQ(virtual2physical(v) % kPage, v % kPage) << off;
    EXPECT_EQ(virtual2physical(v), expected_physical(v)) << off;
  }
  const uint64_t p0 = virtual2physical(m.at(0)), p1 = virtual2physical(m.at(kPage));
  if (p0 != m.at(0)) {
    EXPECT_EQ(virtual2physical(m.at(100)), p0 + 100);
    EXPECT_NE(p0 / kPage, p1 / kPage) << "two pages, two frames";
  }
}

TEST(Vadr2padr, LeavesAbsentAddressesAsTheyAre) {
  mapping untouched(1);
  EXPECT_EQ(virtual2physical(untouched.at(0)), expected_physical(untouched.at(0)));
  const uint64_t gone = mapping(1).at(16);  // unmapped again at once
  EXPECT_EQ(virtual2physical(gone), expected_physical(gone));
  for (uint64_t v : {uint64_t{0}, uint64_t{0x10}, UINT64_MAX - 5}) EXPECT_EQ(virtual2physical(v), v);
}

uint64_t g_handler_vaddr, g_handler_paddr;
void translate_in_handler(int) { g_handler_paddr = virtual2physical(g_handler_vaddr); }

TEST(Vadr2padr, WorksInASignalHandler) {
  mapping m(1);
  m.base[0] = 1;
  g_handler_vaddr = m.at(40);
  struct sigaction sa {
  }, old{};
  sa.sa_handler = translate_in_handler;
  sigaction(SIGUSR2, &sa, &old);
  raise(SIGUSR2);
  sigaction(SIGUSR2, &old, nullptr);
  EXPECT_EQ(g_handler_paddr, virtual2physical(m.at(40)));
  EXPECT_EQ(g_handler_paddr, expected_physical(m.at(40)));
}

TEST(Vadr2padr, ForkedChildReadsItsOwnPageMap) {
  mapping m(1);
  m.base[0] = 1;
  const uint64_t parent = virtual2physical(m.at(8));  // the parent's descriptor is open now
  const int status = run_child([&] {
    m.base[0] = 2;  // copy on write: the child's own frame
    const uint64_t mine = virtual2physical(m.at(8));
    if (mine != expected_physical(m.at(8))) return 1;
    if (mine != m.at(8) && mine == parent) return 2;
    return 0;
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
