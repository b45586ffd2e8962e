// Reading a memory trace file: shared by `quern trace` and the tests, so that
// what the tests accept is what the tool accepts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "companion/trace_format.h"

struct trace_scan_info {
  trace_file_header header;
  uint64_t file_size;
  uint64_t slots;               // whole record slots after the header
  uint64_t records;             // records handed out (slots with a count)
  uint64_t holes;               // empty slots before the last record: skipped
  uint64_t unused_tail;         // empty slots after the last record
  uint64_t partial_tail_bytes;  // zero bytes after the last whole slot
};

// Checks that `path` is a trace this reader understands, then hands each
// record to `each` in file order, skipping empty slots. False with `error` set
// to a one-line description (without the path) if it is not a readable trace.
// The checks of the file's shape all come before the first record, so `each`
// sees nothing of a malformed file; only an I/O error can stop it part-way.
bool trace_scan(const char* path, trace_scan_info& info, std::string& error,
                const std::function<void(const sve_mem_ref_t&)>& each);

struct trace_contents {
  trace_scan_info info;
  std::vector<sve_mem_ref_t> records;
};

// trace_scan into memory.
bool trace_load(const char* path, trace_contents& out, std::string& error);
