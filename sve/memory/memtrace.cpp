#include "sve/memory/memtrace.h"

#include <pthread.h>

#include "sve/dispatch/call_out.h"

thread_local unsigned char enable_trace;
thread_local sve_mem_ref_t trace_roi;

// The sink is a companion library: every call into it goes through call_out.
namespace {
void mark_region(int32_t tid) {
  call_out([tid] {
    trace_roi.count = incr_count();
    trace_roi.tid = tid;
    trace_mem(trace_roi);
  });
}
}  // namespace

void trace_region_start() {
  enable_trace = 1;
  mark_region(-1);
}

void trace_region_stop() {
  enable_trace = 0;
  mark_region(-2);
}

template <typename T, typename I>
void memtrace_gs(cpu_state* cs, T** addr, char* pred, memaccess_type_t access) {
  if (!enable_trace) return;
  constexpr unsigned kLanes = kVecBytes / sizeof(I);
  unsigned active[kLanes];
  unsigned n = 0;
  for (unsigned i = 0; i < kLanes; ++i)
    if (pred[i * sizeof(I)] & 1) active[n++] = i;
  if (n == 0) return;   // no count is taken for an empty access
  call_out([&] {
    const int32_t tid = static_cast<int32_t>(pthread_self());
    sve_mem_ref_t ref{};
    for (unsigned k = 0; k < n; ++k) {
      ref.position = (k == 0 ? 3 : 2) + (k == n - 1 ? 4 : 0);
      ref.count = incr_count();
      ref.tid = tid;
      ref.access = access;
      ref.size = sizeof(T);
      ref.vaddr = reinterpret_cast<uint64_t>(addr[active[k]]);
      ref.paddr = virtual2physical(ref.vaddr);
      ref.pc = reinterpret_cast<uint64_t>(cs->pc);
      trace_mem(ref);
    }
  });
}

#define QUERN_MEMTRACE(T, I) template void memtrace_gs<T, I>(cpu_state*, T**, char*, memaccess_type_t);
QUERN_MEMTRACE(signed char, int)
QUERN_MEMTRACE(unsigned char, int)
QUERN_MEMTRACE(short, int)
QUERN_MEMTRACE(unsigned short, int)
QUERN_MEMTRACE(int, int)
QUERN_MEMTRACE(unsigned int, int)
QUERN_MEMTRACE(signed char, long)
QUERN_MEMTRACE(unsigned char, long)
QUERN_MEMTRACE(short, long)
QUERN_MEMTRACE(unsigned short, long)
QUERN_MEMTRACE(int, long)
QUERN_MEMTRACE(unsigned int, long)
QUERN_MEMTRACE(long, long)
QUERN_MEMTRACE(unsigned long, long)
#undef QUERN_MEMTRACE
