// Conversions between float and integer types of every width: truncations,
// widenings, narrowings, and float <-> double.
#include "prog.h"

__attribute__((noipa)) static void f2i(int32_t* restrict o, const float* restrict a, long n) {
  for (long i = 0; i < n; ++i) o[i] = (int32_t)a[i];
}
__attribute__((noipa)) static void i2f(float* restrict o, const int32_t* restrict a, long n) {
  for (long i = 0; i < n; ++i) o[i] = (float)a[i] * 0.5f;
}
__attribute__((noipa)) static void d2l(int64_t* restrict o, uint64_t* restrict u, const double* restrict a, long n) {
  for (long i = 0; i < n; ++i) { o[i] = (int64_t)a[i]; u[i] = (uint64_t)(a[i] < 0 ? -a[i] : a[i]); }
}
__attribute__((noipa)) static void f2d(double* restrict o, const float* restrict a, long n) {
  for (long i = 0; i < n; ++i) o[i] = (double)a[i] + 1.0;
}
__attribute__((noipa)) static void d2f(float* restrict o, const double* restrict a, long n) {
  for (long i = 0; i < n; ++i) o[i] = (float)a[i];
}
__attribute__((noipa)) static void u2d(double* restrict o, const uint32_t* restrict a, long n) {
  for (long i = 0; i < n; ++i) o[i] = (double)a[i];
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 19);
  float *fa = malloc(n * 4), *fo = malloc(n * 4), *fd = malloc(n * 4);
  int32_t *ia = malloc(n * 4), *io = malloc(n * 4);
  uint32_t* ua = malloc(n * 4);
  double *da = malloc(n * 8), *dof = malloc(n * 8), *du = malloc(n * 8);
  int64_t* lo = malloc(n * 8);
  uint64_t* uo = malloc(n * 8);
  uint64_t s = 29;
  for (long i = 0; i < n; ++i) {
    fa[i] = (float)(int32_t)prog_rand(&s) / 1024.0f;
    ia[i] = (int32_t)prog_rand(&s);
    ua[i] = (uint32_t)prog_rand(&s);
    da[i] = (double)(int64_t)prog_rand(&s) / 3.0;
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    f2i(io, fa, n); i2f(fo, ia, n); d2l(lo, uo, da, n); f2d(dof, fa, n); d2f(fd, da, n); u2d(du, ua, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, io, n * 4); h = prog_hash(h, fo, n * 4); h = prog_hash(h, lo, n * 8); h = prog_hash(h, uo, n * 8);
  h = prog_hash(h, dof, n * 8); h = prog_hash(h, fd, n * 4); h = prog_hash(h, du, n * 8);
  prog_report(h, t);
  return 0;
}
