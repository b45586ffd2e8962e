// The --stats counters and their report. See sve_stats.h.
#include "sve/client/sve_stats.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "row_mnemonics.inc"

namespace {

std::atomic<thread_stats*> all_blocks{nullptr};
char destination_path[4096];
bool to_stderr;

enum road_kind { kFast, kGeneric, kNoop, kRoadKinds };
const char* const kRoadNames[kRoadKinds] = {"fast", "generic", "no-op"};

road_kind road_of(const decode_row& r) {
  return r.road[0] == 'N' ? kNoop : r.road[0] == 'G' ? kGeneric : kFast;
}

// The report is made in one buffer and written at once, without stdio: exit
// may come from _exit, in any state of the program.
struct report_buffer {
  char text[1 << 16];
  size_t used;
  void add(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(text + used, sizeof text - used, fmt, ap);
    va_end(ap);
    if (n > 0) used = std::min(sizeof text - 1, used + static_cast<size_t>(n));
  }
};

struct mnemonic_count {
  const char* mnemonic;
  road_kind road;
  uint64_t count;
};

}  // namespace

bool stats_init(const char* destination) {
  if (!destination || !*destination) return false;
  static_assert(sizeof kRowMnemonics / sizeof kRowMnemonics[0] == kDecodeRows, "a mnemonic for every row");
  for (unsigned i = 0; i < kDecodeRows; ++i)
    if (strcmp(kRowMnemonics[i].adapter, decode_rows[i].adapter) != 0) {
      dr_fprintf(2, "quern: the mnemonics were generated for another decode table (row %u); rebuild\n", i);
      return false;
    }
  to_stderr = strcmp(destination, "-") == 0;
  snprintf(destination_path, sizeof destination_path, "%s", destination);
  return true;
}

thread_stats* stats_thread_start() {
  for (thread_stats* s = all_blocks.load(std::memory_order_acquire); s; s = s->next) {
    bool free_block = false;
    if (s->in_use.compare_exchange_strong(free_block, true)) return s;
  }
  auto* s = static_cast<thread_stats*>(dr_global_alloc(sizeof(thread_stats)));   // cleared
  if (!s) return nullptr;
  s->in_use.store(true);
  s->next = all_blocks.load();
  while (!all_blocks.compare_exchange_weak(s->next, s)) {
  }
  return s;
}

void stats_thread_end(thread_stats* s) {
  if (s) s->in_use.store(false, std::memory_order_release);
}

void stats_after_fork(thread_stats* self) {
  for (thread_stats* s = all_blocks.load(); s; s = s->next) {
    std::memset(s->rows, 0, sizeof s->rows);
    s->carried = s->failed = 0;
    s->in_use.store(s == self);
  }
}

void stats_report(const dr_block_counts_t& blocks) {
  static uint64_t rows[kDecodeRows];
  uint64_t failed = 0, carried = 0, by_road[kRoadKinds] = {};
  std::memset(rows, 0, sizeof rows);
  for (thread_stats* s = all_blocks.load(std::memory_order_acquire); s; s = s->next) {
    for (unsigned i = 0; i < kDecodeRows; ++i) rows[i] += s->rows[i];
    failed += s->failed;
    carried += s->carried;
  }
  // Rows of one mnemonic and road (the forms of an instruction) add up.
  static mnemonic_count lines[kDecodeRows];
  size_t n = 0;
  uint64_t total = 0;
  for (unsigned i = 0; i < kDecodeRows; ++i) {
    if (!rows[i]) continue;
    const road_kind road = road_of(decode_rows[i]);
    by_road[road] += rows[i];
    total += rows[i];
    size_t k = 0;
    while (k < n && !(lines[k].road == road && strcmp(lines[k].mnemonic, kRowMnemonics[i].mnemonic) == 0)) ++k;
    if (k == n) lines[n++] = {kRowMnemonics[i].mnemonic, road, 0};
    lines[k].count += rows[i];
  }
  std::sort(lines, lines + n, [](const mnemonic_count& a, const mnemonic_count& b) {
    if (a.count != b.count) return a.count > b.count;
    const int c = strcmp(a.mnemonic, b.mnemonic);
    return c != 0 ? c < 0 : a.road < b.road;
  });

  static report_buffer out;
  out.used = 0;
  out.add("quern stats: %s (pid %d)\n", dr_get_application_name(), static_cast<int>(getpid()));
  out.add("  SVE instructions emulated  %llu (fast %llu, generic %llu, no-op %llu)\n",
          static_cast<unsigned long long>(total), static_cast<unsigned long long>(by_road[kFast]),
          static_cast<unsigned long long>(by_road[kGeneric]), static_cast<unsigned long long>(by_road[kNoop]));
  out.add("  emulations failed          %llu\n", static_cast<unsigned long long>(failed));
  out.add("  other instructions carried %llu (ordinary instructions inside runs of SVE words)\n",
          static_cast<unsigned long long>(carried));
  out.add("  blocks rewritten           %llu\n", static_cast<unsigned long long>(blocks.rewritten));
  out.add("  blocks interpreted         %llu (executions from the signal context)\n",
          static_cast<unsigned long long>(blocks.interpreted));
  if (n) out.add("  %14s  %6s  %-10s %s\n", "count", "share", "mnemonic", "road");
  for (size_t k = 0; k < n; ++k)
    out.add("  %14llu  %5.1f%%  %-10s %s\n", static_cast<unsigned long long>(lines[k].count),
            100.0 * static_cast<double>(lines[k].count) / static_cast<double>(total), lines[k].mnemonic,
            kRoadNames[lines[k].road]);

  const int fd = to_stderr ? 2 : open(destination_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    dr_fprintf(2, "quern: cannot write the statistics to %s: %s\n", destination_path, strerror(errno));
    return;
  }
  for (size_t at = 0; at < out.used;) {
    const ssize_t w = write(fd, out.text + at, out.used - at);
    if (w <= 0) break;
    at += static_cast<size_t>(w);
  }
  if (!to_stderr) close(fd);
}
