// A C program whose SVE code GCC writes from ACLE intrinsics: unpredicated
// vector additions and subtractions (the _x forms with an all-true predicate,
// which need no predicate register), and sizes scaled by the vector length,
// which GCC computes with ADDVL. The vectors get their values from NEON
// vectors and give them back, through empty asm statements: a Z register's
// low 128 bits are the V register of the same number, so no instruction is
// needed. Only the low 128 bits are ever looked at.
#include <arm_neon.h>
#include <arm_sve.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "e2e.h"

static inline svuint32_t from_u32x4(uint32x4_t v) {
  svuint32_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}
static inline uint32x4_t to_u32x4(svuint32_t v) {
  uint32x4_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}
static inline svuint16_t from_u16x8(uint16x8_t v) {
  svuint16_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}
static inline uint16x8_t to_u16x8(svuint16_t v) {
  uint16x8_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}
static inline svuint64_t from_u64x2(uint64x2_t v) {
  svuint64_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}
static inline uint64x2_t to_u64x2(svuint64_t v) {
  uint64x2_t r;
  __asm__("" : "=w"(r) : "0"(v));
  return r;
}

// a + b + 7 - c, 32-bit lanes.
__attribute__((noipa)) static uint32x4_t mix32(uint32x4_t a, uint32x4_t b, uint32x4_t c) {
  const svbool_t all = svptrue_b32();
  svuint32_t r = svadd_u32_x(all, from_u32x4(a), from_u32x4(b));
  r = svadd_n_u32_x(all, r, 7);
  return to_u32x4(svsub_u32_x(all, r, from_u32x4(c)));
}

// Sum of n vectors and n * 256, 16-bit lanes, in a loop.
__attribute__((noipa)) static uint16x8_t sum16(const uint16x8_t* v, int n) {
  const svbool_t all = svptrue_b16();
  svuint16_t acc = from_u16x8(vdupq_n_u16(0));
  for (int i = 0; i < n; ++i) {
    acc = svadd_u16_x(all, acc, from_u16x8(v[i]));
    acc = svadd_n_u16_x(all, acc, 256);
  }
  return to_u16x8(acc);
}

// a - b - 1, 64-bit lanes, with the immediate subtracted.
__attribute__((noipa)) static uint64x2_t diff64(uint64x2_t a, uint64x2_t b) {
  const svbool_t all = svptrue_b64();
  return to_u64x2(svsub_n_u64_x(all, svsub_u64_x(all, from_u64x2(a), from_u64x2(b)), 1));
}

// Offsets scaled by the vector length.
__attribute__((noipa)) static uint64_t ahead(uint64_t n) { return n + svcntb() * 20; }
__attribute__((noipa)) static uint64_t behind(uint64_t n) { return n - svcntb() * 31; }

static int failures;

static void check_u64(const char* what, uint64_t got, uint64_t want) {
  printf("%s = %llu\n", what, (unsigned long long)got);
  if (got != want) {
    printf("  MISMATCH, want %llu\n", (unsigned long long)want);
    ++failures;
  }
}

static void check_q(const char* what, const void* got, const void* want) {
  e2e_print_q(what, (const uint8_t*)got);
  if (memcmp(got, want, 16)) {
    e2e_print_q("  MISMATCH, want", (const uint8_t*)want);
    ++failures;
  }
}

int main(void) {
  uint32_t a[4], b[4], c[4], w32[4];
  for (int i = 0; i < 4; ++i) {
    a[i] = 0xFFFFFFF0u + (uint32_t)i * 5;
    b[i] = 0x01020304u * (uint32_t)(i + 1);
    c[i] = 0x80000000u >> i;
    w32[i] = a[i] + b[i] + 7 - c[i];
  }
  uint32_t r32[4];
  vst1q_u32(r32, mix32(vld1q_u32(a), vld1q_u32(b), vld1q_u32(c)));
  check_q("mix32", r32, w32);

  uint16x8_t vs[10];
  uint16_t w16[8] = {0};
  for (int i = 0; i < 10; ++i) {
    uint16_t lane[8];
    for (int j = 0; j < 8; ++j) {
      lane[j] = (uint16_t)(0xF00F * (i + 1) + j * 0x1111);
      w16[j] = (uint16_t)(w16[j] + lane[j] + 256);
    }
    vs[i] = vld1q_u16(lane);
  }
  uint16_t r16[8];
  vst1q_u16(r16, sum16(vs, 10));
  check_q("sum16", r16, w16);

  const uint64_t x[2] = {5, 0x8000000000000000ull}, y[2] = {9, 1};
  const uint64_t w64[2] = {x[0] - y[0] - 1, x[1] - y[1] - 1};
  uint64_t r64[2];
  vst1q_u64(r64, diff64(vld1q_u64(x), vld1q_u64(y)));
  check_q("diff64", r64, w64);

  check_u64("ahead(1000)", ahead(1000), 1000 + 20 * E2E_VL);
  check_u64("behind(5000)", behind(5000), 5000 - 31 * E2E_VL);

  printf("%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
