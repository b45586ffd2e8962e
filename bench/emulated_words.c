/* The cost of single SVE words of a streaming loop, each alone in a loop of
 * ordinary instructions: FMLA, FADD, FADDA, LD1W, ST1W, WHILELO at single
 * precision, with an all-true predicate, and ADD (immediate) as the yardstick
 * of bench/emulated_add.c. Run it under `quern run` (or on the reference
 * processor); each line is ns per word, the empty loop taken away, best of
 * five rounds of thread CPU time. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec + t.tv_nsec * 1e-9;
}

/* The operands: p0 all true, z1 = 1.0, z2 = 0.5, z0 = 0; x2 the whilelo bound. */
#define SETUP                                                                                   \
  ".arch_extension sve\n"                                                                       \
  "ptrue p0.s\n"                                                                                \
  "fdup z1.s, #1.0\n"                                                                           \
  "fdup z2.s, #0.5\n"                                                                           \
  "dup z0.s, #0\n"

#define WORD_LOOP(NAME, INSN)                                                                   \
  static void NAME(float* buf, long n) {                                                        \
    __asm__ volatile(SETUP "mov x2, #100\n"                                                     \
                     "cbz %1, 2f\n"                                                             \
                     "1: " INSN "\n"                                                            \
                     "subs %1, %1, #1\n"                                                        \
                     "b.ne 1b\n"                                                                \
                     "2:\n"                                                                     \
                     : "+r"(buf), "+r"(n)                                                       \
                     :                                                                          \
                     : "x2", "v0", "v1", "v2", "p0", "p1", "memory", "cc");                     \
  }

WORD_LOOP(w_add, "add z0.d, z0.d, #1")
WORD_LOOP(w_fmla, "fmla z0.s, p0/m, z1.s, z2.s")
WORD_LOOP(w_fadd, "fadd z0.s, z1.s, z2.s")
WORD_LOOP(w_fadda, "fadda s0, p0, s0, z2.s")
WORD_LOOP(w_ld1w, "ld1w {z0.s}, p0/z, [%0]")
WORD_LOOP(w_st1w, "st1w {z1.s}, p0, [%0]")
WORD_LOOP(w_whilelo, "whilelo p1.s, xzr, x2")
WORD_LOOP(w_none, "nop")

struct word {
  const char* name;
  void (*loop)(float*, long);
};
static const struct word kWords[] = {
    {"ADD Z.D, #imm", w_add}, {"FMLA Z.S", w_fmla},   {"FADD Z.S (unpred)", w_fadd}, {"FADDA S, Z.S", w_fadda},
    {"LD1W", w_ld1w},         {"ST1W", w_st1w},       {"WHILELO P.S", w_whilelo},
};

enum { kRounds = 5 };

static double best(void (*loop)(float*, long), float* buf, long per) {
  double b = 1e30;
  for (int r = 0; r < kRounds; ++r) {
    const double t0 = now();
    loop(buf, per);
    const double t = (now() - t0) / per;
    if (t < b) b = t;
  }
  return b;
}

int main(int argc, char** argv) {
  const long n = argc > 1 ? atol(argv[1]) : 200000;
  float buf[16] = {0};
  for (size_t i = 0; i < sizeof kWords / sizeof kWords[0]; ++i) kWords[i].loop(buf, 1); /* rewrite first */
  w_none(buf, 1);
  const double empty = best(w_none, buf, n);
  for (size_t i = 0; i < sizeof kWords / sizeof kWords[0]; ++i)
    printf("%-20s %8.1f ns per word\n", kWords[i].name, (best(kWords[i].loop, buf, n) - empty) * 1e9);
  return 0;
}
