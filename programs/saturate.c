// Saturating arithmetic written as C clamps, which the vectoriser turns into
// saturating instructions: unsigned add and subtract, signed add, and a
// narrowing clamp (pixels).
#include "prog.h"

__attribute__((noipa)) static void uadd(uint8_t* restrict c, const uint8_t* restrict a, const uint8_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) { unsigned s = a[i] + b[i]; c[i] = s > 255 ? 255 : (uint8_t)s; }
}
__attribute__((noipa)) static void usub(uint16_t* restrict c, const uint16_t* restrict a, const uint16_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = a[i] > b[i] ? (uint16_t)(a[i] - b[i]) : 0;
}
__attribute__((noipa)) static void sadd(int16_t* restrict c, const int16_t* restrict a, const int16_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) { int s = a[i] + b[i]; c[i] = (int16_t)(s > 32767 ? 32767 : s < -32768 ? -32768 : s); }
}
__attribute__((noipa)) static void clamp(uint8_t* restrict c, const int32_t* restrict a, long n) {
  for (long i = 0; i < n; ++i) { int v = a[i] >> 6; c[i] = (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v); }
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  uint8_t *a8 = malloc(n), *b8 = malloc(n), *c8 = malloc(n), *d8 = malloc(n);
  uint16_t *a16 = malloc(n * 2), *b16 = malloc(n * 2), *c16 = malloc(n * 2);
  int16_t* s16 = malloc(n * 2);
  int32_t* a32 = malloc(n * 4);
  uint64_t s = 99;
  for (long i = 0; i < n; ++i) {
    a8[i] = (uint8_t)prog_rand(&s); b8[i] = (uint8_t)prog_rand(&s);
    a16[i] = (uint16_t)prog_rand(&s); b16[i] = (uint16_t)prog_rand(&s);
    a32[i] = (int32_t)(prog_rand(&s) % 40000) - 8000;
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    uadd(c8, a8, b8, n);
    usub(c16, a16, b16, n);
    sadd(s16, (const int16_t*)a16, (const int16_t*)b16, n);
    clamp(d8, a32, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, c8, n); h = prog_hash(h, c16, n * 2); h = prog_hash(h, s16, n * 2); h = prog_hash(h, d8, n);
  prog_report(h, t);
  return 0;
}
