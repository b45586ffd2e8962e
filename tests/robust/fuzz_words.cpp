// Every word of the SVE group through the emulator.
//
// Random words with bits 28..25 = 0010 go through get_sve_handler and, when
// they have a row, through the row's adapter on a random machine state whose
// address registers point into a scratch mapping. The scratch mapping has an
// inaccessible page on each side and is itself inaccessible while a row that
// is not a memory row runs, so any stray access ends in SIGSEGV, which this
// program reports with the word and how to replay it. First-fault and
// non-fault loads may touch the page after the scratch area on purpose: their
// guarded reads turn the fault into a `false`, and only a fault outside a
// guarded read counts, unless the list of deliberate departures says that the
// row may raise the signal in such a trial (a non-fault load reading an element
// that starts on a readable page and ends on the guard page); such a fault is
// counted, and the word abandoned. A first-fault load (not a non-fault one)
// must fault for real when its first active element cannot be read: in a trial
// that places accesses on the guard page such a fault is counted too, not
// taken for a crash.
//
// Checked for every word:
//   * get_sve_handler, the cascade of maps and find_decode_row agree, and the
//     row matches the word;
//   * a word without a row is refused (null), a row whose operation has not
//     landed reports itself unimplemented and leaves state and memory as they
//     were;
//   * a landed row returns, in bounded time, a known return code, without a
//     fault, a sanitizer report or an access outside the scratch mapping and
//     its own machine state (which sits alone in its own heap block, so that
//     AddressSanitizer sees an overrun).
//
// usage: quern-fuzz-words [--words N] [--seconds S] [--seed S] [--index I] [--plant]
//   --index I replays word number I of the run with that seed, alone.
//   --plant   points every address register of a memory row at the guard page:
//             the run must then stop with a CRASH line (the harness's self-test).
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sve/client/sve_fault.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "tests/oracle/departures.h"
#include "tests/oracle/gen.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr uint32_t kGroupMask = 0xFu << 25, kGroupBits = 0x2u << 25;
constexpr unsigned kHangSeconds = 20;

// What a signal handler needs to name the word that went wrong.
volatile uint32_t current_word = 0;
volatile uint64_t current_index = 0;
volatile int running_word = 0;
// Set while a word runs whose fault on the page after the scratch area is a
// listed departure; such a fault lands back in the loop.
volatile int fault_excused = 0;
sigjmp_buf excused_jb;
uint64_t run_seed = 0;
bool plant = false;
const char* scratch_lo = nullptr;
const char* scratch_hi = nullptr;
const char* guard_after = nullptr;  // the page after the scratch area

void say(const char* s) {
  const size_t n = strlen(s);
  if (write(2, s, n) < 0) return;
}

void report_word(const char* what) {
  char line[256];
  snprintf(line, sizeof line,
           "quern-fuzz-words: CRASH: %s at word 0x%08x (replay: --seed %" PRIu64 " --index %" PRIu64 ")\n", what,
           static_cast<unsigned>(current_word), run_seed, static_cast<uint64_t>(current_index));
  say(line);
}

void on_fault(int signo, siginfo_t* info, void* uctx) {
  // A guarded read in progress: the emulator's own handler takes it back.
  if (SVEFaultRegion) {
    SVESigHandler(signo, info, uctx);
    return;
  }
  const char* a = static_cast<const char*>(info->si_addr);
  const bool near = a >= scratch_lo && a < scratch_hi;
  if (running_word && fault_excused && a >= guard_after && a < scratch_hi) siglongjmp(excused_jb, 1);
  char what[128];
  snprintf(what, sizeof what, "%s at address %p (%s)", signo == SIGBUS ? "SIGBUS" : "SIGSEGV", info->si_addr,
           near ? "scratch mapping or its guard pages" : "outside the scratch mapping");
  report_word(running_word ? what : "fault outside any word");
  _exit(3);
}

void on_alarm(int) {
  report_word("no return within the time limit (hang)");
  _exit(4);
}

void on_abort(int) {
  report_word("abort");
  _exit(5);
}

#if defined(__SANITIZE_ADDRESS__)
void on_sanitizer_death() { report_word("sanitizer report"); }
#endif

void install(int sig, void (*h)(int, siginfo_t*, void*)) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = h;
  sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  sigaction(sig, &sa, nullptr);
}

// The scratch area of the trials, below 4 GiB so that 32-bit vector elements
// can address it, between two inaccessible pages.
bool map_scratch(oracle::scratch_area& s) {
  s.page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  s.size = oracle::kScratchBytes;
  const size_t total = s.size + 2 * s.page;
  for (uintptr_t hint = 0x30000000; hint < 0xF0000000; hint += 0x10000000) {
    void* m = mmap(reinterpret_cast<void*>(hint), total, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) continue;
    if (reinterpret_cast<uintptr_t>(m) + total <= 0x100000000ull) {
      s.mem = static_cast<unsigned char*>(m) + s.page;
      scratch_lo = static_cast<const char*>(m);
      scratch_hi = scratch_lo + total;
      guard_after = reinterpret_cast<const char*>(s.mem + s.size);
      return true;
    }
    munmap(m, total);
  }
  return false;
}

