// Fault containment: SVEInitialize, SVESigHandler, guarded_load and the
// addr_is_readable<char> probe.
#include "sve/client/sve_fault.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "sve/dispatch/cpu_state.h"

namespace {

// glibc on x86_64 adds SA_RESTORER to every action it installs and reports it
// back; it is not part of what we asked for.
constexpr int kRestorer = 0x04000000;

struct sigaction query(int signo) {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sigaction(signo, nullptr, &sa);
  return sa;
}

using Handler = void (*)(int, siginfo_t*, void*);

// An action for `fn` (null: SIG_DFL) with the given flags and, optionally, one
// signal in its mask.
struct sigaction make_sa(Handler fn, int flags, int masked = 0) {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  if (fn) sa.sa_sigaction = fn; else sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  if (masked) sigaddset(&sa.sa_mask, masked);
  sa.sa_flags = flags;
  return sa;
}

// Same handler, flags and mask (signals 1..31).
bool same_action(const struct sigaction& a, const struct sigaction& b) {
  if (reinterpret_cast<void*>(a.sa_sigaction) != reinterpret_cast<void*>(b.sa_sigaction) ||
      (a.sa_flags & ~kRestorer) != (b.sa_flags & ~kRestorer))
    return false;
  for (int s = 1; s < 32; ++s)
    if (sigismember(&a.sa_mask, s) != sigismember(&b.sa_mask, s)) return false;
  return true;
}

bool is_sve_handler(const struct sigaction& sa) {
  return same_action(sa, make_sa(SVESigHandler, kSveSigFlags));
}
bool is_default(const struct sigaction& sa) { return same_action(sa, make_sa(nullptr, kSveSigFlags)); }

void sentinel_handler(int, siginfo_t*, void*) {}

// Puts a signal's action back as it was when the guard was made.
struct ActionGuard {
  int signo;
  struct sigaction saved = query(signo);
  ~ActionGuard() { sigaction(signo, &saved, nullptr); }
};

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// Four pages: [0] read-write with a byte pattern, [1] PROT_NONE, [2] a hole
// (unmapped), [3] read-only. Any later mmap may land in the hole, so make the
// arena last and check hole_is_unmapped() before relying on it.
struct Arena {
  char* base;
  Arena() {
    base = static_cast<char*>(
        mmap(nullptr, 4 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (size_t i = 0; i < kPage; ++i) base[i] = static_cast<char>(i * 7 + 3);
    base[3 * kPage] = 0x5a;
    mprotect(base + kPage, kPage, PROT_NONE);
    munmap(base + 2 * kPage, kPage);
    mprotect(base + 3 * kPage, kPage, PROT_READ);
  }
  ~Arena() { munmap(base, 2 * kPage), munmap(base + 3 * kPage, kPage); }
  char* rw() const { return base; }
  char* none() const { return base + kPage; }
  char* hole() const { return base + 2 * kPage; }
  char* ro() const { return base + 3 * kPage; }
  bool hole_is_unmapped() const { return msync(hole(), kPage, MS_ASYNC) != 0 && errno == ENOMEM; }
};

// A page of a zero-length file: reading it raises SIGBUS, not SIGSEGV.
struct BusPage {
  FILE* file = std::tmpfile();
  char* p = static_cast<char*>(mmap(nullptr, kPage, PROT_READ, MAP_SHARED, fileno(file), 0));
  ~BusPage() { munmap(p, kPage), std::fclose(file); }
};

// ---- SVEInitialize ---------------------------------------------------------

TEST(SveInitialize, FirstCallInstallsHandlersAndContext) {
  GTEST_FLAG_SET(death_test_style, "fast");
  // Death tests fork ("fast" style: a re-executed child cannot start under
  // qemu-user). This test comes first, so nothing has touched the state since
  // the first call, whether that is this one or the library's static initialiser.
  auto body = [] {
    if (SVEInitialize() != 1) { std::fputs("call != 1\n", stderr); _exit(2); }
    for (int s : {SIGSEGV, SIGBUS})
      if (!is_sve_handler(query(s))) { std::fputs("bad action\n", stderr); _exit(3); }
    if (cpu_ctxt.vl != 2 || ctxt != &cpu_ctxt) { std::fputs("bad context\n", stderr); _exit(4); }
    _exit(0);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST(SveInitialize, SecondCallChangesNothing) {
  ASSERT_EQ(SVEInitialize(), 1);
  ASSERT_TRUE(is_sve_handler(query(SIGSEGV)));
  ASSERT_TRUE(is_sve_handler(query(SIGBUS)));

  ActionGuard guard{SIGSEGV};
  CpuContext* saved_ctxt = ctxt;
  struct sigaction sentinel = make_sa(sentinel_handler, SA_SIGINFO);
  sigaction(SIGSEGV, &sentinel, nullptr);
  cpu_ctxt.vl = 5;
  ctxt = nullptr;

  EXPECT_EQ(SVEInitialize(), 1);
  EXPECT_TRUE(same_action(query(SIGSEGV), sentinel));
  EXPECT_TRUE(is_sve_handler(query(SIGBUS)));
  EXPECT_EQ(cpu_ctxt.vl, 5u);
  EXPECT_EQ(ctxt, nullptr);

  cpu_ctxt.vl = 2;
  ctxt = saved_ctxt;
}

// ---- guarded_load ----------------------------------------------------------

class GuardedLoad : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(SVEInitialize(), 1);
    ASSERT_TRUE(arena.hole_is_unmapped());
  }
  BusPage bus;  // before the arena: see Arena
  Arena arena;
};

template <typename T>
void expect_value_at(const char* p) {
  T expected;
  std::memcpy(&expected, p, sizeof expected);
  T out = 0;
  EXPECT_TRUE(guarded_load<T>(p, out)) << sizeof(T) << "-byte read at " << (const void*)p;
  EXPECT_EQ(out, expected) << sizeof(T) << "-byte read";
  EXPECT_EQ(SVEFaultRegion, 0);
}

TEST_F(GuardedLoad, ReadsValuesOfEveryWidthAtAnyAlignment) {
  // Offsets include unaligned ones and the last element that fits the page.
  for (size_t off : {size_t{0}, size_t{1}, size_t{3}, size_t{5}, size_t{64}, kPage - 8}) {
    expect_value_at<uint8_t>(arena.rw() + off);
    expect_value_at<uint16_t>(arena.rw() + off);
    expect_value_at<uint32_t>(arena.rw() + off);
    expect_value_at<uint64_t>(arena.rw() + off);
  }
  expect_value_at<uint8_t>(arena.rw() + kPage - 1);
  expect_value_at<uint8_t>(arena.ro());
}

TEST_F(GuardedLoad, FaultsReturnFalseAndLeaveStateClean) {
  struct Case { const char* name; const char* addr; };
  const Case cases[] = {
      {"PROT_NONE page", arena.none()},
      {"unmapped page", arena.hole() + 17},
      {"u64 straddling into PROT_NONE", arena.none() - 4},
      {"beyond end of file (SIGBUS)", bus.p},
      {"top half of address space", reinterpret_cast<const char*>(uint64_t{1} << 63)},
  };
  for (const Case& c : cases) {
    // Repeat: a fault must not leave the signal blocked or the buffer stale.
    for (int rep = 0; rep < 3; ++rep) {
      uint64_t out = 0x1122334455667788u;
      EXPECT_FALSE(guarded_load<uint64_t>(c.addr, out)) << c.name;
      EXPECT_EQ(out, 0x1122334455667788u) << c.name << ": output written on fault";
      EXPECT_EQ(SVEFaultRegion, 0) << c.name;
    }
    uint8_t b = 0;
    EXPECT_FALSE(guarded_load<uint8_t>(c.addr + 7, b)) << c.name;
    // The handler stays installed: a contained fault is not the application's.
    EXPECT_TRUE(is_sve_handler(query(SIGSEGV))) << c.name;
    EXPECT_TRUE(is_sve_handler(query(SIGBUS))) << c.name;
  }
  // And reads still work afterwards.
  expect_value_at<uint32_t>(arena.rw() + 9);
}

// ---- addr_is_readable<char> ------------------------------------------------

TEST(AddrIsReadable, ResultAndPreviousActionRestored) {
  Arena arena;
  ASSERT_TRUE(arena.hole_is_unmapped());
  ActionGuard guard{SIGSEGV};

  struct Prior { const char* name; struct sigaction sa; };
  const Prior priors[] = {{"sentinel", make_sa(sentinel_handler, SA_SIGINFO, SIGUSR1)},
                          {"SVESigHandler", make_sa(SVESigHandler, kSveSigFlags)},
                          {"SIG_DFL", make_sa(nullptr, 0)}};
  struct Addr { const char* name; char* p; bool readable; };
  const Addr addrs[] = {
      {"rw page", arena.rw() + 100, true},
      {"last byte of rw page", arena.none() - 1, true},
      {"ro page", arena.ro(), true},
      {"PROT_NONE page", arena.none(), false},
      {"unmapped page", arena.hole() + 123, false},
      {"null", nullptr, false},
      {"top half of address space", reinterpret_cast<char*>(uint64_t{1} << 63), false},
  };

  for (const Prior& pr : priors) {
    sigaction(SIGSEGV, &pr.sa, nullptr);

    for (const Addr& a : addrs) {
      for (int rep = 0; rep < 2; ++rep) {
        EXPECT_EQ(addr_is_readable<char>(a.p), a.readable) << a.name << " / " << pr.name;
        EXPECT_EQ(access_violation, a.readable ? 0 : 1) << a.name;
        EXPECT_EQ(access_violation_addr, reinterpret_cast<uint64_t>(a.p)) << a.name;
        EXPECT_TRUE(same_action(query(SIGSEGV), pr.sa))
            << a.name << " / " << pr.name << ": previous action not restored";
      }
    }
  }
  // The probe touched nothing it read.
  EXPECT_EQ(arena.ro()[0], 0x5a);
}

// ---- faults that belong to the application ---------------------------------

const char kLinePrefix[] = "quern's SVESigHandler caught signal ";

int count(const std::string& s, const std::string& what) {
  int n = 0;
  for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
  return n;
}

// Matches stderr that holds the handler's line for `sig` exactly once and no
// other handler line.
class OneHandlerLine : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit OneHandlerLine(const char* sig)
      : line_(std::string(kLinePrefix) + sig +
              " from the process being emulated, passing it to the default signal handler.\n") {}
  bool MatchAndExplain(const std::string& s, ::testing::MatchResultListener*) const override {
    return count(s, line_) == 1 && count(s, kLinePrefix) == 1;
  }
  void DescribeTo(std::ostream* os) const override { *os << "contains exactly once: " << line_; }

 private:
  std::string line_;
};

::testing::Matcher<const std::string&> one_line(const char* sig) {
  return ::testing::MakeMatcher(new OneHandlerLine(sig));
}

void read_byte(const char* p) { (void)*static_cast<const volatile char*>(p); }

TEST(ApplicationFault, PrintsOnceAndDiesByTheSignal) {
  GTEST_FLAG_SET(death_test_style, "fast");
  struct Case { const char* name; int signo; bool bus; };
  for (const Case& c : {Case{"SIGSEGV", SIGSEGV, false}, Case{"SIGBUS", SIGBUS, true}}) {
    auto body = [&c] {
      alarm(5);  // a handler that keeps re-entering shows up as SIGALRM, not a hang
      BusPage bus;
      Arena arena;
      if (!arena.hole_is_unmapped()) _exit(3);
      SVEInitialize();
      // A contained fault first: it must print nothing.
      uint32_t v;
      if (guarded_load<uint32_t>(arena.hole(), v)) _exit(1);
      read_byte(c.bus ? bus.p : arena.none());
      _exit(2);  // the fault was swallowed
    };
    EXPECT_EXIT(body(), ::testing::KilledBySignal(c.signo), one_line(c.name)) << c.name;
  }
}

TEST(ApplicationFault, SigbusAfterSigsegvFindsDefaultAction) {
  GTEST_FLAG_SET(death_test_style, "fast");
  auto body = [] {
    alarm(5);
    BusPage bus;
    SVEInitialize();
    raise(SIGSEGV);  // handled once: both actions go back to the default
    for (int s : {SIGSEGV, SIGBUS})
      if (!is_default(query(s))) { std::fputs("not reset\n", stderr); _exit(1); }
    read_byte(bus.p);
    _exit(2);
  };
  EXPECT_EXIT(body(), ::testing::KilledBySignal(SIGBUS), one_line("SIGSEGV"));
}

// Another thread's genuine fault may arrive while a probe has its private
// action installed; it must still end the process, not be stepped over. The
// prober spends most of its time inside that window, but a single run can miss
// it, so the scenario is repeated.
TEST(ApplicationFault, ProbeDoesNotSwallowAnotherThreadsFault) {
  GTEST_FLAG_SET(death_test_style, "fast");
  auto body = [] {
    alarm(5);
    static Arena arena;
    static std::atomic<long> probes{0};
    struct sigaction dfl = make_sa(nullptr, 0);  // not a sanitizer's: it exits, not dies
    sigaction(SIGSEGV, &dfl, nullptr);
    pthread_t prober;
    pthread_create(&prober, nullptr, [](void*) -> void* {
      for (;;) {
        addr_is_readable<char>(arena.none());
        probes.fetch_add(1);
      }
    }, nullptr);
    while (probes.load() < 1000) {}
    read_byte(arena.none());
    _exit(1);  // the fault was swallowed
  };
  for (int run = 0; run < 8; ++run)
    EXPECT_EXIT(body(), ::testing::KilledBySignal(SIGSEGV), "") << "run " << run;
}

}  // namespace
