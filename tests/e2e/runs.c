/* Random runs of adjacent SVE words, against the reference processor: each
 * trial loads every Z and P register from memory, runs 1 to 24 random words
 * of the rows that touch registers (vector ADD/SUB in every form, ADDVL,
 * ADDPL, RDVL, with X26 to X28 among their operands, and FADD, FSUB, FMUL,
 * whose flags reach FPSR), and among them ordinary integer instructions of
 * every class that a run carries (and NOP),
 * stores every Z and P register back, and prints a hash of the whole state,
 * NZCV included. Under quern the words form runs of up to a block's length
 * that carry the ordinary instructions between their SVE words, so that
 * one-word sequences and runs must both give the reference's lines.
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

/* The same, or XZR. */
static uint32_t xreg_or_zr(void) { return rnd() % 8 == 0 ? 31 : xreg(); }

/* An ordinary integer instruction of a class that a run carries between its
 * SVE words, with random fields that the architecture allocates; never one
 * that reads SP or the PC, which differ from one processor to the other. */
static uint32_t random_scalar(void) {
  const uint32_t sf = rnd() % 2, width = sf ? 64 : 32, d = xreg_or_zr(), n = xreg_or_zr(), m = xreg_or_zr();
  const uint32_t r = rnd(), top = sf << 31 | (r & 3u) << 29;   /* sf, op and S, or opc */
  switch (rnd() % 14) {
    case 12: return 0x8B000000u | m << 16 | n << 5 | d;                           /* ADD Xd, Xn, Xm: a loop counter */
    case 13: return 0x91000000u | (r >> 2 & 0xFFFu) << 10 | xreg() << 5 | xreg();   /* ADD Xd, Xn, #imm */
    case 0: /* ADD/SUB(S) immediate: Rn may not be 31 (SP), nor Rd without S */
      return top | 0x11000000u | (r >> 2 & 1u) << 22 | (r >> 3 & 0xFFFu) << 10 | xreg() << 5 | ((r & 1u) ? d : xreg());
    case 1: /* ADD/SUB(S) shifted register */
      return top | 0x0B000000u | (r >> 2) % 3 << 22 | m << 16 | (r >> 8) % width << 10 | n << 5 | d;
    case 2: /* ADD/SUB(S) extended register */
      return top | 0x0B200000u | m << 16 | (r >> 2 & 7u) << 13 | (r >> 5) % 5 << 10 | xreg() << 5 | ((r & 1u) ? d : xreg());
    case 3: /* AND, BIC, ORR, ORN, EOR, EON, ANDS, BICS (shifted register) */
      return top | 0x0A000000u | (r >> 2 & 3u) << 22 | (r >> 4 & 1u) << 21 | m << 16 | (r >> 8) % width << 10 |
             n << 5 | d;
    case 4: { /* AND, ORR, EOR, ANDS (immediate), from an element size, a run and a rotation */
      const uint32_t len = sf ? 1 + rnd() % 6 : 1 + rnd() % 5, esize = 1u << len;
      const uint32_t imms = ((0x3Fu << (len + 1)) & 0x3Fu) | (uint32_t)(rnd() % (esize - 1));
      return top | 0x12000000u | (len == 6) << 22 | (uint32_t)(rnd() % esize) << 16 | imms << 10 | n << 5 |
             ((r & 3u) == 3 ? d : xreg());
    }
    case 5: /* MOVN, MOVZ, MOVK */
      return sf << 31 | (uint32_t[]){0, 2, 3}[r % 3] << 29 | 0x12800000u | (r >> 2) % (sf ? 4 : 2) << 21 |
             (r >> 4 & 0xFFFFu) << 5 | d;
    case 6: /* SBFM, BFM, UBFM */
      return sf << 31 | (r % 3) << 29 | 0x13000000u | sf << 22 | (r >> 2) % width << 16 | (r >> 8) % width << 10 |
             n << 5 | d;
    case 7: /* EXTR */
      return sf << 31 | 0x13800000u | sf << 22 | m << 16 | (r >> 2) % width << 10 | n << 5 | d;
    case 8: /* CSEL, CSINC, CSINV, CSNEG */
      return sf << 31 | (r & 1u) << 30 | 0x1A800000u | m << 16 | (r >> 1 & 15u) << 12 | (r >> 5 & 1u) << 10 |
             n << 5 | d;
    case 9: /* UDIV, SDIV, LSLV, LSRV, ASRV, RORV */
      return sf << 31 | 0x1AC00000u | m << 16 | (uint32_t[]){2, 3, 8, 9, 10, 11}[r % 6] << 10 | n << 5 | d;
    case 10: /* RBIT, REV16, REV32 or REV, REV, CLZ, CLS */
      return sf << 31 | 0x5AC00000u | (sf ? r % 6 : (uint32_t[]){0, 1, 2, 4, 5}[r % 5]) << 10 | n << 5 | d;
    default: { /* MADD, MSUB, and at 64 bits SMADDL, SMSUBL, UMADDL, UMSUBL, SMULH, UMULH */
      const uint32_t op31 = sf ? (uint32_t[]){0, 1, 5, 2, 6}[r % 5] : 0;
      const uint32_t o0 = op31 == 2 || op31 == 6 ? 0 : r >> 3 & 1u, a = op31 == 2 || op31 == 6 ? 31 : xreg_or_zr();
      return sf << 31 | 0x1B000000u | op31 << 21 | m << 16 | o0 << 15 | a << 10 | n << 5 | d;
    }
  }
}

static uint32_t imm9(int v, uint32_t base, uint32_t reg) {
  const uint32_t u = (uint32_t)v & 0x1FF;
  return base | (u >> 3) << 16 | (u & 7) << 10 | reg;
}

static uint32_t random_word(void) {
  const uint32_t z1 = rnd() % 32, z2 = rnd() % 32, z3 = rnd() % 32, size = rnd() % 4, sub = rnd() % 2;
  switch (rnd() % 11) {
    case 0: return 0x04200000u | size << 22 | z3 << 16 | sub << 10 | z2 << 5 | z1;   /* ADD/SUB Zd, Zn, Zm */
    case 1: {                                                                         /* ADD/SUB Zdn, Zdn, #imm */
      const uint32_t sh = size == 0 ? 0 : rnd() % 2;
      return 0x2520C000u | size << 22 | sub << 16 | sh << 13 | (uint32_t)(rnd() % 256) << 5 | z1;
    }
    case 2: return 0x04000000u | size << 22 | sub << 16 | (uint32_t)(rnd() % 8) << 10 | z2 << 5 | z1;   /* predicated */
    case 3: return 0x04205000u | xreg() << 16 | (uint32_t)(rnd() % 64) << 5 | xreg();               /* ADDVL */
    case 4: return 0x04605000u | xreg() << 16 | (uint32_t)(rnd() % 64) << 5 | xreg();               /* ADDPL */
    case 5: return 0x04BF5000u | (uint32_t)(rnd() % 64) << 5 | xreg();                              /* RDVL */
    case 6: return 0xD503201Fu;                                                                      /* NOP */
    case 7: return 0x65000000u | (1 + size % 3) << 22 | z3 << 16 | (uint32_t)(rnd() % 3) << 10 | z2 << 5 | z1;   /* FADD, FSUB, FMUL */
    default: return random_scalar();                                                                 /* not SVE */
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