struct counts {
  uint64_t words = 0, refused = 0, with_row = 0, landed = 0, pending = 0, unbounded = 0, unplanned = 0;
  uint64_t fault_trials = 0, excused_faults = 0, failures = 0;
};

struct row_info {
  bool planned = false, plan_ok = false, reached = false;
  bool signal_in_fault_trial = false;  // may fault at the guard page: first-fault, or a listed departure
  unsigned pending_checks = 0;
  oracle::row_plan plan;
};

void fail(counts& c, uint32_t word, uint64_t index, const std::string& what) {
  ++c.failures;
  if (c.failures <= 20)
    fprintf(stderr, "quern-fuzz-words: FAIL: word 0x%08x (replay: --seed %" PRIu64 " --index %" PRIu64 "): %s\n", word,
            run_seed, index, what.c_str());
}

// One word: number `index` of the run.
void one_word(uint64_t index, const oracle::scratch_area& scratch, std::vector<row_info>& rows, counts& c,
              cpu_state* state, const std::vector<oracle::departure>& departures) {
  oracle::rng g = oracle::trial_rng(run_seed, "fuzz-words", static_cast<unsigned>(index));
  const uint32_t word = (static_cast<uint32_t>(g.next()) & ~kGroupMask) | kGroupBits;
  current_word = word;
  current_index = index;
  ++c.words;

  const sve_handler_fn h = get_sve_handler(word);
  const decode_row* row = find_decode_row(word);
  if (h != get_sve_handler_cascade(word)) fail(c, word, index, "get_sve_handler and the cascade of maps disagree");
  if (!row) {
    if (h) fail(c, word, index, "a handler for a word without a row");
    ++c.refused;
    return;
  }
  ++c.with_row;
  if (h != row->fn) fail(c, word, index, std::string("get_sve_handler does not give the adapter of ") + row->adapter);
  if ((word & row->mask) != row->value) fail(c, word, index, std::string("matched row ") + row->adapter);
  if (!h) return;

  row_info& ri = rows[static_cast<size_t>(row - decode_rows)];
  if (!ri.planned) {
    std::string err;
    ri.plan_ok = oracle::plan_row(*row, ri.plan, err);
    ri.planned = true;
    ri.signal_in_fault_trial = ri.plan_ok && ri.plan.first_fault && strstr(row->adapter, "LoadFF") != nullptr;
    for (const oracle::departure& d : departures) {
      if (!oracle::departure_applies(d, *row)) continue;
      bool signal = false, only_fault_trial = true;
      for (const auto& st : d.states) signal = signal || st.kind == oracle::state_kind::signal;
      for (const auto& w : d.when) only_fault_trial = only_fault_trial && w.src == oracle::condition::fault_trial;
      ri.signal_in_fault_trial = ri.signal_in_fault_trial || (signal && only_fault_trial);
    }
  }
  const bool landed = row_implemented(*row);
  // A pending row prints its "Unimplemented" line each time: a few suffice.
  if (!landed && ri.pending_checks >= 3) return;
  if (!ri.plan_ok) {
    ++c.unplanned;
    return;
  }
  const oracle::row_plan& plan = ri.plan;
  if (plan.form == oracle::addr_form::scalar_scalar) {
    const unsigned b = (word >> plan.base_lo) & 31, i = (word >> plan.index_lo) & 31;
    if (b == i && i != 31) {  // base + (base << s): no bound holds
      ++c.unbounded;
      return;
    }
  }

  const bool touches_memory = plan.memory && !plan.prefetch;
  if (touches_memory) mprotect(scratch.mem, scratch.size, PROT_READ | PROT_WRITE);
  oracle::trial_input t;
  t.word = word;
  oracle::fill_trial(plan, g, scratch, t, scratch.mem);
  c.fault_trials += t.fault_trial;
  *state = t.state;
  if (plant && touches_memory && !plan.first_fault) {
    const uint64_t bad = reinterpret_cast<uint64_t>(guard_after);
    for (auto& x : state->x) x = bad;
    state->sp = bad;
    for (auto& z : state->z)
      for (unsigned i = 0; i < kVecBytes; i += 8) memcpy(z + i, &bad, 8);
  }

  std::vector<unsigned char> mem_before;
  if (!landed && touches_memory) mem_before.assign(scratch.mem, scratch.mem + scratch.size);

  fault_excused = t.fault_trial && ri.signal_in_fault_trial;
  if (sigsetjmp(excused_jb, 1)) {
    running_word = 0;
    fault_excused = 0;
    ++c.excused_faults;
    if (touches_memory) mprotect(scratch.mem, scratch.size, PROT_NONE);
    return;
  }
  running_word = 1;
  const aarch64_decode_rc rc = h(state, word);
  running_word = 0;
  fault_excused = 0;

  if (landed) {
    ++c.landed;
    ri.reached = true;
    if (rc != AARCH64_DECODE_OK && rc != AARCH64_DECODE_UNIMPLEMENTED)
      fail(c, word, index, std::string(row->adapter) + " returned " + std::to_string(static_cast<int>(rc)));
  } else {
    ++c.pending;
    ++ri.pending_checks;
    if (rc != AARCH64_DECODE_UNIMPLEMENTED)
      fail(c, word, index, std::string("pending row ") + row->adapter + " did not report itself unimplemented");
    if (memcmp(state, &t.state, sizeof t.state) != 0)
      fail(c, word, index, std::string("pending row ") + row->adapter + " changed the machine state");
    if (touches_memory && memcmp(mem_before.data(), scratch.mem, scratch.size) != 0)
      fail(c, word, index, std::string("pending row ") + row->adapter + " wrote memory");
  }
  if (touches_memory) mprotect(scratch.mem, scratch.size, PROT_NONE);
}

