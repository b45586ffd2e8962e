// quern-oracle: the differential test of the emulator against the reference
// processor. For each selected row of the decode table it draws random words
// and machine states, runs each word natively (real SVE at 384 bits) and
// through quern, and compares the whole machine state and the memory.
//
// Run it under qemu-aarch64 -cpu max,sve-max-vq=3 (see README.md).
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "tests/oracle/departures.h"
#include "tests/oracle/gen.h"
#include "tests/oracle/run.h"

#ifndef QUERN_ORACLE_DEPARTURES
#define QUERN_ORACLE_DEPARTURES "departures.txt"
#endif

namespace {

using namespace oracle;

struct options {
  std::vector<std::string> rows;
  unsigned trials = 16;
  uint64_t seed = 0;
  bool seed_given = false;
  long only_trial = -1;
  bool dump = false;
  bool quiet = false;
  bool list = false;
  bool reference_only = false;  // pending rows too, on the reference alone
  unsigned show = 3;
  std::string inject;  // self-test: "skip" the emulator, "flip" one bit of its result, or "crash" it
  std::string report;
  std::string departures = QUERN_ORACLE_DEPARTURES;
};

const char kUsage[] =
    "usage: quern-oracle [options]\n"
    "  --rows LIST        comma-separated rows to test: 'all' (default), adapter names\n"
    "                     (VecU8AddVVM), handler names (sve_add_zpz), map names\n"
    "                     (decode_map__31_13), or globs of these (VecU8Add*)\n"
    "  --trials N         trials per row (default 16)\n"
    "  --seed S           seed of the run (default: drawn at random; printed)\n"
    "  --trial T          run only trial T of each row, and show every difference\n"
    "  --dump             with --trial: print the initial state as well\n"
    "  --show N           differing trials reported per row (default 3)\n"
    "  --report FILE      write one line per row, tab-separated\n"
    "  --departures FILE  the allowlist (default: the one in the source tree)\n"
    "  --quiet            print only rows that differ, and the summary\n"
    "  --list             print every row name with its handler and map, and exit\n"
    "  --reference-only   run pending rows on the reference alone: checks that words\n"
    "                     and bounded addresses work there (no comparison)\n"
    "  --inject MODE      self-test of the oracle: 'skip' the emulator, 'flip' one bit of\n"
    "                     its result, or make it 'crash'; every compared trial should differ\n"
    "Run under qemu-aarch64 -cpu max,sve-max-vq=3 -L /usr/aarch64-linux-gnu.\n";

[[noreturn]] void usage_error(const std::string& msg) {
  std::fprintf(stderr, "quern-oracle: %s\n%s", msg.c_str(), kUsage);
  std::exit(2);
}

bool parse_number(const char* s, uint64_t& v) {
  if (!*s || *s == '-') return false;
  char* end = nullptr;
  errno = 0;
  v = std::strtoull(s, &end, 0);
  return errno == 0 && *end == '\0';
}

options parse_options(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usage_error("option " + a + " needs a value");
      return argv[++i];
    };
    uint64_t n;
    if (a == "--rows") {
      std::string list = value(), cur;
      for (char c : list + ",") {
        if (c == ',') {
          if (!cur.empty()) o.rows.push_back(cur);
          cur.clear();
        } else {
          cur += c;
        }
      }
      if (o.rows.empty()) usage_error("--rows needs at least one name");
    } else if (a == "--trials") {
      if (!parse_number(value(), n) || n == 0 || n > 1000000) usage_error("--trials needs a number from 1 to 1000000");
      o.trials = static_cast<unsigned>(n);
    } else if (a == "--seed") {
      if (!parse_number(value(), n)) usage_error("--seed needs an unsigned number");
      o.seed = n;
      o.seed_given = true;
    } else if (a == "--trial") {
      if (!parse_number(value(), n) || n >= 1000000) usage_error("--trial needs a trial number");
      o.only_trial = static_cast<long>(n);
    } else if (a == "--show") {
      if (!parse_number(value(), n) || n > 1000000) usage_error("--show needs a number");
      o.show = static_cast<unsigned>(n);
    } else if (a == "--report") {
      o.report = value();
    } else if (a == "--departures") {
      o.departures = value();
    } else if (a == "--inject") {
      o.inject = value();
      if (o.inject != "skip" && o.inject != "flip" && o.inject != "crash")
        usage_error("--inject takes 'skip', 'flip' or 'crash'");
    } else if (a == "--dump") {
      o.dump = true;
    } else if (a == "--reference-only") {
      o.reference_only = true;
    } else if (a == "--quiet") {
      o.quiet = true;
    } else if (a == "--list") {
      o.list = true;
    } else if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else {
      usage_error("unknown option '" + a + "'");
    }
  }
  if (o.dump && o.only_trial < 0) usage_error("--dump needs --trial");
  if (o.rows.empty()) o.rows.push_back("all");
  return o;
}

