// The record of one traced memory access, and the operations of the two
// companion libraries that receive it: the trace sink (libquern_sg_sve_utils)
// and the address translator (libquern_sve_vadr2padr).
#pragma once

#include <cstddef>
#include <cstdint>

enum memaccess_type_t : int32_t {
  MEMACCESS_STORE = 0,
  MEMACCESS_LOAD = 1,
};

// Field order and widths are the trace file's record layout.
struct sve_mem_ref_t {
  uint64_t count;           // incr_count() for this record
  int32_t tid;              // low 32 bits of pthread_self(); -1 / -2 in a start / stop marker
  int32_t position;         // 3 first record of an instruction, 2 the others, +4 on the last
  memaccess_type_t access;  // 1 load, 0 store
  uint64_t size;            // element size in memory, bytes
  uint64_t vaddr;
  uint64_t paddr;           // virtual2physical(vaddr)
  uint64_t pc;              // address of the emulated instruction
};

static_assert(sizeof(sve_mem_ref_t) == 56, "trace record layout");
static_assert(offsetof(sve_mem_ref_t, size) == 24, "trace record layout");

// The framework's file handle type: a file descriptor.
using file_t = int;

// ---- libquern_sg_sve_utils -------------------------------------------------
// Opens the sink; `options` is unused (null), `app_name` names the trace file
// unless QUERN_TRACE_FILE gives a path. False if the sink cannot be opened.
bool sve_init(const char* options, const char* app_name);
// Closes the sink. Records accepted before are all in the file.
void sve_exit();
// Takes a copy of the record. Safe from any thread and from a signal handler.
void trace_mem(const sve_mem_ref_t& ref);
// A process-wide running count, from 1.
uint64_t incr_count();
// Where the client's assertion messages go.
extern file_t our_stderr;

// ---- libquern_sve_vadr2padr --------------------------------------------------
// The physical address behind `vaddr` when the process may know it, else `vaddr`.
uint64_t virtual2physical(uint64_t vaddr);