uint64_t parse_u64(const char* s) { return strtoull(s, nullptr, 0); }

}  // namespace

int main(int argc, char** argv) {
  uint64_t words = 1000000, seconds = 0, index = 0;
  bool one = false, have_seed = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--plant") {
      plant = true;
      continue;
    }
    if (i + 1 >= argc) {
      fprintf(stderr, "usage: %s [--words N] [--seconds S] [--seed S] [--index I] [--plant]\n", argv[0]);
      return 2;
    }
    if (a == "--words") {
      words = parse_u64(argv[++i]);
    } else if (a == "--seconds") {
      seconds = parse_u64(argv[++i]);
    } else if (a == "--seed") {
      run_seed = parse_u64(argv[++i]);
      have_seed = true;
    } else if (a == "--index") {
      index = parse_u64(argv[++i]);
      one = true;
    } else {
      fprintf(stderr, "usage: %s [--words N] [--seconds S] [--seed S] [--index I] [--plant]\n", argv[0]);
      return 2;
    }
  }
  if (!have_seed) run_seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());

  SVEInitialize();
  static std::vector<unsigned char> altstack(1 << 16);
  stack_t ss{};
  ss.ss_sp = altstack.data();
  ss.ss_size = altstack.size();
  sigaltstack(&ss, nullptr);
  install(SIGSEGV, on_fault);
  install(SIGBUS, on_fault);
  signal(SIGALRM, on_alarm);
  signal(SIGABRT, on_abort);
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_set_death_callback(on_sanitizer_death);
#endif

  oracle::scratch_area scratch;
  if (!map_scratch(scratch)) {
    fprintf(stderr, "quern-fuzz-words: cannot map the scratch area below 4 GiB\n");
    return 2;
  }
  printf("seed: %" PRIu64 "\n", run_seed);
  fflush(stdout);

  std::vector<oracle::departure> departures;
  std::string derr;
  if (!oracle::load_departures(QUERN_ORACLE_DEPARTURES, departures, derr)) {
    fprintf(stderr, "quern-fuzz-words: %s\n", derr.c_str());
    return 2;
  }
  std::vector<row_info> rows(kDecodeRows);
  counts c;
  // The machine state alone in its own heap block.
  std::unique_ptr<cpu_state> state(new cpu_state());
  const auto start = std::chrono::steady_clock::now();
  const uint64_t first = one ? index : 0, last = one ? index + 1 : words;
  for (uint64_t i = first; i < last; ++i) {
    if ((i & 1023) == 0) {
      alarm(kHangSeconds);
      if (seconds && std::chrono::steady_clock::now() - start > std::chrono::seconds(seconds)) break;
    }
    one_word(i, scratch, rows, c, state.get(), departures);
  }
  alarm(0);

  unsigned reached = 0, landed_rows = 0;
  for (unsigned r = 0; r < kDecodeRows; ++r) {
    reached += rows[r].reached;
    landed_rows += row_implemented(decode_rows[r]);
  }
  printf("words tried: %" PRIu64 "\n", c.words);
  printf("words refused (no row): %" PRIu64 "\n", c.refused);
  printf("words with a row: %" PRIu64 " (run on a landed row: %" PRIu64 ", on a pending row: %" PRIu64
         ", first-fault trials at the guard page: %" PRIu64 " (listed faults: %" PRIu64 ")"
         ", skipped with base = index: %" PRIu64
         ", skipped without an address plan: %" PRIu64 ")\n",
         c.with_row, c.landed, c.pending, c.fault_trials, c.excused_faults, c.unbounded, c.unplanned);
  printf("rows reached: %u of %u landed\n", reached, landed_rows);
  printf("crashes: 0, failures: %" PRIu64 "\n", c.failures);
  return c.failures ? 1 : 0;
}
