// Fault containment: the process-wide fault handler, the guarded read and the
// one-byte readability probe. See sve_fault.h for the contracts.
#include "sve/client/sve_fault.h"

#include <ucontext.h>

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "sve/dispatch/call_out.h"
#include "sve/dispatch/cpu_state.h"

static_assert(SIGSEGV == 11 && SIGBUS == 7, "unexpected signal numbers on this host");

static int SVELibInitialized = 0;

volatile int SVEFaultRegion = 0;
sigjmp_buf sveFaultJB;
thread_local unsigned char access_violation = 0;
thread_local uint64_t access_violation_addr = 0;

namespace {

using SigAction3 = void (*)(int, siginfo_t*, void*);

// An action with our flags and an empty mask; a null handler means SIG_DFL.
struct sigaction make_action(SigAction3 handler) {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  if (handler)
    sa.sa_sigaction = handler;
  else
    sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = kSveSigFlags;
  return sa;
}

}  // namespace

int SVEInitialize() {
  if (SVELibInitialized) return SVELibInitialized;

  cpu_ctxt.vl = 2;
  ctxt = &cpu_ctxt;

  struct sigaction sa = make_action(SVESigHandler);
  sigaction(SIGSEGV, &sa, nullptr);
  sigaction(SIGBUS, &sa, nullptr);

  SVELibInitialized = 1;
  return 1;
}

void SVESigHandler(int signo, siginfo_t*, void*) {
  if (SVEFaultRegion) {
    SVEFaultRegion = 0;
    siglongjmp(sveFaultJB, 1);
  }

  // Not ours: hand both signals back to the default action before the
  // faulting instruction runs again, so the application dies of its own fault
  // (and a later SIGBUS after a SIGSEGV is not intercepted either).
  struct sigaction dfl = make_action(nullptr);
  sigaction(SIGSEGV, &dfl, nullptr);
  sigaction(SIGBUS, &dfl, nullptr);
  std::fprintf(stderr,
               "quern's SVESigHandler caught signal %s from the process being "
               "emulated, passing it to the default signal handler.\n",
               signo == 11 ? "SIGSEGV" : "SIGBUS");
  std::fflush(stderr);
}

// ---- guarded read ----------------------------------------------------------

namespace {

// The guard probes the first and the last byte of the element inside the
// region, so an element that straddles into an unmapped page is caught by its
// far end; the real load follows outside the region. The jump buffer is set
// in this frame, which stays live for the whole region. The probes may touch
// memory the host program does not own, which is their purpose: they are
// kept out of AddressSanitizer's view.
template <typename T>
__attribute__((no_sanitize_address, noinline)) bool guarded_load_here(const void* addr, T& out) {
  const auto* p = static_cast<const volatile char*>(addr);
  if (sigsetjmp(sveFaultJB, 1) != 0) return false;
  SVEFaultRegion = 1;
  (void)p[0];
  (void)p[sizeof(T) - 1];
  SVEFaultRegion = 0;
  std::memcpy(&out, addr, sizeof out);   // emulated elements need not be aligned
  return true;
}

}  // namespace

// sigsetjmp and siglongjmp are the C library's, so the whole read goes
// through call_out.
template <typename T>
bool guarded_load(const void* addr, T& out) {
  static_assert(std::is_same<T, uint8_t>::value || std::is_same<T, uint16_t>::value ||
                    std::is_same<T, uint32_t>::value || std::is_same<T, uint64_t>::value,
                "guarded_load reads 1, 2, 4 or 8 bytes");
  bool ok = false;
  call_out([&] { ok = guarded_load_here(addr, out); });
  return ok;
}

template bool guarded_load<uint8_t>(const void*, uint8_t&);
template bool guarded_load<uint16_t>(const void*, uint16_t&);
template bool guarded_load<uint32_t>(const void*, uint32_t&);
template bool guarded_load<uint64_t>(const void*, uint64_t&);

// ---- readability probe -----------------------------------------------------
//
// The probe's handler steps the interrupted program counter over the faulting
// load, so the load must be exactly one instruction of a known encoding. It is
// written in inline asm with pinned registers: the compiler can neither split
// it, move it, nor pick an addressing form of another length. The handler
// accepts a fault only if this thread is inside the probe, the instruction at
// the pc is the probe load, and its address register holds the probed address.

namespace {

// Set only around the probe load of this thread. Checked first by the handler,
// so that it never reads the code at a pc that may itself be bad.
thread_local volatile sig_atomic_t probe_armed = 0;

#if defined(__aarch64__)

// ldrb w0, [x1]
constexpr uint32_t kProbeInsn = 0x39400020u;
constexpr unsigned kProbeLen = 4;

inline void probe_load(const volatile char* p) {
  register const volatile char* a asm("x1") = p;
  register uint64_t v asm("x0");
  asm volatile("ldrb %w0, [%1]" : "=r"(v) : "r"(a) : "memory");
  (void)v;
}

bool is_probe_fault(const ucontext_t* uc) {
  uint32_t insn;
  std::memcpy(&insn, reinterpret_cast<const void*>(uc->uc_mcontext.pc), sizeof insn);
  return insn == kProbeInsn && uc->uc_mcontext.regs[1] == access_violation_addr;
}

void step_over_probe(ucontext_t* uc) { uc->uc_mcontext.pc += kProbeLen; }

#elif defined(__x86_64__)

// movzbl (%rdi), %eax
constexpr unsigned char kProbeInsn[] = {0x0f, 0xb6, 0x07};
constexpr unsigned kProbeLen = sizeof kProbeInsn;

inline void probe_load(const volatile char* p) {
  unsigned int v;
  asm volatile("movzbl (%1), %0" : "=a"(v) : "D"(p) : "memory");
  (void)v;
}

bool is_probe_fault(const ucontext_t* uc) {
  const unsigned char* pc =
      reinterpret_cast<const unsigned char*>(uc->uc_mcontext.gregs[REG_RIP]);
  for (unsigned i = 0; i < kProbeLen; ++i)
    if (pc[i] != kProbeInsn[i]) return false;
  return static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_RDI]) == access_violation_addr;
}

void step_over_probe(ucontext_t* uc) { uc->uc_mcontext.gregs[REG_RIP] += kProbeLen; }

#else
#error "addr_is_readable: no probe load is defined for this host architecture"
#endif

void probe_handler(int, siginfo_t*, void* uctx) {
  ucontext_t* uc = static_cast<ucontext_t*>(uctx);
  if (probe_armed && is_probe_fault(uc)) {
    access_violation = 1;
    step_over_probe(uc);
    return;
  }
  // A genuine fault (most likely of another thread, while our action is
  // installed process-wide). Do not swallow it: let it re-run into the
  // default action.
  struct sigaction dfl = make_action(nullptr);
  sigaction(SIGSEGV, &dfl, nullptr);
}

}  // namespace

template <>
bool addr_is_readable<char>(char volatile* addr) {
  call_out([addr] {
    struct sigaction sa = make_action(probe_handler);
    struct sigaction old;
    access_violation_addr = reinterpret_cast<uint64_t>(addr);
    access_violation = 0;
    sigaction(SIGSEGV, &sa, &old);
    probe_armed = 1;
    probe_load(addr);
    probe_armed = 0;
    sigaction(SIGSEGV, &old, nullptr);
  });
  return !access_violation;
}
