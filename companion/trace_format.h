// The memory trace file, as libquern_sg_sve_utils writes it and `quern trace`
// reads it.
//
//   offset 0    trace_file_header (112 bytes)
//   offset 112  sve_mem_ref_t records, 56 bytes each, in the order their slots
//               were reserved (which is not quite the order of their counts:
//               two threads may reserve in one order and count in the other)
//
// Everything is little-endian, as both builds are. The header is exactly two
// record slots long, so slot k of the file (header included) starts at k * 56:
// the writer maps the file in windows that are whole multiples of 56 bytes and
// of the page size, and no record ever straddles two windows.
//
// A slot whose `count` is 0 holds no record: either it was reserved and never
// written (the program died first, or the file was never truncated), or the
// writer was interrupted between the body and the count, which it stores last.
// Real records never carry count 0, since incr_count() starts at 1. Zero slots
// after the last record are the unused rest of the file's last window; zero
// slots before it are holes, which readers skip and report.
#pragma once

#include <cstdint>

#include "sve/memory/sve_mem_ref.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the trace file is little-endian, read and written in place");

constexpr char kTraceMagic[8] = {'Q', 'U', 'E', 'R', 'N', 'T', 'R', 'C'};
constexpr uint32_t kTraceVersion = 1;
constexpr uint32_t kTraceRecordSize = sizeof(sve_mem_ref_t);
constexpr uint32_t kTraceHeaderSlots = 2;
constexpr uint32_t kTraceHeaderSize = kTraceHeaderSlots * kTraceRecordSize;
constexpr unsigned kTraceAppNameSize = 88;

struct trace_file_header {
  char magic[8];                     // kTraceMagic, no terminator
  uint32_t version;                  // kTraceVersion
  uint32_t record_size;              // kTraceRecordSize
  uint32_t header_size;              // kTraceHeaderSize
  int32_t pid;                       // the process that wrote the file
  char app_name[kTraceAppNameSize];  // base name of the traced program, NUL-padded
};

static_assert(sizeof(trace_file_header) == kTraceHeaderSize, "trace header layout");
static_assert(kTraceRecordSize == 56, "trace record layout");
