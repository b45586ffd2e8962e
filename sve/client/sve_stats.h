// quern run --stats: how many SVE words each thread emulated, row by row, and
// the report of the whole process at exit.
//
// Each thread counts into a block of its own (no atomics on the path of an
// emulated word); the blocks stay on a process-wide list for the report, so
// that threads still running at exit and threads long gone are both in it. A
// thread that ends gives its block back for the next thread to continue
// counting in, so the list grows only with the number of threads alive at once.
#pragma once

#include <atomic>
#include <cstdint>

#include "framework/dr_api.h"
#include "sve/dispatch/decode.h"

// The row index that counted code gives an ordinary instruction a run carries.
constexpr uint64_t kCarriedRow = kDecodeRows;

struct thread_stats {
  uint64_t rows[kDecodeRows];   // words emulated, by decode row
  uint64_t carried;             // ordinary instructions carried out inside runs
  uint64_t failed;              // emulations whose handler did not succeed
  std::atomic<bool> in_use;
  thread_stats* next;
};

// Where the report goes, from QUERN_STATS ("-": standard error, else a file
// that the report is appended to); false if counting is off.
bool stats_init(const char* destination);
// A block for the calling thread, or null if none can be had (that thread then
// runs uncounted rather than not at all).
thread_stats* stats_thread_start();
void stats_thread_end(thread_stats* s);
// In a forked child: only the calling thread remains, counting from zero.
void stats_after_fork(thread_stats* self);
// Sums every block and writes the report.
void stats_report(const dr_block_counts_t& blocks);
