/* The cost of one emulated SVE instruction: a million ADD Z0.D, Z0.D, #1 in a
 * loop, timed. Run under `quern run` (rewritten code) and `quern run
 * --fallback` (emulation from the signal context); bench/run_emulated_add.sh
 * runs both and compares. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec * 1e-9;
}

/* z0 += 1, n times, in one piece of assembly so that nothing else touches v0. */
static void add_loop(uint64_t* lanes, long n) {
  __asm__ volatile(
      "ldr q0, [%0]\n"
      "cbz %1, 2f\n"
      "1: .inst 0x25e0c020\n" /* add z0.d, z0.d, #1 */
      "subs %1, %1, #1\n"
      "b.ne 1b\n"
      "2: str q0, [%0]\n"
      : "+r"(lanes), "+r"(n) : : "v0", "memory", "cc");
}

/* The same loop around a plain vector add: the overhead to take away. */
static void plain_loop(long n) {
  __asm__ volatile(
      "cbz %0, 2f\n"
      "1: add v1.2d, v1.2d, v1.2d\n"
      "subs %0, %0, #1\n"
      "b.ne 1b\n"
      "2:\n"
      : "+r"(n) : : "v1", "cc");
}

int main(int argc, char** argv) {
  const long n = argc > 1 ? atol(argv[1]) : 1000000;
  uint64_t lanes[2] = {0, 0};
  add_loop(lanes, 1); /* the instruction is rewritten before the clock runs */
  const double t0 = now();
  add_loop(lanes, n);
  const double t1 = now();
  plain_loop(n);
  const double t2 = now();
  if (lanes[0] != (uint64_t)n + 1 || lanes[1] != (uint64_t)n + 1) {
    fprintf(stderr, "wrong result: %llu %llu\n", (unsigned long long)lanes[0], (unsigned long long)lanes[1]);
    return 1;
  }
  printf("%.1f ns per emulated instruction (%ld instructions)\n", ((t1 - t0) - (t2 - t1)) * 1e9 / n, n);
  return 0;
}
