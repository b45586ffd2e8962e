// Runs the marked region of markers.S REPS times (default 1) and checks that
// the markers and the other byte form left their registers alone while the
// ordinary additions between them took effect.
//
//   e2e_markers [REPS]
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "e2e.h"

void markers(uint8_t q[64], long reps);

int main(int argc, char** argv) {
  const long reps = argc > 1 ? atol(argv[1]) : 1;
  uint8_t q[64], want[64];
  for (int i = 0; i < 64; ++i) q[i] = (uint8_t)(i * 41 + 7);
  memcpy(want, q, 64);
  markers(q, reps);
  for (long r = 0; r < reps; ++r) {
    e2e_lanes_imm(want + 48, want + 48, 5, 8, 0);
    e2e_lanes_imm(want + 32, want + 32, 256, 2, 0);
  }
  static const char* const names[] = {"z7 (marker register)", "z3 (#3, lsl #8 on bytes)", "z0 (+256 on halfwords)",
                                      "z1 (+5 on doublewords)"};
  int bad = 0;
  for (int r = 0; r < 4; ++r) {
    const int ok = !memcmp(q + 16 * r, want + 16 * r, 16);
    printf("%s: %s\n", names[r], ok ? "ok" : "WRONG");
    if (!ok) {
      e2e_print_q("  got ", q + 16 * r);
      e2e_print_q("  want", want + 16 * r);
    }
    bad |= !ok;
  }
  return bad;
}
