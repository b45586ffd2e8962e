// The memory trace: the region of interest that the program marks, and the
// report of gather and scatter accesses inside it.
#pragma once

#include <cstdint>

#include "sve/dispatch/cpu_state.h"
#include "sve/memory/sve_mem_ref.h"

// Per thread, zero at thread start: tracing on or off, and the record of the
// region markers (only `count` and `tid` are ever written).
extern thread_local unsigned char enable_trace;
extern thread_local sve_mem_ref_t trace_roi;

// The markers: start (tid -1) turns tracing on for this thread, stop (tid -2)
// turns it off; each hands one record to the sink, after the flag changed.
void trace_region_start();
void trace_region_stop();

// Reports the active lanes of a gather or scatter. T is the memory element
// (its size is the record's `size`), I the lane width (int: 12 lanes, long: 6).
// `addr` is indexed by lane; `pred` points at the governing predicate in cpu_state.
template <typename T, typename I>
void memtrace_gs(cpu_state* cs, T** addr, char* pred, memaccess_type_t access);
