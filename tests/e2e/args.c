// Prints its arguments and the result of one emulated addition: for the
// client-option cases, where what reaches the program is the question.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "e2e.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) printf("arg %d: %s\n", i, argv[i]);
  uint8_t q[16], want[16];
  for (int i = 0; i < 16; ++i) q[i] = (uint8_t)(0xF8 + i);
  e2e_lanes_imm(want, q, 1, 4, 0);
  sve_inc_s(q);
  const int ok = !memcmp(q, want, 16);
  printf("emulated addition: %s\n", ok ? "ok" : "WRONG");
  return ok ? 0 : 1;
}
