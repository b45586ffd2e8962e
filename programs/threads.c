// Four threads each gather from a shared table into their own slice; with
// --markers each marks its gather loop for the memory trace (the marker words
// are not instructions of the reference processor, so it runs without).
#include <pthread.h>

#include "prog.h"

#define START() __asm__ volatile(".inst 0x2520e020" ::: "memory")
#define STOP() __asm__ volatile(".inst 0x2520e040" ::: "memory")

enum { kThreads = 4 };
static int use_markers;
static long n;
static const uint32_t* table;
static const int32_t* idx;

__attribute__((noipa)) static void gather(uint32_t* restrict b, const uint32_t* restrict a, const int32_t* restrict ix, long k) {
  for (long i = 0; i < k; ++i) b[i] = a[ix[i]] * 5 + (uint32_t)i;
}

struct job { long lo, hi; uint32_t* out; };

static void* worker(void* arg) {
  struct job* j = arg;
  if (use_markers) START();
  gather(j->out + j->lo, table, idx + j->lo, j->hi - j->lo);
  if (use_markers) STOP();
  return NULL;
}

int main(int argc, char** argv) {
  if (argc > 1 && !strcmp(argv[1], "--markers")) { use_markers = 1; --argc; ++argv; }
  n = prog_size(argc, argv, 1 << 20);
  uint32_t* a = malloc(n * 4);
  int32_t* ix = malloc(n * 4);
  uint32_t* out = malloc(n * 4);
  uint64_t s = 53;
  for (long i = 0; i < n; ++i) { a[i] = (uint32_t)prog_rand(&s); ix[i] = (int32_t)(prog_rand(&s) % (uint64_t)n); }
  table = a;
  idx = ix;
  pthread_t t[kThreads];
  struct job jobs[kThreads];
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    for (int k = 0; k < kThreads; ++k) {
      jobs[k] = (struct job){n * k / kThreads, n * (k + 1) / kThreads, out};
      pthread_create(&t[k], NULL, worker, &jobs[k]);
    }
    for (int k = 0; k < kThreads; ++k) pthread_join(t[k], NULL);
  }
  double el = prog_now() - t0;
  prog_report(prog_hash(PROG_HASH0, out, n * 4), el);
  return 0;
}
