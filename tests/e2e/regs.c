// Register preservation around emulated instructions: every probe of regs.S
// runs twice with different register patterns; the whole register file after
// the probe must be the one before, changed exactly as the probe's
// instructions say. Prints one line per probe and round; exits 1 on any
// difference.
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "e2e.h"

typedef struct {
  uint64_t x[31];
  uint64_t sp;
  uint64_t nzcv;
  uint64_t fpsr;
  uint8_t q[32][16];
} image;

_Static_assert(sizeof(image) == 784, "layout shared with regs.S");
_Static_assert(__builtin_offsetof(image, q) == 272, "layout shared with regs.S");
enum { kAfter = 1024, kStackBytes = 256 << 10 };

// The probes' private stack, with the dump area above its top.
static uint8_t stack_and_dump[kStackBytes + 2 * kAfter] __attribute__((aligned(16)));

typedef void probe_fn(const image* init, void* base);
typedef void mutate_fn(image* m);

#define D(name) probe_fn probe_##name;
D(add_zi_d) D(add_zi_h_lsl) D(sub_zi_s) D(add_zzz_s) D(sub_zzz_h) D(add_zzz_b_self) D(sub_zzz_d) D(adjacent)
D(run_chain) D(rdvl_x0) D(rdvl_x30) D(rdvl_x29) D(addvl_x28) D(addvl_x26) D(addpl_x27) D(addvl_x0_x27) D(addvl_x1_x28)
D(addpl_x2_x26) D(addvl_x28_x26) D(addpl_x26_x27) D(addvl_x3_sp) D(addvl_x30_sp) D(addvl_sp) D(addvl_sp_pair)
D(addpl_sp) D(ldff_edge)
#undef D

static const uint64_t VL = E2E_VL, PL = E2E_VL / 8;

static void m_add_zi_d(image* m) { e2e_lanes_imm(m->q[5], m->q[5], 1, 8, 0); }
static void m_add_zi_h_lsl(image* m) { e2e_lanes_imm(m->q[31], m->q[31], 0xFF00, 2, 0); }
static void m_sub_zi_s(image* m) { e2e_lanes_imm(m->q[8], m->q[8], 200, 4, 1); }
static void m_add_zzz_s(image* m) { e2e_lanes(m->q[3], m->q[17], m->q[30], 4, 0); }
static void m_sub_zzz_h(image* m) { e2e_lanes(m->q[0], m->q[0], m->q[31], 2, 1); }
static void m_add_zzz_b_self(image* m) { e2e_lanes(m->q[16], m->q[16], m->q[16], 1, 0); }
static void m_sub_zzz_d(image* m) { e2e_lanes(m->q[29], m->q[28], m->q[27], 8, 1); }
static void m_adjacent(image* m) {
  e2e_lanes_imm(m->q[1], m->q[1], 1, 8, 0);
  e2e_lanes(m->q[2], m->q[1], m->q[1], 8, 0);
}
static void m_run_chain(image* m) {
  m->x[28] += VL;
  m->x[27] = m->x[28] + 2 * PL;
  m->x[26] = m->x[27] - VL;
  m->x[0] = m->sp - VL;
  e2e_lanes_imm(m->q[0], m->q[0], 3, 8, 0);
  e2e_lanes(m->q[1], m->q[0], m->q[31], 8, 0);
  e2e_lanes(m->q[31], m->q[1], m->q[0], 4, 1);
  m->x[29] = 2 * VL;
}
static void m_rdvl_x0(image* m) { m->x[0] = VL; }
static void m_rdvl_x30(image* m) { m->x[30] = (uint64_t)-3 * VL; }
static void m_rdvl_x29(image* m) { m->x[29] = 31 * VL; }
static void m_addvl_x28(image* m) { m->x[28] += VL; }
static void m_addvl_x26(image* m) { m->x[26] -= 2 * VL; }
static void m_addpl_x27(image* m) { m->x[27] += 3 * PL; }
static void m_addvl_x0_x27(image* m) { m->x[0] = m->x[27]; }
static void m_addvl_x1_x28(image* m) { m->x[1] = m->x[28] + 5 * VL; }
static void m_addpl_x2_x26(image* m) { m->x[2] = m->x[26] - PL; }
static void m_addvl_x28_x26(image* m) { m->x[28] = m->x[26] - 32 * VL; }
static void m_addpl_x26_x27(image* m) { m->x[26] = m->x[27] + 31 * PL; }
static void m_addvl_x3_sp(image* m) { m->x[3] = m->sp; }
static void m_addvl_x30_sp(image* m) { m->x[30] = m->sp + 2 * VL; }
static void m_unchanged(image* m) { (void)m; }

// 32 bytes before the end of a page whose next page is not mapped (set by main).
uint64_t ldff_edge;
static void m_ldff_edge(image* m) {
  m->x[9] = ldff_edge;
  memcpy(m->q[9], (const void*)(uintptr_t)ldff_edge, 16);
  memcpy(m->q[10], (const void*)(uintptr_t)ldff_edge, 16);
}

