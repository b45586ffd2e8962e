/* The cost of one emulated SVE instruction: ADD Z0.D, Z0.D, #1 in a loop,
 * timed, alone (one word between ordinary instructions) and in runs of four
 * adjacent words (ADD to Z0..Z3). Run under `quern run` (rewritten code),
 * `quern run --runs` and `quern run --fallback` (emulation from the signal
 * context); bench/run_emulated_add.sh runs them all. The clock is the
 * thread's CPU time, and each figure the best of several rounds, so that other
 * work on the machine does not count. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t); /* CPU time: the machine is shared */
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

/* z0..z3 += 1, n times: four adjacent emulated words per turn. */
static void run_loop(uint64_t* lanes, long n) {
  __asm__ volatile(
      "ldp q0, q1, [%0]\n"
      "ldp q2, q3, [%0, #32]\n"
      "cbz %1, 2f\n"
      "1: .inst 0x25e0c020\n" /* add z0.d, z0.d, #1 */
      ".inst 0x25e0c021\n"    /* add z1.d, z1.d, #1 */
      ".inst 0x25e0c022\n"    /* add z2.d, z2.d, #1 */
      ".inst 0x25e0c023\n"    /* add z3.d, z3.d, #1 */
      "subs %1, %1, #1\n"
      "b.ne 1b\n"
      "2: stp q0, q1, [%0]\n"
      "stp q2, q3, [%0, #32]\n"
      : "+r"(lanes), "+r"(n) : : "v0", "v1", "v2", "v3", "memory", "cc");
}

/* The same loop around a plain vector add: the overhead to take away. */
static void plain_loop(long n) {
  __asm__ volatile(
      "cbz %0, 2f\n"
      "1: add v4.2d, v4.2d, v4.2d\n"
      "subs %0, %0, #1\n"
      "b.ne 1b\n"
      "2:\n"
      : "+r"(n) : : "v4", "cc");
}

static int check(const uint64_t* lanes, int count, uint64_t want) {
  for (int i = 0; i < count; ++i)
    if (lanes[i] != want) {
      fprintf(stderr, "wrong result: lane %d is %llu, want %llu\n", i, (unsigned long long)lanes[i],
              (unsigned long long)want);
      return 0;
    }
  return 1;
}

/* The machine is shared: each figure is the best of several rounds. */
enum { kRounds = 5 };

int main(int argc, char** argv) {
  const long n = argc > 1 ? atol(argv[1]) : 1000000;
  const long per = n / kRounds > 4 ? n / kRounds : 4;
  uint64_t one[2] = {0, 0}, four[8] = {0};
  add_loop(one, 1); /* the words are rewritten before the clock runs */
  run_loop(four, 1);
  double alone = 1e30, runs = 1e30;
  for (int r = 0; r < kRounds; ++r) {
    const double t0 = now();
    add_loop(one, per);
    const double t1 = now();
    plain_loop(per);
    const double t2 = now();
    run_loop(four, per / 4);
    const double t3 = now();
    const double loop = (t2 - t1) / per;
    if ((t1 - t0) / per - loop < alone) alone = (t1 - t0) / per - loop;
    if (((t3 - t2) / (per / 4) - loop) / 4 < runs) runs = ((t3 - t2) / (per / 4) - loop) / 4;
  }
  const int ok = check(one, 2, (uint64_t)(kRounds * per) + 1) && check(four, 8, (uint64_t)(kRounds * (per / 4)) + 1);
  printf("%.1f ns per emulated instruction alone, %.1f in runs of four (%ld instructions)\n", alone * 1e9, runs * 1e9,
         kRounds * per);
  return ok ? 0 : 1;
}