std::string handler_of(const decode_row& r) {
  std::string h = r.road;
  if (!h.empty() && h.back() == '+') h.pop_back();
  return h;
}

bool name_matches(const std::string& name, const decode_row& r) {
  return name == "all" || glob_match(name.c_str(), r.adapter) || glob_match(name.c_str(), handler_of(r).c_str()) ||
         glob_match(name.c_str(), decode_maps[r.map].name);
}

std::vector<unsigned> select_rows(const options& o) {
  std::vector<bool> chosen(kDecodeRows, false);
  for (const auto& name : o.rows) {
    bool any = false;
    for (unsigned i = 0; i < kDecodeRows; ++i)
      if (name_matches(name, decode_rows[i])) chosen[i] = any = true;
    if (!any)
      usage_error("no row is called '" + name +
                  "'; --rows accepts 'all', adapter names (VecU8AddVVM), handler names (sve_add_zpz), map names "
                  "(decode_map__31_13) and globs of these; --list prints every name");
  }
  std::vector<unsigned> out;
  for (unsigned i = 0; i < kDecodeRows; ++i)
    if (chosen[i]) out.push_back(i);
  return out;
}

struct row_result {
  unsigned trials = 0, compared = 0, agreed = 0, exempted = 0, differed = 0;
  unsigned reserved = 0, ref_faulted = 0, fault_trials = 0;
  unsigned stray_faults = 0;  // reference faults in trials that kept to the scratch area
  std::string status;
};

// Self-test: an adapter that reads the unmapped page after the scratch area.
const volatile char* crash_address = nullptr;
aarch64_decode_rc crashing_adapter(cpu_state* cs, unsigned int) {
  cs->x[0] = static_cast<uint64_t>(*crash_address);
  return AARCH64_DECODE_OK;
}

// Self-test: one bit of the emulated result, chosen by the trial, turned over.
void flip_one_bit(rng& g, cpu_state& s, unsigned char* mem, size_t mem_size) {
  switch (g.below(mem ? 9 : 8)) {
    case 0: s.x[g.below(31)] ^= uint64_t(1) << g.below(64); break;
    case 1: s.sp ^= uint64_t(1) << g.below(64); break;
    case 2: s.nzcv ^= uint64_t(1) << (28 + g.below(4)); break;
    case 3: s.fpsr ^= 1u << g.below(32); break;
    case 4: s.fpcr ^= 1u << g.below(32); break;
    case 5: s.z[g.below(32)][g.below(kVecBytes)] ^= static_cast<unsigned char>(1u << g.below(8)); break;
    case 6: s.p[g.below(16)][g.below(kVecBytes)] ^= 1; break;
    case 7: s.ffr[g.below(kVecBytes)] ^= 1; break;
    default: mem[g.below(mem_size)] ^= static_cast<unsigned char>(1u << g.below(8)); break;
  }
}

