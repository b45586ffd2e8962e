// The guarded reads, the plain writes and the empty simulator hooks.
#include "sve/memory/mem_lib.h"

#include <cstring>

#include "sve/client/sve_fault.h"

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

// With a fault flag, the guarded read of sve_fault.h: a fault sets the flag
// and reads 0.
template <typename T>
inline T read_lib(unsigned long addr, bool* fault) {
  if (!fault) return plain_load<T>(addr);
  T v;
  if (guarded_load<T>(reinterpret_cast<const void*>(addr), v)) return v;
  *fault = true;
  return 0;
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
