// Helpers shared by the end-to-end programs (C side).
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <string.h>

// The vector length the emulator implements, in bytes.
#define E2E_VL 48

void sve_add_d(uint8_t a[16], const uint8_t b[16]);
void sve_inc_s(uint8_t a[16]);

// Lane-wise a op b on 16 bytes, elements of `esize` bytes, little-endian,
// wrapping: what ADD and SUB do to the low 128 bits of a Z register.
static inline void e2e_lanes(uint8_t* dst, const uint8_t* a, const uint8_t* b, int esize, int subtract) {
  uint8_t out[16];
  for (int e = 0; e < 16; e += esize) {
    uint64_t x = 0, y = 0;
    memcpy(&x, a + e, esize);
    memcpy(&y, b + e, esize);
    const uint64_t r = subtract ? x - y : x + y;
    memcpy(out + e, &r, esize);
  }
  memcpy(dst, out, 16);
}

// Adds the immediate `imm` to every lane.
static inline void e2e_lanes_imm(uint8_t* dst, const uint8_t* a, uint64_t imm, int esize, int subtract) {
  uint8_t b[16];
  for (int e = 0; e < 16; e += esize) memcpy(b + e, &imm, esize);
  e2e_lanes(dst, a, b, esize, subtract);
}

static inline void e2e_print_q(const char* name, const uint8_t* q) {
  printf("%s =", name);
  for (int i = 15; i >= 0; --i) printf("%s%02x", i % 4 == 3 ? " " : "", q[i]);
  printf("\n");
}

// FNV-1a over `bytes` bytes: a checksum of a result array to print.
static inline uint64_t e2e_hash(const void* p, size_t bytes) {
  const uint8_t* b = (const uint8_t*)p;
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < bytes; ++i) h = (h ^ b[i]) * 1099511628211ull;
  return h;
}
