// A first look at the emulator: instruction words decoded and carried out on a
// register file in ordinary memory, with no program around them.
#include <cstdio>
#include <cstring>

#include "sve/dispatch/decode.h"

namespace {

void print_z(const cpu_state& s, int n, unsigned esize) {
  printf("    z%d.%c =", n, "bhsd"[esize == 1 ? 0 : esize == 2 ? 1 : esize == 4 ? 2 : 3]);
  for (unsigned i = 0; i < 48 / esize; ++i) {
    unsigned long long v = 0;
    std::memcpy(&v, s.z[n] + i * esize, esize);
    printf(" %llu", v);
  }
  printf("\n");
}

void run(cpu_state& s, uint32_t word, const char* text, int dest, unsigned esize) {
  const decode_row* row = find_decode_row(word);
  printf("  %08x  %-32s -> %s via %s\n", word, text, row ? row->adapter : "(not SVE)", row ? row->road : "-");
  if (!row) return;
  const aarch64_decode_rc rc = get_sve_handler(word)(&s, word);
  if (rc != AARCH64_DECODE_OK) {
    printf("    result %d\n", rc);
    return;
  }
  print_z(s, dest, esize);
}

}  // namespace

int main() {
  static cpu_state s;   // a register file in ordinary memory
  for (unsigned i = 0; i < 12; ++i) {
    const uint32_t a = i, b = 100 * i;
    std::memcpy(s.z[1] + 4 * i, &a, 4);
    std::memcpy(s.z[2] + 4 * i, &b, 4);
  }
  for (unsigned i = 0; i < 48; ++i) s.p[3][i] = (i / 4) % 2 == 0;   // every other word lane
  s.pc = reinterpret_cast<unsigned char*>(0x400000);

  printf("Inputs:\n");
  print_z(s, 1, 4);
  print_z(s, 2, 4);
  printf("Instructions:\n");
  run(s, 0x04A00020u | 2u << 16 | 0, "add z0.s, z1.s, z2.s", 0, 4);
  run(s, 0x04800C20u | 1u, "add z1.s, p3/m, z1.s, z1.s", 1, 4);
  run(s, 0x25A1C000u | 5u << 5 | 0, "sub z0.s, z0.s, #5", 0, 4);
  run(s, 0x25E0E000u | 1u << 5 | 2, "add z2.d, z2.d, #1, lsl #8", 2, 8);
  run(s, 0x0416A000u, "abs z0.b, p0/m, z0.b", 0, 1);
  run(s, 0x8B020020u, "add x0, x1, x2", 0, 8);
  return 0;
}
