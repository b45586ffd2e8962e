// Integer streaming loops: multiply-add, shifts, min/max and widening over
// arrays of 8-, 16-, 32- and 64-bit elements.
#include "prog.h"

__attribute__((noipa)) static void k32(int32_t* restrict c, const int32_t* restrict a, const int32_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = a[i] * b[i] + (c[i] >> 3) - (a[i] & 0xff);
}
__attribute__((noipa)) static void k16(int16_t* restrict c, const int16_t* restrict a, const int16_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = (int16_t)((a[i] > b[i] ? a[i] : b[i]) ^ (uint16_t)(b[i] << 2));
}
__attribute__((noipa)) static void k8(uint8_t* restrict c, const uint8_t* restrict a, const uint8_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = (uint8_t)((a[i] + b[i] + 1) >> 1);
}
__attribute__((noipa)) static void k64(int64_t* restrict c, const int32_t* restrict a, const int64_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = (int64_t)a[i] * 7 - b[i] / 3;
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  int32_t *a32 = malloc(n * 4), *b32 = malloc(n * 4), *c32 = malloc(n * 4);
  int16_t *a16 = malloc(n * 2), *b16 = malloc(n * 2), *c16 = malloc(n * 2);
  uint8_t *a8 = malloc(n), *b8 = malloc(n), *c8 = malloc(n);
  int64_t *b64 = malloc(n * 8), *c64 = malloc(n * 8);
  uint64_t s = 42;
  for (long i = 0; i < n; ++i) {
    a32[i] = (int32_t)prog_rand(&s); b32[i] = (int32_t)prog_rand(&s); c32[i] = (int32_t)prog_rand(&s);
    a16[i] = (int16_t)prog_rand(&s); b16[i] = (int16_t)prog_rand(&s);
    a8[i] = (uint8_t)prog_rand(&s); b8[i] = (uint8_t)prog_rand(&s);
    b64[i] = (int64_t)prog_rand(&s);
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    k32(c32, a32, b32, n);
    k16(c16, a16, b16, n);
    k8(c8, a8, b8, n);
    k64(c64, a32, b64, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, c32, n * 4); h = prog_hash(h, c16, n * 2); h = prog_hash(h, c8, n); h = prog_hash(h, c64, n * 8);
  prog_report(h, t);
  return 0;
}
