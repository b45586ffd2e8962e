// The full 48 bytes of Z registers after a loop of SVE additions: every lane,
// the upper ones included, must have the value the additions give.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "e2e.h"

void zupper(uint8_t out[3][E2E_VL], long n);

static void lanes48(uint8_t* dst, const uint8_t* a, const uint8_t* b, int esize, int subtract) {
  for (int i = 0; i < E2E_VL; i += 16) e2e_lanes(dst + i, a + i, b + i, esize, subtract);
}
static void lanes48_imm(uint8_t* dst, const uint8_t* a, uint64_t imm, int esize, int subtract) {
  for (int i = 0; i < E2E_VL; i += 16) e2e_lanes_imm(dst + i, a + i, imm, esize, subtract);
}

int main(void) {
  const long n = 1000;
  uint8_t got[3][E2E_VL], want[3][E2E_VL];
  memset(got, 0xEE, sizeof got);
  zupper(got, n);

  memset(want, 0, sizeof want);
  lanes48_imm(want[0], want[0], 7, 8, 0);
  lanes48_imm(want[1], want[1], 0xFF00, 4, 0);
  for (long i = 0; i < n; ++i) {
    lanes48_imm(want[0], want[0], 1, 8, 0);
    lanes48(want[2], want[2], want[1], 4, 0);
    lanes48_imm(want[1], want[1], 1, 2, 1);
  }
  int bad = 0;
  for (int r = 0; r < 3; ++r) {
    for (int part = 0; part < 3; ++part) {
      char name[16];
      snprintf(name, sizeof name, "z%d[%d]", r + 1, part);
      e2e_print_q(name, got[r] + 16 * part);
    }
    if (memcmp(got[r], want[r], E2E_VL)) {
      printf("z%d: MISMATCH, want\n", r + 1);
      for (int part = 0; part < 3; ++part) e2e_print_q("    ", want[r] + 16 * part);
      bad = 1;
    }
  }
  printf("%s\n", bad ? "MISMATCH" : "ok");
  return bad;
}
