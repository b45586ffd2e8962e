// Dot products and sums in single and double precision. Built twice: as it
// stands the sums keep their order (ordered reductions), with -ffast-math
// they are reassociated (tree reductions).
#include "prog.h"

__attribute__((noipa)) static float sdot(const float* restrict a, const float* restrict b, long n) {
  float s = 0;
  for (long i = 0; i < n; ++i) s += a[i] * b[i];
  return s;
}
__attribute__((noipa)) static double ddot(const double* restrict a, const double* restrict b, long n) {
  double s = 0;
  for (long i = 0; i < n; ++i) s += a[i] * b[i];
  return s;
}
__attribute__((noipa)) static float smax(const float* restrict a, long n) {
  float m = -1e30f;
  for (long i = 0; i < n; ++i) m = a[i] > m ? a[i] : m;
  return m;
}
__attribute__((noipa)) static double dsum(const double* restrict a, long n) {
  double s = 0;
  for (long i = 0; i < n; ++i) s += a[i];
  return s;
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  float *a = malloc(n * 4), *b = malloc(n * 4);
  double *da = malloc(n * 8), *db = malloc(n * 8);
  uint64_t s = 41;
  for (long i = 0; i < n; ++i) {
    a[i] = (float)(int32_t)prog_rand(&s) / 2147483648.0f; b[i] = (float)(int32_t)prog_rand(&s) / 2147483648.0f;
    da[i] = (double)(int64_t)prog_rand(&s) / 9.2e18; db[i] = (double)(int64_t)prog_rand(&s) / 9.2e18;
  }
  uint64_t h = PROG_HASH0;
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    float x = sdot(a + r, b, n - r), m = smax(a, n - r);
    double y = ddot(da + r, db, n - r), z = dsum(da, n - r);
    h = prog_hash(h, &x, 4); h = prog_hash(h, &m, 4); h = prog_hash(h, &y, 8); h = prog_hash(h, &z, 8);
  }
  prog_report(h, prog_now() - t0);
  return 0;
}
