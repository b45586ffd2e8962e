// Fault containment for emulated memory accesses.
//
// The emulator runs inside the address space of the program it emulates, so
// an emulated load may touch memory the program does not own. First-fault and
// non-fault loads must then record the fault instead of taking it. Two means
// are provided:
//
//   * a guarded read (guarded_load): a process-wide SIGSEGV/SIGBUS handler
//     plus one jump buffer turn a fault during the read into a `false` return;
//   * a one-byte probe (addr_is_readable<char>) that swaps in its own SIGSEGV
//     handler for the length of a single load.
//
// Any other fault belongs to the application: SVESigHandler puts the default
// actions back, prints one line, and lets the faulting instruction run again
// so the process ends exactly as it would have without the emulator.
#pragma once

#include <setjmp.h>
#include <signal.h>

#include <cstdint>

// Flags of every action installed here, including the SIG_DFL resets:
// SA_SIGINFO | SA_RESTART | SA_NODEFER.
constexpr int kSveSigFlags = 0x50000004;
static_assert(kSveSigFlags == (SA_SIGINFO | SA_RESTART | SA_NODEFER),
              "signal flag values differ on this host");

// Non-zero while a guarded read is between its set-up and its load. Read and
// cleared by SVESigHandler.
extern volatile int SVEFaultRegion;

// Landing point of a fault inside a guarded read. There is exactly one for the
// whole process (see guarded_load).
extern sigjmp_buf sveFaultJB;

// Set by the probe's private handler when the probe faulted.
extern thread_local unsigned char access_violation;
// The address under test by the current/last probe. Written before the probe;
// used by the probe's handler to recognise its own fault, otherwise a
// debugging aid.
extern thread_local uint64_t access_violation_addr;

// Sets up the process-wide context (cpu_ctxt.vl = 2, ctxt = &cpu_ctxt) and
// installs SVESigHandler for SIGSEGV and SIGBUS. Returns 1; later calls return
// 1 and change nothing.
int SVEInitialize();

// Handler for SIGSEGV and SIGBUS. Inside a guarded read it clears
// SVEFaultRegion and jumps to sveFaultJB. Otherwise it resets both signals to
// their default action, prints one line to stderr and returns, so the faulting
// instruction re-executes and the default action ends the process.
void SVESigHandler(int signo, siginfo_t* info, void* uctx);

// Guarded read of one T (uint8_t, uint16_t, uint32_t or uint64_t; no alignment
// required) at addr: its first and last byte are probed inside the guarded
// region, the element is read after it. Returns true and stores the value in
// `out`, or returns false (with `out` untouched and SVEFaultRegion clear) if a
// probe raised SIGSEGV or SIGBUS. SVEInitialize must have run. The generic
// first-fault and non-fault loads reach it through ReadMemLib1..8.
//
// Concurrency: sveFaultJB and SVEFaultRegion are process-wide and unlocked.
// Two threads inside guarded_load at the same moment share one jump buffer: a
// fault in one may land in the other's frame. The exposed stretch is a few
// instructions; only first-fault and non-fault loads use this path.
template <typename T>
bool guarded_load(const void* addr, T& out);

extern template bool guarded_load<uint8_t>(const void*, uint8_t&);
extern template bool guarded_load<uint16_t>(const void*, uint16_t&);
extern template bool guarded_load<uint32_t>(const void*, uint32_t&);
extern template bool guarded_load<uint64_t>(const void*, uint64_t&);

// True if one byte at addr can be read. Only the char form exists.
//
// For the length of one load the process-wide SIGSEGV action is replaced by a
// private handler that steps over the faulting load; the previous action is
// put back before returning. A fault of another thread during that moment is
// not absorbed: it finds the default action and ends the process. SIGBUS is
// not intercepted here. Only the first byte is looked at, so a wider element
// at the end of a page is judged by its first byte alone.
template <typename T>
bool addr_is_readable(T volatile* addr);

template <>
bool addr_is_readable<char>(char volatile* addr);
