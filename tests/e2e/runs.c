/* Random runs of adjacent SVE words, against the reference processor: each
 * trial loads every Z and P register from memory, runs 1 to 24 random words
 * of the rows that touch registers (vector ADD/SUB in every form, ADDVL,
 * ADDPL, RDVL, with X26 to X28 among their operands), now and then an
 * ordinary ADD of X registers among them, stores every Z and P register back,
 * and prints a hash of the whole state. Under quern the words form runs of
 * up to a block's length, ended by the ordinary instructions, so that
 * one-word sequences and runs (quern run --runs) must both give the
 * reference's lines.
 *
 *   e2e_runs [TRIAL]   with a trial number: that trial's words and state in full */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "e2e.h"

void run_trial(const uint64_t* xin, uint64_t* xout, const uint32_t* code);
extern char trial_back[];

enum { kTrials = 300, kMaxWords = 24, kTrialBytes = 1024 };
/* The memory image, addressed through X0: P registers in at PL 0..15, Z
 * registers in at VL 2..33, Z out at VL 40..71, P out at PL 240..255. */
enum { kZIn = 2, kZOut = 40, kPOut = 240, kPL = E2E_VL / 8 };
static uint8_t image[4096] __attribute__((aligned(16)));

static uint64_t state = 0x9E3779B97F4A7C15ull;
static uint64_t rnd(void) {
  state ^= state << 13;
  state ^= state >> 7;
  state ^= state << 17;
  return state;
}

/* X registers the words may name: never X0 (the image) or X17 (the frame's). */
static uint32_t xreg(void) {
  static const uint8_t ok[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 18, 19, 20, 21, 22, 23, 24, 25,
                               26, 27, 28, 28, 27, 26, 29, 30};
  return ok[rnd() % sizeof ok];
}

static uint32_t imm9(int v, uint32_t base, uint32_t reg) {
  const uint32_t u = (uint32_t)v & 0x1FF;
  return base | (u >> 3) << 16 | (u & 7) << 10 | reg;
}

static uint32_t random_word(void) {
  const uint32_t z1 = rnd() % 32, z2 = rnd() % 32, z3 = rnd() % 32, size = rnd() % 4, sub = rnd() % 2;
  switch (rnd() % 7) {
    case 0: return 0x04200000u | size << 22 | z3 << 16 | sub << 10 | z2 << 5 | z1;   /* ADD/SUB Zd, Zn, Zm */
    case 1: {                                                                         /* ADD/SUB Zdn, Zdn, #imm */
      const uint32_t sh = size == 0 ? 0 : rnd() % 2;
      return 0x2520C000u | size << 22 | sub << 16 | sh << 13 | (uint32_t)(rnd() % 256) << 5 | z1;
    }
    case 2: return 0x04000000u | size << 22 | sub << 16 | (uint32_t)(rnd() % 8) << 10 | z2 << 5 | z1;   /* predicated */
    case 3: return 0x04205000u | xreg() << 16 | (uint32_t)(rnd() % 64) << 5 | xreg();               /* ADDVL */
    case 4: return 0x04605000u | xreg() << 16 | (uint32_t)(rnd() % 64) << 5 | xreg();               /* ADDPL */
    case 5: return 0x04BF5000u | (uint32_t)(rnd() % 64) << 5 | xreg();                              /* RDVL */
    default: return 0x8B000000u | xreg() << 16 | xreg() << 5 | xreg();   /* ADD Xd, Xn, Xm: not SVE */
  }
}

/* One trial's code: loads, the random words, stores, and the way back. */
static size_t build(uint32_t* code, int n, uint32_t* words) {
  size_t at = 0;
  for (uint32_t p = 0; p < 16; ++p) code[at++] = imm9((int)p, 0x85800000u, p);              /* LDR Pp */
  for (uint32_t z = 0; z < 32; ++z) code[at++] = imm9((int)(kZIn + z), 0x85804000u, z);     /* LDR Zz */
  for (int i = 0; i < n; ++i) code[at++] = words[i];
  for (uint32_t z = 0; z < 32; ++z) code[at++] = imm9((int)(kZOut + z), 0xE5804000u, z);   /* STR Zz */
  for (uint32_t p = 0; p < 16; ++p) code[at++] = imm9((int)(kPOut + p), 0xE5800000u, p);   /* STR Pp */
  code[at++] = 0x58000051u;   /* ldr x17, .+8 */
  code[at++] = 0xD61F0220u;   /* br x17 */
  const uint64_t back = (uint64_t)(uintptr_t)trial_back;
  memcpy(&code[at], &back, 8);
  return at + 2;
}

static uint64_t fnv(uint64_t h, const void* p, size_t n) {
  for (size_t i = 0; i < n; ++i) h = (h ^ ((const uint8_t*)p)[i]) * 0x100000001B3ull;
  return h;
}

int main(int argc, char** argv) {
  const int show = argc > 1 ? atoi(argv[1]) : -1;
  /* Every trial its own code, never rewritten: what a block was built from stays. */
  uint8_t* pages = mmap(NULL, (size_t)kTrials * kTrialBytes, PROT_READ | PROT_WRITE | PROT_EXEC,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return 2;
  static const uint64_t fpsr[] = {0x0800009F, 0x00000011, 0x08000080, 0x00000000};
  for (int t = 0; t < kTrials; ++t) {
    uint32_t words[kMaxWords];
    const int n = 1 + (int)(rnd() % kMaxWords);
    for (int i = 0; i < n; ++i) words[i] = random_word();
    uint32_t* code = (uint32_t*)(pages + (size_t)t * kTrialBytes);
    const size_t len = build(code, n, words);
    __builtin___clear_cache((char*)code, (char*)(code + len));

    uint64_t xin[33], xout[33];
    for (int i = 0; i < 31; ++i) xin[i] = rnd();
    xin[0] = (uint64_t)(uintptr_t)image;
    xin[31] = rnd() & 0xF0000000u;
    xin[32] = fpsr[t % 4];
    for (size_t i = 0; i < sizeof image; ++i) image[i] = (uint8_t)rnd();
    run_trial(xin, xout, code);

    /* X0 and X17 hold addresses, which are not the same on every processor. */
    xout[0] = xout[17] = 0;
    uint64_t h = fnv(0xCBF29CE484222325ull, xout, sizeof xout);
    h = fnv(h, image + kZOut * E2E_VL, 32 * E2E_VL);
    h = fnv(h, image + kPOut * kPL, 16 * kPL);
    printf("trial %d: %d words, state %016llx\n", t, n, (unsigned long long)h);
    if (t != show) continue;
    for (int i = 0; i < n; ++i) printf("  word %08x\n", words[i]);
    for (int i = 0; i < 33; ++i) printf("  %s%d %016llx\n", i < 31 ? "x" : "sys", i, (unsigned long long)xout[i]);
    for (int z = 0; z < 32; ++z) {
      printf("  z%d", z);
      for (int b = E2E_VL - 1; b >= 0; --b) printf("%s%02x", b % 8 == 7 ? " " : "", image[(kZOut + z) * E2E_VL + b]);
      printf("\n");
    }
    for (int p = 0; p < 16; ++p) {
      printf("  p%d", p);
      for (int b = kPL - 1; b >= 0; --b) printf(" %02x", image[(kPOut + p) * kPL + b]);
      printf("\n");
    }
  }
  return 0;
}
