// The same float loops run under each rounding mode (fesetround between
// runs): sums, products, conversions to integer in the current mode, and
// narrowing from double to float.
#include <fenv.h>
#include <math.h>

#include "prog.h"

__attribute__((noipa)) static void arith(float* restrict z, const float* restrict x, const float* restrict y, long n) {
  for (long i = 0; i < n; ++i) z[i] = x[i] * y[i] + x[i] / 3.0f;
}
__attribute__((noipa)) static void to_int(int32_t* restrict o, const float* restrict x, long n) {
  for (long i = 0; i < n; ++i) o[i] = (int32_t)nearbyintf(x[i]);
}
__attribute__((noipa)) static void narrow(float* restrict o, const double* restrict x, long n) {
  for (long i = 0; i < n; ++i) o[i] = (float)(x[i] * 1.1);
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 18);
  float *x = malloc(n * 4), *y = malloc(n * 4), *z = malloc(n * 4), *f = malloc(n * 4);
  int32_t* o = malloc(n * 4);
  double* d = malloc(n * 8);
  uint64_t s = 47, h = PROG_HASH0;
  for (long i = 0; i < n; ++i) {
    x[i] = (float)(int32_t)prog_rand(&s) / 1048576.0f; y[i] = (float)(int32_t)prog_rand(&s) / 7e6f;
    d[i] = (double)(int64_t)prog_rand(&s) / 3e12;
  }
  const int modes[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};
  double t = 0;
  for (int m = 0; m < 4; ++m) {
    fesetround(modes[m]);
    double t0 = prog_now();
    arith(z, x, y, n); to_int(o, z, n); narrow(f, d, n);
    t += prog_now() - t0;
    h = prog_hash(h, z, n * 4); h = prog_hash(h, o, n * 4); h = prog_hash(h, f, n * 4);
  }
  fesetround(FE_TONEAREST);
  prog_report(h, t);
  return 0;
}
