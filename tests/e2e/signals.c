// The program's own signal handling around emulated words, which a processor
// with SVE runs like any other instruction.
//
//   e2e_signals MODE
//     blocked   emulated words executed with every signal blocked
//     handler   emulated words in a handler whose sa_mask holds every signal
//     reentry   a timer's handler with emulated words keeps interrupting a
//               loop of emulated words; registers and results must be intact
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "e2e.h"

void handler_add(uint8_t q[16]);
void blocked_add(uint8_t q[16]);
void reentry_loop(long n, uint8_t io[32], uint64_t regs[10]);

static volatile sig_atomic_t handled;
static volatile int handler_result_ok = 1;

static void fill(uint8_t* q, size_t n, unsigned seed) {
  for (size_t i = 0; i < n; ++i) q[i] = i % 7 == 0 ? 0xFF : (uint8_t)(seed + i * 29);
}

static void on_signal(int sig) {
  (void)sig;
  uint8_t q[16], want[16];
  fill(q, 16, 11);
  handler_add(q);
  fill(want, 16, 11);
  e2e_lanes_imm(want, want, 9, 8, 0);
  if (memcmp(q, want, 16)) handler_result_ok = 0;
  handled = handled + 1;
}

static int blocked(void) {
  sigset_t all, old;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old);
  uint8_t q[16], want[16];
  fill(q, 16, 5);
  blocked_add(q);
  blocked_add(q);
  sigprocmask(SIG_SETMASK, &old, NULL);
  fill(want, 16, 5);
  e2e_lanes_imm(want, want, 6, 4, 0);
  const int ok = !memcmp(q, want, 16);
  printf("emulated words with every signal blocked: %s\n", ok ? "ok" : "WRONG");
  return !ok;
}

static int in_handler(void) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_signal;
  sigfillset(&sa.sa_mask);
  sigaction(SIGUSR1, &sa, NULL);
  raise(SIGUSR1);
  raise(SIGUSR1);
  const int ok = handled == 2 && handler_result_ok;
  printf("emulated words in a handler that blocks every signal: %d run(s), %s\n", (int)handled,
         handler_result_ok ? "ok" : "WRONG");
  return !ok;
}

// A loop whose registers were lost may never end: give up after a while.
static void* watchdog(void* arg) {
  (void)arg;
  sleep(8);
  printf("the interrupted loop did not finish in 8 s\n");
  fflush(stdout);
  _exit(1);
}

static int reentry(void) {
  // The watchdog thread must not take the timer's signals.
  sigset_t alrm, old;
  sigemptyset(&alrm);
  sigaddset(&alrm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alrm, &old);
  pthread_t dog;
  pthread_create(&dog, NULL, watchdog, NULL);
  pthread_sigmask(SIG_SETMASK, &old, NULL);

  // Every word runs once before the timer starts, so that with rewritten code
  // no word needs its first-execution trap while a handler is on the way.
  {
    uint8_t q[32];
    uint64_t regs[10] = {0};
    fill(q, 32, 1);
    handler_add(q);
    reentry_loop(1, q, regs);
  }
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_signal;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGALRM, &sa, NULL);
  const struct itimerval every = {{0, 200}, {0, 200}};
  setitimer(ITIMER_REAL, &every, NULL);

  const long turns = 20000;
  int bad = 0;
  for (int round = 0; round < 5; ++round) {
    uint8_t io[32], want[32];
    uint64_t regs[10], want_regs[10];
    fill(io, 32, (unsigned)round * 7);
    for (int i = 0; i < 10; ++i) regs[i] = want_regs[i] = 0x1900000000000000ull * (uint64_t)(i + 1) + (uint64_t)round;
    memcpy(want, io, 32);
    reentry_loop(turns, io, regs);
    for (long t = 0; t < turns; ++t) {
      e2e_lanes_imm(want, want, 1, 8, 0);
      e2e_lanes(want + 16, want + 16, want, 8, 0);
    }
    int round_bad = memcmp(io, want, 32) != 0;
    for (int i = 0; i < 10; ++i)
      if (regs[i] != want_regs[i]) {
        printf("  round %d: x%d = 0x%016llx, want 0x%016llx\n", round, 19 + i, (unsigned long long)regs[i],
               (unsigned long long)want_regs[i]);
        round_bad = 1;
      }
    if (memcmp(io, want, 32)) {
      e2e_print_q("  z1", io);
      e2e_print_q("  want", want);
      e2e_print_q("  z2", io + 16);
      e2e_print_q("  want", want + 16);
    }
    printf("interrupted loop, round %d: %s\n", round, round_bad ? "WRONG" : "ok");
    bad |= round_bad;
  }
  const struct itimerval off = {{0, 0}, {0, 0}};
  setitimer(ITIMER_REAL, &off, NULL);
  printf("handler ran: %s, its results: %s\n", handled > 0 ? "yes" : "NO", handler_result_ok ? "ok" : "WRONG");
  return bad || handled == 0 || !handler_result_ok;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  int bad;
  if (!strcmp(mode, "blocked")) bad = blocked();
  else if (!strcmp(mode, "handler")) bad = in_handler();
  else if (!strcmp(mode, "reentry")) bad = reentry();
  else {
    printf("unknown mode '%s'\n", mode);
    return 2;
  }
  return bad ? 1 : 0;
}
