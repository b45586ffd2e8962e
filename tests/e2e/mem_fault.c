// Emulated loads at the edge of an unmapped page. An active lane at an address
// that cannot be read is the program's own fault: the process must end by
// SIGSEGV, as on a processor with SVE. Inactive lanes are never read, and a
// first-fault load that runs into the unmapped page after its first element
// does not fault.
//
//   e2e_mem_fault contiguous|gather|ldff-first|ldff-contained|inactive
//
// The SVE words are written out (.inst) with their registers pinned, so that
// only rows of the memory family and LDR/STR of whole registers take part.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

// The operands go to fixed registers: x1 the predicate image (loaded into P1
// first), x2 the base, x3 the offset vector's image (loaded into Z3), x4 the
// index, x6 where Z5 is stored after the words.
#define RUN(pred, base, offsets, index, dump, words)                                                   \
  __asm__ volatile("mov x1, %0\n\tmov x2, %1\n\tmov x3, %2\n\tmov x4, %3\n\tmov x6, %4\n\t"           \
                   ".inst 0x85800021\n\t" /* ldr p1, [x1] */                                             \
                   ".inst 0x85804063\n\t" /* ldr z3, [x3] */                                             \
                   words "\n\t"                                                                         \
                   ".inst 0xe58040c5" /* str z5, [x6] */                                                  \
                   :                                                                                     \
                   : "r"(pred), "r"(base), "r"(offsets), "r"(index), "r"(dump)                           \
                   : "x1", "x2", "x3", "x4", "x6", "v3", "v5", "memory")

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  const long page = sysconf(_SC_PAGESIZE);
  uint8_t* area = mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED || munmap(area + page, page) != 0) return 3;
  for (long i = 0; i < page; ++i) area[i] = (uint8_t)(i * 7 + 3);
  uint8_t* end = area + page;   // the first byte that cannot be read
  const uint8_t all[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, none[6] = {0};
  uint8_t out[48];
  memset(out, 0xEE, sizeof out);
  printf("mode %s\n", mode);
  fflush(stdout);

  uint64_t offsets[6] = {0};
  if (!strcmp(mode, "contiguous")) {
    // ld1w {z5.s}, p1/z, [x2]: lanes 0 and 1 readable, lane 2 not
    RUN(all, end - 8, offsets, 0, out, ".inst 0xa540a445");
  } else if (!strcmp(mode, "gather")) {
    // ld1d {z5.d}, p1/z, [x2, z3.d, lsl #3]: lane 1 is unmapped
    const uint64_t o[6] = {0, 1, 2, 3, 0, 5};
    memcpy(offsets, o, sizeof o);
    RUN(all, end - 8, offsets, 0, out, ".inst 0xc5e3c445");
  } else if (!strcmp(mode, "ldff-first")) {
    // ldff1b {z5.b}, p1/z, [x2, x4]: the first element is unmapped
    RUN(all, end, offsets, 0, out, ".inst 0xa4046445");
  } else if (!strcmp(mode, "ldff-contained")) {
    // The same, 10 bytes before the unmapped page: the first 10 lanes load.
    RUN(all, end - 12, offsets, 2, out, ".inst 0xa4046445");
    printf("loaded:");
    for (int i = 0; i < 10; ++i) printf(" %02x", out[i]);
    printf("\n");
    return 0;
  } else if (!strcmp(mode, "inactive")) {
    // ld1w {z5.s}, p1/z, [x2] with no active lane: nothing is read.
    RUN(none, end, offsets, 0, out, ".inst 0xa540a445");
    int zero = 1;
    for (int i = 0; i < 48; ++i) zero &= out[i] == 0;
    printf("register %s\n", zero ? "cleared" : "NOT cleared");
    return 0;
  } else {
    printf("unknown mode\n");
    return 2;
  }
  printf("survived the fault\n");
  return 0;
}
