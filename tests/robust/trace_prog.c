/* Gathers and scatters from loops that GCC vectorises for SVE, inside traced
 * regions, for checking the memory trace that `quern run` writes.
 *
 *   trace_prog threads T REPS N    T threads at once, each running REPS
 *                                  regions of one gather and one scatter loop
 *                                  over N elements of its own arrays
 *   trace_prog churn T REPS N      T threads that trace until the last of
 *                                  waves of short-lived threads (REPS regions
 *                                  each) has been created, run and joined
 *   trace_prog kill K N            one region of K records (the start marker,
 *                                  then K - 1 gathered lanes), then SIGKILL
 *   trace_prog plain N             gathers and scatters, no region at all,
 *                                  and a forked child that ends at once, with
 *                                  no exit handler run (as one that execs)
 *
 * Thread k uses table[k] and dest[k] only, and element i of a loop lies at
 * (i * 7 + k) % N: the trace's addresses tell the thread. The loops are fully
 * predicated, so a loop over n elements has n active lanes. Each thread
 * prints one line that lets a checker predict its records:
 *   thread K tid TID table ADDR dest ADDR n N regions R lanes L
 * TID is the low 32 bits of pthread_self(), as the trace has it. Every thread
 * also runs its loops once outside any region, which must leave no record. */
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define START() __asm__ volatile(".inst 0x2520e020" ::: "memory") /* ADD Z0.B, Z0.B, #1, LSL #8 */
#define STOP() __asm__ volatile(".inst 0x2520e040" ::: "memory")  /* ADD Z0.B, Z0.B, #2, LSL #8 */

enum { kMaxThreads = 256, kMaxN = 1024, kWaves = 4 };

static uint32_t table[kMaxThreads][kMaxN], dest[kMaxThreads][kMaxN];
static int32_t index_of[kMaxThreads][kMaxN];
static uint32_t gathered[kMaxThreads][kMaxN];

/* LD1W (scalar plus vector, 32-bit offsets) and ST1W of the same form. */
__attribute__((noipa)) static void gather(uint32_t* restrict out, const uint32_t* restrict t,
                                          const int32_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) out[i] = t[idx[i]];
}
__attribute__((noipa)) static void scatter(uint32_t* restrict d, const uint32_t* restrict v,
                                           const int32_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) d[idx[i]] = v[i] + 1;
}

struct job {
  int k, n, regions; /* regions: how many to run, or 0 to run until `stop` */
  long done;
};

static atomic_int stop;
static pthread_mutex_t print_lock = PTHREAD_MUTEX_INITIALIZER;

static void setup(int k, int n) {
  for (int i = 0; i < n; ++i) {
    table[k][i] = (uint32_t)(k * 100000 + i);
    index_of[k][i] = (i * 7 + k) % n;
  }
}

static void one_pass(int k, int n) {
  gather(gathered[k], table[k], index_of[k], n);
  scatter(dest[k], gathered[k], index_of[k], n);
}

static void* worker(void* arg) {
  struct job* j = arg;
  setup(j->k, j->n);
  one_pass(j->k, j->n); /* outside any region */
  for (j->done = 0; j->regions ? j->done < j->regions : (j->done < 1 || !atomic_load(&stop)); ++j->done) {
    START();
    one_pass(j->k, j->n);
    STOP();
    if (!j->regions) usleep(20000); /* a tracer that waits for the others: leave them the processor */
  }
  one_pass(j->k, j->n);
  for (int i = 0; i < j->n; ++i)
    if (dest[j->k][index_of[j->k][i]] != table[j->k][index_of[j->k][i]] + 1) {
      fprintf(stderr, "thread %d: wrong value at %d\n", j->k, i);
      exit(1);
    }
  pthread_mutex_lock(&print_lock);
  printf("thread %d tid %u table %p dest %p n %d regions %ld lanes %ld\n", j->k, (unsigned)pthread_self(),
         (void*)table[j->k], (void*)dest[j->k], j->n, j->done, 2 * j->done * j->n);
  pthread_mutex_unlock(&print_lock);
  return NULL;
}

static int start_all(pthread_t* th, struct job* jobs, int first, int count, int n, int regions) {
  for (int t = first; t < first + count; ++t) {
    jobs[t] = (struct job){t, n, regions, 0};
    if (pthread_create(&th[t], NULL, worker, &jobs[t]) != 0) return 0;
  }
  return 1;
}

static int usage(void) {
  fprintf(stderr, "usage: trace_prog threads|churn T REPS N | kill K N | plain N\n");
  return 2;
}

int main(int argc, char** argv) {
  static pthread_t th[kMaxThreads];
  static struct job jobs[kMaxThreads];
  if (argc < 3) return usage();
  const char* mode = argv[1];
  if (!strcmp(mode, "plain")) {
    const int n = atoi(argv[2]);
    if (n < 1 || n > kMaxN) return usage();
    setup(0, n);
    one_pass(0, n);
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 4;
    printf("plain n %d\n", n);
    return 0;
  }
  if (!strcmp(mode, "kill")) {
    if (argc != 4) return usage();
    const long k = atol(argv[2]);
    const int n = atoi(argv[3]);
    if (k < 1 || n < 1 || n > kMaxN) return usage();
    setup(0, n);
    printf("thread 0 tid %u table %p dest %p n %d\n", (unsigned)pthread_self(), (void*)table[0], (void*)dest[0], n);
    fflush(stdout);
    START();
    for (long left = k - 1; left > 0;) {
      const int m = left < n ? (int)left : n;
      gather(gathered[0], table[0], index_of[0], m);
      left -= m;
    }
    kill(getpid(), SIGKILL);
    return 1;
  }
  if (argc != 5) return usage();
  const int threads = atoi(argv[2]), regions = atoi(argv[3]), n = atoi(argv[4]);
  if (n < 1 || n > kMaxN || regions < 1) return usage();
  if (!strcmp(mode, "threads")) {
    if (threads < 1 || threads > kMaxThreads) return usage();
    if (!start_all(th, jobs, 0, threads, n, regions)) return 3;
    for (int t = 0; t < threads; ++t) pthread_join(th[t], NULL);
    return 0;
  }
  if (!strcmp(mode, "churn")) {
    /* `threads` long-lived tracers, then kWaves waves of as many short-lived
     * ones, each wave created while the previous one may still be running. */
    if (threads < 1 || threads * (1 + kWaves) > kMaxThreads) return usage();
    if (!start_all(th, jobs, 0, threads, n, 0)) return 3;
    for (int w = 1; w <= kWaves; ++w) {
      if (!start_all(th, jobs, w * threads, threads, n, regions)) return 3;
      if (w > 1)
        for (int t = (w - 1) * threads; t < w * threads; ++t) pthread_join(th[t], NULL);
    }
    for (int t = kWaves * threads; t < (kWaves + 1) * threads; ++t) pthread_join(th[t], NULL);
    atomic_store(&stop, 1);
    for (int t = 0; t < threads; ++t) pthread_join(th[t], NULL);
    return 0;
  }
  return usage();
}
