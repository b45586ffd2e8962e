// The guarded reads, the plain writes and the empty simulator hooks.
#include "sve/memory/mem_lib.h"

#include <setjmp.h>

#include <cstring>

#include "sve/client/sve_fault.h"
#include "sve/dispatch/call_out.h"

namespace {

template <typename T>
inline T plain_load(unsigned long addr) {
  T v;
  std::memcpy(&v, reinterpret_cast<const void*>(addr), sizeof v);
  return v;
}

template <typename T>
inline void plain_store(T v, unsigned long addr) {
  std::memcpy(reinterpret_cast<void*>(addr), &v, sizeof v);
}

// The guard probes the first and the last byte of the element inside the
// region, so an element that straddles into an unmapped page is caught by its
// far end; the real load follows outside the region. The jump buffer is set in
// this frame, which stays live for the whole region. The probes may touch
// memory the host does not own, which is their purpose: keep them out of the
// sanitizer's view. sigsetjmp and siglongjmp are the C library's, so the
// whole read goes through call_out.
template <typename T>
__attribute__((no_sanitize_address, noinline)) T guarded_read_here(unsigned long addr, bool* fault) {
  if (sigsetjmp(sveFaultJB, 1) != 0) {
    *fault = true;
    return 0;
  }
  SVEFaultRegion = 1;
  (void)*reinterpret_cast<const volatile char*>(addr);
  (void)*reinterpret_cast<const volatile char*>(addr + sizeof(T) - 1);
  SVEFaultRegion = 0;
  return plain_load<T>(addr);
}

template <typename T>
T guarded_read(unsigned long addr, bool* fault) {
  T v = 0;
  call_out([&] { v = guarded_read_here<T>(addr, fault); });
  return v;
}

template <typename T>
inline T read_lib(unsigned long addr, bool* fault) {
  return fault ? guarded_read<T>(addr, fault) : plain_load<T>(addr);
}

}  // namespace

unsigned char ReadMemLib1(unsigned long addr, int, bool* fault, CpuContext*) { return read_lib<unsigned char>(addr, fault); }
unsigned short ReadMemLib2(unsigned long addr, int, bool* fault, CpuContext*) { return read_lib<unsigned short>(addr, fault); }
unsigned int ReadMemLib4(unsigned long addr, int, bool* fault, CpuContext*) { return read_lib<unsigned int>(addr, fault); }
unsigned long ReadMemLib8(unsigned long addr, int, bool* fault, CpuContext*) { return read_lib<unsigned long>(addr, fault); }

void WriteMemLib1(unsigned char value, unsigned long addr, CpuContext*) { plain_store(value, addr); }
void WriteMemLib2(unsigned short value, unsigned long addr, CpuContext*) { plain_store(value, addr); }
void WriteMemLib4(unsigned int value, unsigned long addr, CpuContext*) { plain_store(value, addr); }
void WriteMemLib8(unsigned long value, unsigned long addr, CpuContext*) { plain_store(value, addr); }

unsigned long ReadMem(unsigned long, int, int, bool* fault, CpuContext*) {
  *fault = false;
  return 0;
}
unsigned long ReadMemSim(unsigned long, int, int, bool* fault, bool, CpuContext*) {
  *fault = false;
  return 0;
}
void WriteMem(unsigned long, unsigned long, int, CpuContext*) {}
void WriteMemSim(unsigned long, unsigned long, int, bool, CpuContext*) {}