static const struct {
  const char* name;
  probe_fn* probe;
  mutate_fn* mutate;
} probes[] = {
#define P(name) {#name, probe_##name, m_##name},
    P(add_zi_d) P(add_zi_h_lsl) P(sub_zi_s) P(add_zzz_s) P(sub_zzz_h) P(add_zzz_b_self) P(sub_zzz_d) P(adjacent)
    P(run_chain) P(rdvl_x0) P(rdvl_x30) P(rdvl_x29) P(addvl_x28) P(addvl_x26) P(addpl_x27) P(addvl_x0_x27) P(addvl_x1_x28)
    P(addpl_x2_x26) P(addvl_x28_x26) P(addpl_x26_x27) P(addvl_x3_sp) P(addvl_x30_sp)
#undef P
    {"addvl_sp", probe_addvl_sp, m_unchanged},
    {"addvl_sp_pair", probe_addvl_sp_pair, m_unchanged},
    {"addpl_sp", probe_addpl_sp, m_unchanged},
    {"ldff_edge", probe_ldff_edge, m_ldff_edge},
};

// Register patterns differ per probe and round, with bytes near wrap-around
// so that carries between lanes would show.
static void pattern(image* img, unsigned p, unsigned round) {
  static const uint64_t nzcv[] = {0xF0000000, 0x00000000, 0xA0000000, 0x50000000, 0x90000000};
  static const uint64_t fpsr[] = {0x0800009F, 0x00000011, 0x08000080, 0x0000000E};
  memset(img, 0, sizeof *img);
  for (unsigned i = 0; i < 31; ++i)
    img->x[i] = 0xC0DE000000000000ull ^ ((uint64_t)(p + 1) << 40) ^ ((uint64_t)round << 36) ^
                (0x0000000101010101ull * (i + 1)) ^ ((uint64_t)i << 28);
  for (unsigned i = 0; i < 32; ++i)
    for (unsigned j = 0; j < 16; ++j)
      img->q[i][j] = j % 5 == 0 ? 0xFF : (uint8_t)(i * 37 + j * 11 + p * 5 + round * 101);
  img->nzcv = nzcv[(p + round) % 5];
  img->fpsr = fpsr[(p + round) % 4];
}

static int compare(const char* what, const image* got, const image* want, uint64_t base) {
  int bad = 0;
  for (int i = 0; i < 31; ++i)
    if (got->x[i] != want->x[i]) {
      printf("  %s x%d = 0x%016" PRIx64 ", want 0x%016" PRIx64 "\n", what, i, got->x[i], want->x[i]);
      ++bad;
    }
  if (got->sp != want->sp) {
    printf("  %s sp = base%+" PRId64 ", want base%+" PRId64 "\n", what, (int64_t)(got->sp - base),
           (int64_t)(want->sp - base));
    ++bad;
  }
  if (got->nzcv != want->nzcv) {
    printf("  %s nzcv = 0x%08" PRIx64 ", want 0x%08" PRIx64 "\n", what, got->nzcv, want->nzcv);
    ++bad;
  }
  if (got->fpsr != want->fpsr) {
    printf("  %s fpsr = 0x%08" PRIx64 ", want 0x%08" PRIx64 "\n", what, got->fpsr, want->fpsr);
    ++bad;
  }
  for (int i = 0; i < 32; ++i)
    if (memcmp(got->q[i], want->q[i], 16)) {
      char name[32];
      snprintf(name, sizeof name, "  %s q%d", what, i);
      e2e_print_q(name, got->q[i]);
      snprintf(name, sizeof name, "  %*s want", (int)strlen(what) + 3, "");
      e2e_print_q(name, want->q[i]);
      ++bad;
    }
  return bad;
}

int main(void) {
  const long page = sysconf(_SC_PAGESIZE);
  uint8_t* edge = mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (edge == MAP_FAILED || munmap(edge + page, page) != 0) return 2;
  for (long i = 0; i < page; ++i) edge[i] = (uint8_t)(i * 7 + 3);
  ldff_edge = (uint64_t)(uintptr_t)(edge + page - 32);
  uint8_t* base = stack_and_dump + kStackBytes;
  const uint64_t base_addr = (uint64_t)(uintptr_t)base;
  int failures = 0;
  for (unsigned round = 0; round < 2; ++round) {
    for (unsigned p = 0; p < sizeof probes / sizeof probes[0]; ++p) {
      image init, before, after, want;
      pattern(&init, p, round);
      memset(base, 0xA5, 2 * kAfter);   // a dump that never happened shows as poison
      probes[p].probe(&init, base);
      memcpy(&before, base, sizeof before);
      memcpy(&after, base + kAfter, sizeof after);

      // The harness itself: the before image is the pattern, on our stack.
      want = init;
      want.sp = base_addr;
      want.fpsr = before.fpsr;   // FPSR keeps only its implemented bits
      int bad = compare("before", &before, &want, base_addr);
      if (before.fpsr == 0 && init.fpsr != 0) {
        printf("  before fpsr = 0: the pattern did not reach FPSR\n");
        ++bad;
      }
      want = before;
      probes[p].mutate(&want);
      bad += compare("after", &after, &want, base_addr);
      printf("round %u probe %s: %s\n", round, probes[p].name, bad ? "MISMATCH" : "ok");
      failures += bad != 0;
    }
  }
  printf("%d probe(s) failed\n", failures);
  return failures ? 1 : 0;
}
