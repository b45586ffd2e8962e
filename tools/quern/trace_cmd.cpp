// quern trace dump FILE    every record, as CSV
// quern trace stats FILE   what the trace touched, in a few numbers
#include "tools/quern/trace_cmd.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "companion/trace_reader.h"

namespace {

const char kTraceUsage[] =
    "usage: quern trace dump FILE    the records of a memory trace, as CSV\n"
    "       quern trace stats FILE   a summary of a memory trace\n";

constexpr int32_t kStartMarkerTid = -1;
constexpr int32_t kStopMarkerTid = -2;
constexpr size_t kTopPcs = 20;

int usage_error(const std::string& what) {
  fprintf(stderr, "quern: %s\n%s", what.c_str(), kTraceUsage);
  return 2;
}

int file_error(const char* path, const std::string& what) {
  fprintf(stderr, "quern: %s: %s\n", path, what.c_str());
  return 1;
}

void report_holes(const char* path, const trace_scan_info& info) {
  if (info.holes)
    fprintf(stderr, "quern: %s: skipped %" PRIu64 " empty slot(s) before the last record (records never completed)\n",
            path, info.holes);
  // A trace closed by its program is cut to its last record; unused slots
  // after it mean the program ended without closing it (killed, or crashed).
  if (info.unused_tail || info.partial_tail_bytes)
    fprintf(stderr, "quern: %s: trace cut short: the program did not close it (killed?); %" PRIu64
            " record(s) read\n", path, info.records);
}

int dump(const char* path) {
  // The header line goes out only once the file is known to be a trace, so
  // that a bad file gives an error and no output.
  bool started = false;
  trace_scan_info info;
  std::string error;
  const bool ok = trace_scan(path, info, error, [&](const sve_mem_ref_t& r) {
    if (!started) {
      puts("count,tid,position,access,size,vaddr,paddr,pc");
      started = true;
    }
    printf("%" PRIu64 ",%" PRId32 ",%" PRId32 ",%" PRId32 ",%" PRIu64 ",0x%" PRIx64 ",0x%" PRIx64 ",0x%" PRIx64 "\n",
           r.count, r.tid, r.position, static_cast<int32_t>(r.access), r.size, r.vaddr, r.paddr, r.pc);
  });
  if (!ok) return file_error(path, error);
  if (!started) puts("count,tid,position,access,size,vaddr,paddr,pc");
  report_holes(path, info);
  return 0;
}

// The units of `unit_bits` bits that the element [vaddr, vaddr + size) covers.
// Elements are at most 8 bytes; a larger size is counted as one page, so that
// a corrupt size cannot make this loop for ever.
void add_units(std::unordered_set<uint64_t>& seen, uint64_t vaddr, uint64_t size, unsigned unit_bits) {
  const uint64_t span = size == 0 ? 1 : std::min<uint64_t>(size, 4096);
  const uint64_t last = vaddr > UINT64_MAX - (span - 1) ? UINT64_MAX : vaddr + (span - 1);
  for (uint64_t u = vaddr >> unit_bits; u <= (last >> unit_bits); ++u) seen.insert(u);
}

int stats(const char* path) {
  uint64_t loads = 0, stores = 0, starts = 0, stops = 0;
  std::unordered_map<uint64_t, uint64_t> per_pc;
  std::unordered_set<uint64_t> lines, pages;
  std::set<int32_t> threads;
  trace_scan_info info;
  std::string error;
  const bool ok = trace_scan(path, info, error, [&](const sve_mem_ref_t& r) {
    if (r.tid == kStartMarkerTid) {
      ++starts;
      return;
    }
    if (r.tid == kStopMarkerTid) {
      ++stops;
      return;
    }
    if (r.access == MEMACCESS_LOAD)
      ++loads;
    else
      ++stores;
    ++per_pc[r.pc];
    threads.insert(r.tid);
    add_units(lines, r.vaddr, r.size, 6);
    add_units(pages, r.vaddr, r.size, 12);
  });
  if (!ok) return file_error(path, error);

  const trace_file_header& h = info.header;
  const std::string app(h.app_name, strnlen(h.app_name, sizeof h.app_name));
  printf("program: %s (pid %" PRId32 ")\n", app.c_str(), h.pid);
  printf("records: %" PRIu64 "\n", info.records);
  printf("loads: %" PRIu64 "\n", loads);
  printf("stores: %" PRIu64 "\n", stores);
  printf("start markers: %" PRIu64 "\n", starts);
  printf("stop markers: %" PRIu64 "\n", stops);
  printf("empty slots skipped: %" PRIu64 "\n", info.holes);
  printf("unused slots at end: %" PRIu64 "\n", info.unused_tail);
  printf("threads: %zu\n", threads.size());
  printf("distinct 64-byte lines: %zu\n", lines.size());
  printf("distinct 4 KiB pages: %zu\n", pages.size());
  printf("distinct pcs: %zu\n", per_pc.size());

  std::vector<std::pair<uint64_t, uint64_t>> ranked(per_pc.begin(), per_pc.end());  // pc, records
  std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  if (ranked.size() > kTopPcs) ranked.resize(kTopPcs);
  if (!ranked.empty()) printf("records per pc (top %zu):\n", ranked.size());
  for (const auto& [pc, n] : ranked) printf("  0x%" PRIx64 " %" PRIu64 "\n", pc, n);
  report_holes(path, info);
  return 0;
}

}  // namespace

int trace_main(int argc, char** argv) {
  if (argc < 2) return usage_error("no trace command given");
  const std::string cmd = argv[1];
  if (cmd == "-h" || cmd == "--help" || cmd == "help") {
    fputs(kTraceUsage, stdout);
    return 0;
  }
  if (cmd != "dump" && cmd != "stats") return usage_error("unknown trace command: " + cmd);
  if (argc < 3) return usage_error("trace " + cmd + ": no FILE given");
  if (argc > 3) return usage_error("trace " + cmd + " takes one FILE");
  if (argv[2][0] == '-' && argv[2][1] != '\0') return usage_error(std::string("unknown option: ") + argv[2]);
  return cmd == "dump" ? dump(argv[2]) : stats(argv[2]);
}
