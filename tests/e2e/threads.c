// Threads with their own vector values, running emulated additions at the
// same time: each thread's results must be its own. Two waves of threads, the
// second started after the first has ended.
//
//   e2e_threads [--markers] [TURNS]
// The main thread runs the loop once first, so that the threads find its
// words rewritten (simultaneous first executions are --race's subject).
// With --markers, that run is a traced region, and thread k of the first
// wave (k = 1, 3, 5) runs (k + 1) / 2 of its three loops as traced regions:
// 7 start and 7 stop markers in all, none from the other threads. The output
// is the same either way.
//
//   e2e_threads --race
// Eight threads released together, eight times, into 100 words that none has
// executed yet: their first executions meet.
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "e2e.h"

void thread_kernel(uint8_t io[32], long n, long markers);
void race_words_0(uint8_t q[16]), race_words_1(uint8_t q[16]), race_words_2(uint8_t q[16]),
    race_words_3(uint8_t q[16]), race_words_4(uint8_t q[16]), race_words_5(uint8_t q[16]),
    race_words_6(uint8_t q[16]), race_words_7(uint8_t q[16]);

enum { kWave1 = 6, kWave2 = 2, kThreads = kWave1 + kWave2, kLoops = 3 };

static long turns = 2000;
static int use_markers;
static pthread_barrier_t start_line;

struct job {
  int id;
  uint8_t io[32];
  uint8_t want[32];
};

static void seed(uint8_t* io, int id) {
  for (int i = 0; i < 32; ++i) io[i] = (uint8_t)(id * 53 + i * 7 + (i % 5 == 0 ? 0xF0 : 0));
}

static void* worker(void* p) {
  struct job* j = (struct job*)p;
  const int marked_loops = use_markers && j->id < kWave1 && j->id % 2 ? (j->id + 1) / 2 : 0;
  seed(j->io, j->id);
  if (j->id < kWave1) pthread_barrier_wait(&start_line);
  for (int loop = 0; loop < kLoops; ++loop) thread_kernel(j->io, turns + j->id, loop < marked_loops);
  return NULL;
}

enum { kRacers = 8 };
static pthread_barrier_t race_start;

static void* racer(void* p) {
  static void (*const blocks[])(uint8_t*) = {race_words_0, race_words_1, race_words_2, race_words_3,
                                              race_words_4, race_words_5, race_words_6, race_words_7};
  uint8_t* q = (uint8_t*)p;
  for (int b = 0; b < 8; ++b) {
    pthread_barrier_wait(&race_start);
    blocks[b](q);
  }
  return NULL;
}

static int race(void) {
  uint8_t q[kRacers][16], want[16];
  pthread_t tids[kRacers];
  pthread_barrier_init(&race_start, NULL, kRacers);
  for (int i = 0; i < kRacers; ++i) {
    for (int j = 0; j < 16; ++j) q[i][j] = (uint8_t)(i * 16 + j);
    pthread_create(&tids[i], NULL, racer, q[i]);
  }
  int failures = 0;
  for (int i = 0; i < kRacers; ++i) {
    pthread_join(tids[i], NULL);
    for (int j = 0; j < 16; ++j) want[j] = (uint8_t)(i * 16 + j);
    e2e_lanes_imm(want, want, 800, 8, 0);
    const int ok = !memcmp(q[i], want, 16);
    printf("racer %d: %s\n", i, ok ? "ok" : "WRONG");
    if (!ok) {
      e2e_print_q("  got ", q[i]);
      e2e_print_q("  want", want);
    }
    failures += !ok;
  }
  return failures ? 1 : 0;
}

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--markers")) use_markers = 1;
    else if (!strcmp(argv[i], "--race")) return race();
    else turns = atol(argv[i]);
  }
  uint8_t warm_up[32] = {0};
  thread_kernel(warm_up, 1, use_markers);
  struct job jobs[kThreads];
  pthread_t tids[kThreads];
  pthread_barrier_init(&start_line, NULL, kWave1);
  for (int i = 0; i < kWave1; ++i) {
    jobs[i].id = i;
    pthread_create(&tids[i], NULL, worker, &jobs[i]);
  }
  for (int i = 0; i < kWave1; ++i) pthread_join(tids[i], NULL);
  for (int i = kWave1; i < kThreads; ++i) {
    jobs[i].id = i;
    pthread_create(&tids[i], NULL, worker, &jobs[i]);
  }
  for (int i = kWave1; i < kThreads; ++i) pthread_join(tids[i], NULL);

  int failures = 0;
  for (int i = 0; i < kThreads; ++i) {
    seed(jobs[i].want, i);
    for (int loop = 0; loop < kLoops; ++loop)
      for (long t = 0; t < turns + i; ++t) {
        e2e_lanes(jobs[i].want, jobs[i].want, jobs[i].want + 16, 4, 0);
        e2e_lanes_imm(jobs[i].want + 16, jobs[i].want + 16, 1, 4, 0);
      }
    char name[32];
    snprintf(name, sizeof name, "thread %d z1", i);
    e2e_print_q(name, jobs[i].io);
    snprintf(name, sizeof name, "thread %d z2", i);
    e2e_print_q(name, jobs[i].io + 16);
    if (memcmp(jobs[i].io, jobs[i].want, 32)) {
      printf("  MISMATCH, want\n");
      e2e_print_q("  z1", jobs[i].want);
      e2e_print_q("  z2", jobs[i].want + 16);
      ++failures;
    }
  }
  printf("%d thread(s) wrong\n", failures);
  return failures ? 1 : 0;
}
