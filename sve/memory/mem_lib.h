// Memory primitives of the emulator. Emulated addresses are host pointers:
// there is no translation layer.
//
// The generic routines read through ReadMemLib<N> and write through
// WriteMemLib<N>. A read with a fault pointer is guarded: a SIGSEGV or SIGBUS
// during it becomes `*fault = true` and a result of 0. Only first-fault and
// non-fault loads pass one; every other read and every write is unguarded, so a
// bad address is a real fault of the program.
//
// The fast handlers use none of these: they load and store through the host
// pointer directly (see mem_fast.h).
#pragma once

#include <cstdint>

#include "sve/dispatch/cpu_state.h"


// The `hint` is 0 for a plain load or the first element of a first-fault load,
// 1 for a non-fault load or a later first-fault element. It is not looked at;
// neither is the context.
unsigned char ReadMemLib1(unsigned long addr, int hint, bool* fault, CpuContext* c);
unsigned short ReadMemLib2(unsigned long addr, int hint, bool* fault, CpuContext* c);
unsigned int ReadMemLib4(unsigned long addr, int hint, bool* fault, CpuContext* c);
unsigned long ReadMemLib8(unsigned long addr, int hint, bool* fault, CpuContext* c);

void WriteMemLib1(unsigned char value, unsigned long addr, CpuContext* c);
void WriteMemLib2(unsigned short value, unsigned long addr, CpuContext* c);
void WriteMemLib4(unsigned int value, unsigned long addr, CpuContext* c);
void WriteMemLib8(unsigned long value, unsigned long addr, CpuContext* c);

// The seam at which a memory simulator would attach. Nothing calls them and
// they touch no memory.
unsigned long ReadMem(unsigned long addr, int size, int hint, bool* fault, CpuContext* c);
unsigned long ReadMemSim(unsigned long addr, int size, int hint, bool* fault, bool sim, CpuContext* c);
void WriteMem(unsigned long value, unsigned long addr, int size, CpuContext* c);
void WriteMemSim(unsigned long value, unsigned long addr, int size, bool sim, CpuContext* c);

namespace mem {

// ReadMemLib<N> by element type, for templates over the element size.
template <typename T> T read_lib(unsigned long addr, int hint, bool* fault, CpuContext* c);
template <> inline uint8_t read_lib<uint8_t>(unsigned long a, int h, bool* f, CpuContext* c) { return ReadMemLib1(a, h, f, c); }
template <> inline uint16_t read_lib<uint16_t>(unsigned long a, int h, bool* f, CpuContext* c) { return ReadMemLib2(a, h, f, c); }
template <> inline uint32_t read_lib<uint32_t>(unsigned long a, int h, bool* f, CpuContext* c) { return ReadMemLib4(a, h, f, c); }
template <> inline uint64_t read_lib<uint64_t>(unsigned long a, int h, bool* f, CpuContext* c) { return ReadMemLib8(a, h, f, c); }

}  // namespace mem
