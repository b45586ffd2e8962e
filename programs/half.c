// Half-precision arithmetic with _Float16: scale-and-add, a polynomial, a
// clamp, and a widening to single precision.
#include "prog.h"

typedef _Float16 f16;

__attribute__((noipa)) static void axpy_h(f16* restrict y, const f16* restrict x, f16 a, long n) {
  for (long i = 0; i < n; ++i) y[i] = a * x[i] + y[i];
}
__attribute__((noipa)) static void poly_h(f16* restrict y, const f16* restrict x, long n) {
  for (long i = 0; i < n; ++i) {
    f16 v = x[i];
    f16 p = ((f16)0.25 * v - (f16)0.5) * v + (f16)1.0;
    y[i] = p > (f16)2.0 ? (f16)2.0 : p;
  }
}
__attribute__((noipa)) static void widen_h(float* restrict y, const f16* restrict x, long n) {
  for (long i = 0; i < n; ++i) y[i] = (float)x[i] * 3.0f;
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  f16 *x = malloc(n * 2), *y = malloc(n * 2), *z = malloc(n * 2);
  float* w = malloc(n * 4);
  uint64_t s = 13;
  for (long i = 0; i < n; ++i) {
    x[i] = (f16)((float)(int)(prog_rand(&s) % 2000 - 1000) / 256.0f);
    y[i] = (f16)((float)(int)(prog_rand(&s) % 2000 - 1000) / 512.0f);
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    axpy_h(y, x, (f16)0.75, n);
    poly_h(z, y, n);
    widen_h(w, z, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, y, n * 2); h = prog_hash(h, z, n * 2); h = prog_hash(h, w, n * 4);
  prog_report(h, t);
  return 0;
}
