// Single- and double-precision streaming loops: axpy, a fused scale, and a
// division with a square root.
#include <math.h>

#include "prog.h"

__attribute__((noipa)) static void saxpy(float* restrict y, const float* restrict x, float a, long n) {
  for (long i = 0; i < n; ++i) y[i] = a * x[i] + y[i];
}
__attribute__((noipa)) static void daxpy(double* restrict y, const double* restrict x, double a, long n) {
  for (long i = 0; i < n; ++i) y[i] = a * x[i] + y[i];
}
__attribute__((noipa)) static void sdiv(float* restrict z, const float* restrict x, const float* restrict y, long n) {
  for (long i = 0; i < n; ++i) z[i] = sqrtf(x[i] * x[i] + 1.0f) / (y[i] < 0 ? -y[i] + 1.0f : y[i] + 1.0f);
}
__attribute__((noipa)) static void dminmax(double* restrict z, const double* restrict x, const double* restrict y, long n) {
  for (long i = 0; i < n; ++i) z[i] = (x[i] > y[i] ? x[i] : y[i]) - (x[i] < 0 ? x[i] * 0.5 : x[i]);
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 19);
  float *x = malloc(n * 4), *y = malloc(n * 4), *z = malloc(n * 4);
  double *dx = malloc(n * 8), *dy = malloc(n * 8), *dz = malloc(n * 8);
  uint64_t s = 37;
  for (long i = 0; i < n; ++i) {
    x[i] = (float)(int32_t)prog_rand(&s) / 65536.0f; y[i] = (float)(int32_t)prog_rand(&s) / 65536.0f;
    dx[i] = (double)(int64_t)prog_rand(&s) / 1e15; dy[i] = (double)(int64_t)prog_rand(&s) / 1e15;
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    saxpy(y, x, 0.375f, n); daxpy(dy, dx, -1.25, n); sdiv(z, x, y, n); dminmax(dz, dx, dy, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, y, n * 4); h = prog_hash(h, dy, n * 8); h = prog_hash(h, z, n * 4); h = prog_hash(h, dz, n * 8);
  prog_report(h, t);
  return 0;
}
