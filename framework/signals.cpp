// The program's signals, as the framework must see them.
//
// * SIGILL belongs to the framework: it is how the instructions that the client
//   emulates announce themselves.
//   The program's own SIGILL action is kept aside and honoured (handler, mask,
//   SA_RESETHAND) for words that are genuinely illegal. SIGILL is never
//   blocked, because a synchronous SIGILL that finds itself blocked ends the
//   process.
// * A handler of the program may run emulated instructions while the thread is
//   in the middle of one. On a processor that has those instructions the
//   kernel saves their registers around a handler; here each handler is entered through a trampoline
//   that does the same for the emulator's per-thread state (spill slots, the
//   parked X28, the private stack, and the record that the client asked to
//   keep with drmgr_preserve_tls_field).
#if !defined(__aarch64__)
#error "the framework runtime runs on AArch64 only"
#endif

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/runtime_state.h"
#include "framework/thread_block.h"

namespace {

struct sigaction app_actions[NSIG];   // what the program asked for, by signal

bool has_handler(const struct sigaction& a) { return a.sa_handler != SIG_DFL && a.sa_handler != SIG_IGN; }

void call_handler(const struct sigaction& a, int sig, siginfo_t* info, void* uc) {
  if (a.sa_flags & SA_SIGINFO) a.sa_sigaction(sig, info, uc);
  else a.sa_handler(sig);
}

// Runs the program's handler for `sig` with the emulator's thread state kept.
void trampoline(int sig, siginfo_t* info, void* uc) {
  const struct sigaction action = app_actions[sig];
  if (action.sa_flags & SA_RESETHAND) {
    std::memset(&app_actions[sig], 0, sizeof app_actions[sig]);
    app_actions[sig].sa_handler = SIG_DFL;
  }
  if (!has_handler(action)) return;
  quern_thread* t = current_block();
  if (!t) {
    call_handler(action, sig, info, uc);
    return;
  }
  uint64_t spill[4], app_x28 = t->app_x28, scratch = t->scratch, app_sp = t->app_sp, top = t->stack_top;
  std::memcpy(spill, t->spill, sizeof spill);
  const size_t size = rt.preserved_size;
  void* record = size ? t->tls[rt.preserved_field] : nullptr;
  alignas(16) unsigned char saved[kMaxPreservedBytes];
  if (record) std::memcpy(saved, record, size);
  // Interrupted on the private stack: nested clean calls go below this frame.
  const uint64_t sp = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  if (sp > reinterpret_cast<uint64_t>(t->stack_base) && sp <= top) t->stack_top = (sp - 512) & ~uint64_t(15);

  call_handler(action, sig, info, uc);

  std::memcpy(t->spill, spill, sizeof spill);
  t->app_x28 = app_x28;
  t->scratch = scratch;
  t->app_sp = app_sp;
  t->stack_top = top;
  if (record) std::memcpy(record, saved, size);
}

void without_sigill(sigset_t* set) {
  if (set) sigdelset(set, SIGILL);
}

}  // namespace

void deliver_sigill(int sig, siginfo_t* info, void* uc) {
  const struct sigaction app = rt.app_sigill;
  if (!has_handler(app)) {
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    rt.real_sigaction(SIGILL, &dfl, nullptr);
    // A faulting instruction runs again and ends the process; a sent signal
    // is sent again, and ends it once this handler returns.
    if (info && info->si_code <= 0) raise(SIGILL);
    return;
  }
  if (app.sa_flags & SA_RESETHAND) {
    std::memset(&rt.app_sigill, 0, sizeof rt.app_sigill);
    rt.app_sigill.sa_handler = SIG_DFL;
  }
  // As the kernel would: the handler's mask is added for its duration.
  sigset_t mask = app.sa_mask, old;
  without_sigill(&mask);
  pthread_sigmask(SIG_BLOCK, &mask, &old);
  call_handler(app, sig, info, uc);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// ---- interposed C library entry points ------------------------------------------------------

extern "C" __attribute__((visibility("default"))) int sigaction(int sig, const struct sigaction* act,
                                                                struct sigaction* old) {
  if (!rt.real_sigaction) return -1;
  if (sig == SIGILL) {
    if (old) *old = rt.app_sigill;
    if (act) rt.app_sigill = *act;
    return 0;
  }
  if (sig <= 0 || sig >= NSIG || sig == SIGKILL || sig == SIGSTOP) return rt.real_sigaction(sig, act, old);
  struct sigaction previous;
  if (rt.real_sigaction(sig, nullptr, &previous) != 0) return -1;
  const bool ours = (previous.sa_flags & SA_SIGINFO) && previous.sa_sigaction == trampoline;
  if (!act) {
    if (old) *old = ours ? app_actions[sig] : previous;
    return 0;
  }
  struct sigaction real = *act;
  without_sigill(&real.sa_mask);
  if (has_handler(*act)) {
    // The kernel resets a SA_RESETHAND action itself; the trampoline keeps
    // its copy in step.
    real.sa_sigaction = trampoline;
    real.sa_flags |= SA_SIGINFO;
  }
  const struct sigaction before = ours ? app_actions[sig] : previous;
  if (rt.real_sigaction(sig, &real, nullptr) != 0) return -1;
  app_actions[sig] = *act;
  if (old) *old = before;
  return 0;
}

extern "C" __attribute__((visibility("default"))) sighandler_t signal(int sig, sighandler_t handler) {
  struct sigaction act, old;
  std::memset(&act, 0, sizeof act);
  act.sa_handler = handler;
  act.sa_flags = SA_RESTART;
  sigemptyset(&act.sa_mask);
  if (sigaction(sig, &act, &old) != 0) return SIG_ERR;
  return old.sa_handler;
}

extern "C" __attribute__((visibility("default"))) int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
  if (!set || how == SIG_UNBLOCK) return rt.real_pthread_sigmask(how, set, old);
  sigset_t copy = *set;
  without_sigill(&copy);
  return rt.real_pthread_sigmask(how, &copy, old);
}

extern "C" __attribute__((visibility("default"))) int sigprocmask(int how, const sigset_t* set, sigset_t* old) {
  const int rc = pthread_sigmask(how, set, old);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  return 0;
}
