// A program whose emulated words are known by count, for quern run --stats:
//
//   e2e_stats N exit|_exit
//
// Three threads run stats_kernel(N): one that ends before the program does,
// one still alive (blocked) when it exits, and the main thread, which then
// leaves by returning from main or by _exit. Every word of the loop runs 3N
// times, ptrue 3 times.
#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

uint64_t stats_kernel(long n);

static long turns;
static sem_t done;

static void* ends(void* p) {
  (void)p;
  stats_kernel(turns);
  return NULL;
}

static void* stays(void* p) {
  (void)p;
  stats_kernel(turns);
  sem_post(&done);
  for (;;) pause();
  return NULL;
}

int main(int argc, char** argv) {
  if (argc != 3 || (turns = atol(argv[1])) <= 0) {
    fprintf(stderr, "usage: e2e_stats N exit|_exit\n");
    return 2;
  }
  sem_init(&done, 0, 0);
  pthread_t t;
  pthread_create(&t, NULL, stays, NULL);
  while (sem_wait(&done) != 0) {
  }
  pthread_create(&t, NULL, ends, NULL);
  pthread_join(t, NULL);
  printf("%llu\n", (unsigned long long)stats_kernel(turns));
  fflush(stdout);
  if (strcmp(argv[2], "_exit") == 0) _exit(0);
  return 0;
}
