// Genuine illegal instructions of a program whose SVE words are emulated:
// they must reach the program as SIGILL, exactly as on a processor with SVE.
//
//   e2e_sigill MODE
//     default    no handler: the process dies by SIGILL
//     handler    sigaction handler (SA_SIGINFO) that skips the word
//     mask       the same, with SIGUSR1 in sa_mask: blocked while it runs
//     longjmp    signal() handler that leaves by siglongjmp
//     restore    a handler installed, then SIG_DFL put back: death by SIGILL
//     ignore     SIG_IGN: a trap is not ignorable, death by SIGILL
//     resethand  SA_RESETHAND: the first trap is handled, the second kills
// Emulated additions run before and after, and must still give their results.
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <ucontext.h>

#include "e2e.h"

void exec_reserved1(void);
void exec_reserved2(void);

static volatile sig_atomic_t traps;
static volatile uint64_t trap_pc[4];
static volatile int trap_signo[4], trap_code[4], trap_addr_ok[4], trap_usr1_blocked[4];
static sigjmp_buf jump;
static int failures;

static void record(int sig, siginfo_t* info, ucontext_t* uc) {
  const int i = traps < 4 ? traps : 3;
  sigset_t now;
  sigprocmask(SIG_BLOCK, NULL, &now);
  trap_signo[i] = sig;
  trap_code[i] = info ? info->si_code : -1;
  trap_pc[i] = uc ? uc->uc_mcontext.pc : 0;
  trap_addr_ok[i] = info && uc && (uint64_t)(uintptr_t)info->si_addr == uc->uc_mcontext.pc;
  trap_usr1_blocked[i] = sigismember(&now, SIGUSR1);
  traps = traps + 1;
}

static void skip_handler(int sig, siginfo_t* info, void* ucv) {
  ucontext_t* uc = (ucontext_t*)ucv;
  record(sig, info, uc);
  uc->uc_mcontext.pc += 4;
}

static void jump_handler(int sig) {
  record(sig, NULL, NULL);
  siglongjmp(jump, 1);
}

// One emulated addition, checked.
static void emulated_add(const char* when) {
  uint8_t a[16], b[16], want[16];
  for (int i = 0; i < 16; ++i) a[i] = (uint8_t)(i * 17 + 3), b[i] = (uint8_t)(0xF0 - i);
  e2e_lanes(want, a, b, 8, 0);
  sve_add_d(a, b);
  const int ok = !memcmp(a, want, 16);
  printf("emulated add %s: %s\n", when, ok ? "ok" : "WRONG");
  failures += !ok;
  fflush(stdout);
}

static void report(int i, void (*site)(void)) {
  printf("trap %d: signal %d, si_code %d, pc %s, si_addr %s\n", i, trap_signo[i], trap_code[i],
         trap_pc[i] == (uint64_t)(uintptr_t)site ? "at the word" : "ELSEWHERE", trap_addr_ok[i] ? "= pc" : "!= pc");
}

static void install(void (*handler)(int, siginfo_t*, void*), int flags, int mask_usr1) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = handler;
  sa.sa_flags = SA_SIGINFO | flags;
  sigemptyset(&sa.sa_mask);
  if (mask_usr1) sigaddset(&sa.sa_mask, SIGUSR1);   // in effect while the handler runs
  if (sigaction(SIGILL, &sa, NULL) != 0) perror("sigaction");
}

static volatile sig_atomic_t raised;
static void count_handler(int sig) {
  (void)sig;
  ++raised;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "default";
  emulated_add("before");

  struct sigaction old;
  memset(&old, 0xFF, sizeof old);
  sigaction(SIGILL, NULL, &old);
  printf("initial SIGILL action: %s\n", old.sa_handler == SIG_DFL ? "default" : "OTHER");

  if (!strcmp(mode, "default")) {
    printf("executing a reserved word\n");
    fflush(stdout);
    exec_reserved1();
    printf("survived a reserved word\n");
    return 1;
  }
  if (!strcmp(mode, "raise")) {
    // A SIGILL that no instruction raised: the default action ends the process.
    printf("raising SIGILL\n");
    fflush(stdout);
    raise(SIGILL);
    printf("survived a raised SIGILL\n");
    return 1;
  }
  if (!strcmp(mode, "raise-handler")) {
    static volatile sig_atomic_t seen;
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = count_handler;
    sigaction(SIGILL, &sa, NULL);
    raise(SIGILL);
    emulated_add("after");
    seen = raised;
    printf("raised signals seen: %d\n", (int)seen);
    return seen == 1 ? 0 : 1;
  }
  if (!strcmp(mode, "handler")) {
    install(skip_handler, 0, 0);
    sigaction(SIGILL, NULL, &old);
    printf("installed action read back: %s\n",
           (old.sa_flags & SA_SIGINFO) && old.sa_sigaction == skip_handler ? "ours" : "OTHER");
    exec_reserved1();
    emulated_add("between");
    exec_reserved2();
    emulated_add("after");
    printf("traps: %d\n", (int)traps);
    report(0, exec_reserved1);
    report(1, exec_reserved2);
    if (traps != 2) ++failures;
    return failures ? 1 : 0;
  }
  if (!strcmp(mode, "mask")) {
    install(skip_handler, 0, 1);
    exec_reserved1();
    sigset_t now;
    sigprocmask(SIG_BLOCK, NULL, &now);
    printf("traps: %d, SIGUSR1 %s in the handler, %s after it\n", (int)traps,
           trap_usr1_blocked[0] ? "blocked" : "not blocked", sigismember(&now, SIGUSR1) ? "blocked" : "not blocked");
    return failures || traps != 1 ? 1 : 0;
  }
  if (!strcmp(mode, "longjmp")) {
    if (signal(SIGILL, jump_handler) == SIG_ERR) perror("signal");
    const void* previous = (const void*)signal(SIGILL, jump_handler);
    printf("signal() gave back: %s\n", previous == (const void*)jump_handler ? "ours" : "OTHER");
    if (sigsetjmp(jump, 1) == 0) {
      exec_reserved2();
      printf("the handler did not leave\n");
      ++failures;
    } else {
      printf("left the handler by siglongjmp, traps: %d, signal %d\n", (int)traps, trap_signo[0]);
    }
    emulated_add("after");
    return failures || traps != 1 ? 1 : 0;
  }
  if (!strcmp(mode, "restore")) {
    install(skip_handler, 0, 0);
    exec_reserved1();
    printf("handled: %d\n", (int)traps);
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGILL, &dfl, NULL);
    emulated_add("after restoring the default");
    printf("executing a reserved word\n");
    fflush(stdout);
    exec_reserved2();
    printf("survived a reserved word\n");
    return 1;
  }
  if (!strcmp(mode, "ignore")) {
    signal(SIGILL, SIG_IGN);
    emulated_add("with SIGILL ignored");
    printf("executing a reserved word\n");
    fflush(stdout);
    exec_reserved1();
    printf("survived a reserved word\n");
    return 1;
  }
  if (!strcmp(mode, "resethand")) {
    install(skip_handler, SA_RESETHAND, 0);
    exec_reserved1();
    printf("handled: %d\n", (int)traps);
    sigaction(SIGILL, NULL, &old);
    printf("action after the first trap: %s\n", old.sa_handler == SIG_DFL ? "default" : "still the handler");
    emulated_add("after the first trap");
    printf("executing a reserved word\n");
    fflush(stdout);
    exec_reserved2();
    printf("survived a reserved word\n");
    return 1;
  }
  printf("unknown mode %s\n", mode);
  return 2;
}
