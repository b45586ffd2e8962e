// A fault of the program's own, after emulated additions: the process must
// end by the signal, as it would on a processor with SVE.
//
//   e2e_fault segv|bus|emulated   (emulated: an emulated load from address 0)
#define _GNU_SOURCE
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "e2e.h"

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "segv";
  uint8_t a[16], b[16], want[16];
  for (int i = 0; i < 16; ++i) a[i] = (uint8_t)(i * 13), b[i] = (uint8_t)(255 - i);
  e2e_lanes(want, a, b, 8, 0);
  for (int i = 0; i < 3; ++i) e2e_lanes(want, want, b, 8, 0);
  for (int i = 0; i < 4; ++i) sve_add_d(a, b);
  printf("emulated additions: %s\n", memcmp(a, want, 16) ? "WRONG" : "ok");
  fflush(stdout);

  if (!strcmp(mode, "segv")) {
    volatile int* volatile null = NULL;
    *null = 1;
  } else if (!strcmp(mode, "emulated")) {
    // ldr z0, [x0] with x0 = 0: the fault happens inside the emulator.
    register uint64_t base __asm__("x0") = 0;
    __asm__ volatile(".inst 0x85804000" : : "r"(base) : "v0", "memory");
  } else if (!strcmp(mode, "bus")) {
    // A shared mapping of a file past its end.
    FILE* f = tmpfile();
    if (!f || ftruncate(fileno(f), 4096) != 0) return 3;
    volatile char* m = (volatile char*)mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(f), 0);
    if (m == (volatile char*)MAP_FAILED) return 3;
    m[0] = 1;
    m[4096] = 1;
  } else {
    printf("unknown mode %s\n", mode);
    return 2;
  }
  printf("survived the fault\n");
  return 0;
}