void dump_state(const cpu_state& s) {
  for (unsigned i = 0; i < 31; ++i)
    std::printf("    x%-2u %016" PRIx64 "%s", i, s.x[i], i % 3 == 2 ? "\n" : "  ");
  std::printf("    sp  %016" PRIx64 "  nzcv %08" PRIx64 "  fpsr %08x  fpcr %08x\n", s.sp, s.nzcv, s.fpsr, s.fpcr);
  for (unsigned n = 0; n < 32; ++n) {
    std::printf("    z%-2u", n);
    for (unsigned k = 0; k < kVecBytes / 8; ++k) {
      uint64_t v;
      std::memcpy(&v, s.z[n] + 8 * k, 8);
      std::printf(" %016" PRIx64, v);
    }
    std::printf("   (.d lanes, lane 0 first)\n");
  }
  auto bits = [](const unsigned char* p) {
    std::string b;
    for (unsigned i = 0; i < kVecBytes; ++i) b += (i && i % 8 == 0 ? "_" : ""), b += p[i] ? '1' : '0';
    return b;
  };
  for (unsigned n = 0; n < 16; ++n) std::printf("    p%-2u %s\n", n, bits(s.p[n]).c_str());
  std::printf("    ffr %s   (lane 0 first)\n", bits(s.ffr).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  options o = parse_options(argc, argv);

  if (o.list) {
    for (unsigned i = 0; i < kDecodeRows; ++i) {
      const decode_row& r = decode_rows[i];
      std::printf("%-26s %-32s %-36s %s\n", r.adapter, handler_of(r).c_str(), decode_maps[r.map].name,
                  row_implemented(r) ? "implemented" : "pending");
    }
    return 0;
  }
  const std::vector<unsigned> rows = select_rows(o);

  std::vector<departure> departures;
  std::string error;
  if (!load_departures(o.departures, departures, error)) {
    std::fprintf(stderr, "quern-oracle: %s\n", error.c_str());
    return 2;
  }
  if (!o.seed_given) o.seed = (uint64_t(std::random_device{}()) << 32) ^ std::random_device{}();

  scratch_area scratch;
  if (!runner_init(scratch, error)) {
    std::fprintf(stderr, "quern-oracle: %s\n", error.c_str());
    return 3;
  }
  std::printf("quern-oracle: seed %" PRIu64 ", %u trials per row, %zu rows selected, %zu departures from %s\n", o.seed,
              o.trials, rows.size(), departures.size(), o.departures.c_str());
  std::fflush(stdout);

  crash_address = reinterpret_cast<const char*>(scratch.mem + scratch.size);
  std::vector<unsigned char> mem_init(scratch.size), mem_ref(scratch.size);
  std::vector<unsigned> departure_hits(departures.size(), 0);
  std::vector<row_result> results(kDecodeRows);
  unsigned n_agree = 0, n_differ = 0, n_pending = 0, n_reserved_only = 0;
  unsigned long long total_stray = 0;
  unsigned long long total_compared = 0, total_reserved = 0, total_faulted = 0, total_exempted = 0;

  for (unsigned ri : rows) {
    const decode_row& r = decode_rows[ri];
    row_result& res = results[ri];
    const bool pending = !row_implemented(r);
    if (pending && !o.reference_only) {
      res.status = "pending";
      ++n_pending;
      if (!o.quiet) std::printf("%-26s %-30s pending\n", r.adapter, handler_of(r).c_str());
      continue;
    }
    row_plan plan;
    if (!plan_row(r, plan, error)) {
      std::fprintf(stderr, "quern-oracle: row %s: %s\n", r.adapter, error.c_str());
      return 3;
    }
    std::vector<int> applicable;
    for (size_t d = 0; d < departures.size(); ++d)
      if (departure_applies(departures[d], r)) applicable.push_back(static_cast<int>(d));

    unsigned shown = 0;
    const unsigned first = o.only_trial >= 0 ? static_cast<unsigned>(o.only_trial) : 0;
    const unsigned last = o.only_trial >= 0 ? first + 1 : o.trials;
    for (unsigned tn = first; tn < last; ++tn) {
      rng g = trial_rng(o.seed, r.adapter, tn);
      trial_input t;
      make_trial(r, plan, g, scratch, t, mem_init.data());
      ++res.trials;
      res.fault_trials += t.fault_trial;
      const bool with_mem = plan.memory && !plan.prefetch;
      const std::string where = std::string(r.adapter) + " (" + handler_of(r) + ") trial " + std::to_string(tn);
      char wordbuf[16];
      std::snprintf(wordbuf, sizeof wordbuf, "0x%08x", t.word);
      if (o.dump) {
        std::printf("TRIAL %s word %s%s\n  initial state:\n", where.c_str(), wordbuf,
                    t.fault_trial ? " (accesses placed on the unmapped page)" : "");
        dump_state(t.state);
        if (with_mem)
          std::printf("    scratch memory at %p, %zu bytes\n", static_cast<void*>(scratch.mem), scratch.size);
      }

      // Reference.
      if (with_mem) std::memcpy(scratch.mem, mem_init.data(), scratch.size);
      cpu_state ref;
      int signo = 0;
      const outcome ro = run_reference(t.word, t.state, ref, signo);
      if (ro == outcome::reserved) {
        ++res.reserved;
        if (o.dump) std::printf("  reserved: the reference raised SIGILL\n");
        continue;
      }
      if (ro != outcome::ok) {
        ++res.ref_faulted;
        res.stray_faults += !t.fault_trial;
        if (o.dump) std::printf("  the reference faulted (signal %d)\n", signo);
        continue;
      }
      if (pending) continue;
      if (with_mem) std::memcpy(mem_ref.data(), scratch.mem, scratch.size);

      // Emulated.
      if (with_mem) std::memcpy(scratch.mem, mem_init.data(), scratch.size);
      cpu_state emu = t.state;
      emu.encoding = 0;
      std::vector<std::string> problems;  // failures that no departure can excuse
      int emu_signal = 0;
      const decode_row* found = find_decode_row(t.word);
      const sve_handler_fn fn = get_sve_handler(t.word);
      if (o.inject == "skip") {
        // the emulated state stays the initial one
      } else if (found != &r || fn != r.fn) {
        problems.push_back(std::string("the word decodes to ") + (found ? found->adapter : "nothing") +
                           ", not to its own row");
      } else {
        int rc = 0;
        const outcome eo = run_emulated(o.inject == "crash" ? crashing_adapter : fn, t.word, emu, rc, signo);
        if (eo == outcome::crashed)
          emu_signal = signo;
        else if (eo == outcome::timed_out)
          problems.push_back("the emulator did not return within 20 seconds");
        else if (rc != 0)
          problems.push_back("the adapter returned " + std::to_string(rc));
      }
      ++res.compared;
      if (o.inject == "flip" && problems.empty() && !emu_signal)
        flip_one_bit(g, emu, with_mem ? scratch.mem : nullptr, scratch.size);

      std::vector<difference> diffs;
      if (problems.empty()) {
        trial_view v;
        v.word = t.word;
        v.emu_signal = emu_signal;
        v.fault_trial = t.fault_trial;
        v.initial = &t.state;
        v.ref = &ref;
        v.emu = &emu;
        if (with_mem) {
          v.ref_mem = mem_ref.data();
          v.emu_mem = scratch.mem;
          v.mem_size = scratch.size;
        }
        diffs = compare_trial(v, departures, applicable);
      }
      bool real = !problems.empty(), exempt = false;
      for (const auto& d : diffs) {
        if (d.exempted_by < 0) real = true;
        else exempt = true;
      }
      if (real) {
        ++res.differed;
      } else if (exempt) {
        ++res.exempted;
        ++res.agreed;
        for (const auto& d : diffs) ++departure_hits[static_cast<size_t>(d.exempted_by)];
      } else {
        ++res.agreed;
      }

      if ((real && shown < o.show) || (o.only_trial >= 0 && (real || exempt))) {
        ++shown;
        std::printf("DIFF %s word %s%s\n", where.c_str(), wordbuf,
                    t.fault_trial ? " (accesses placed on the unmapped page)" : "");
        std::printf("  reproduce: quern-oracle --rows %s --seed %" PRIu64 " --trial %u --dump\n", r.adapter, o.seed,
                    tn);
        std::printf("  decode:    quern decode %s\n", wordbuf);
        for (const auto& p : problems) std::printf("  %s\n", p.c_str());
        for (const auto& d : diffs) {
          if (d.exempted_by < 0) {
            std::printf("  %-6s %s\n", d.where.c_str(), d.detail.c_str());
          } else {
            const departure& dep = departures[static_cast<size_t>(d.exempted_by)];
            std::printf("  %-6s exempted (%s:%d, %s): %s\n", d.where.c_str(), o.departures.c_str(), dep.line,
                        dep.reason.c_str(), d.detail.c_str());
          }
        }
      }
    }

    if (res.stray_faults)
      std::printf("WARNING %s: %u reference faults in trials whose accesses were meant to stay in the scratch "
                  "area: the oracle's address bounds are wrong for this row\n",
                  r.adapter, res.stray_faults);
    total_stray += res.stray_faults;
    if (pending) {
      res.status = "pending";
      ++n_pending;
      if (!o.quiet || res.stray_faults)
        std::printf("%-26s %-30s %-22s trials %u: reserved %u, reference-faulted %u, %u ran into the unmapped page\n",
                    r.adapter, handler_of(r).c_str(), "pending (reference)", res.trials, res.reserved,
                    res.ref_faulted, res.fault_trials);
      continue;
    }
    total_compared += res.compared;
    total_reserved += res.reserved;
    total_faulted += res.ref_faulted;
    total_exempted += res.exempted;
    std::string status;
    if (res.differed) {
      status = "differ";
      ++n_differ;
    } else if (res.compared == 0) {
      status = "reserved-only";
      ++n_reserved_only;
    } else {
      status = res.exempted ? "agree (" + std::to_string(res.exempted) + " exempted)" : "agree";
      ++n_agree;
    }
    res.status = status;
    if (!o.quiet || res.differed) {
      std::string counts = "trials " + std::to_string(res.trials) + ": compared " + std::to_string(res.compared);
      if (res.differed) counts += ", differ " + std::to_string(res.differed);
      if (res.reserved) counts += ", reserved " + std::to_string(res.reserved);
      if (res.ref_faulted) counts += ", reference-faulted " + std::to_string(res.ref_faulted);
      if (res.fault_trials) counts += ", " + std::to_string(res.fault_trials) + " ran into the unmapped page";
      std::printf("%-26s %-30s %-22s %s\n", r.adapter, handler_of(r).c_str(), status.c_str(), counts.c_str());
    }
    std::fflush(stdout);
  }

  if (!o.report.empty()) {
    FILE* f = std::fopen(o.report.c_str(), "w");
    if (!f) {
      std::fprintf(stderr, "quern-oracle: cannot write %s\n", o.report.c_str());
      return 3;
    }
    std::fprintf(f, "# seed %" PRIu64 "\n", o.seed);
    std::fprintf(f, "adapter\thandler\tmap\tstatus\ttrials\tcompared\tagree\texempted\tdiffer\treserved\t"
                    "reference_faulted\n");
    for (unsigned ri : rows) {
      const decode_row& r = decode_rows[ri];
      const row_result& res = results[ri];
      std::fprintf(f, "%s\t%s\t%s\t%s\t%u\t%u\t%u\t%u\t%u\t%u\t%u\n", r.adapter, handler_of(r).c_str(),
                   decode_maps[r.map].name, res.status.compare(0, 5, "agree") == 0 ? "agree" : res.status.c_str(),
                   res.trials, res.compared, res.agreed, res.exempted, res.differed, res.reserved, res.ref_faulted);
    }
    std::fclose(f);
  }

  std::printf("\nseed %" PRIu64 ": %llu trials compared, %llu reserved, %llu reference-faulted, %llu agreed only "
              "through departures; %u rows reserved-only\n",
              o.seed, total_compared, total_reserved, total_faulted, total_exempted, n_reserved_only);
  for (size_t d = 0; d < departures.size(); ++d)
    if (departure_hits[d])
      std::printf("  departure %s:%d exempted %u differences: %s\n", o.departures.c_str(), departures[d].line,
                  departure_hits[d], departures[d].reason.c_str());
  if (total_stray)
    std::printf("%llu reference faults outside the trials placed on the unmapped page (see WARNING lines)\n",
                total_stray);
  std::printf("%u agree, %u differ, %u pending\n", n_agree, n_differ, n_pending);
  return n_differ || total_stray ? 1 : 0;
}
