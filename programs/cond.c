// Conditional code: an if inside the loop (predicated stores), a select, and
// a conditional count.
#include "prog.h"

__attribute__((noipa)) static void cond_store(int32_t* restrict c, const int32_t* restrict a, const int32_t* restrict b, long n) {
  for (long i = 0; i < n; ++i)
    if (a[i] > b[i]) c[i] = a[i] - b[i];
}
__attribute__((noipa)) static void select64(int64_t* restrict c, const int64_t* restrict a, const int64_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = (a[i] & 1) ? a[i] * 3 : b[i] + 5;
}
__attribute__((noipa)) static long count_if(const uint16_t* restrict a, long n) {
  long k = 0;
  for (long i = 0; i < n; ++i) k += a[i] > 20000 && a[i] < 50000;
  return k;
}
__attribute__((noipa)) static void cond_load(int32_t* restrict c, const int32_t* restrict a, const int32_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) c[i] = a[i] < 0 ? b[i] : a[i];
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  int32_t *a = malloc(n * 4), *b = malloc(n * 4), *c = calloc(n, 4), *e = malloc(n * 4);
  int64_t *a64 = malloc(n * 8), *b64 = malloc(n * 8), *c64 = malloc(n * 8);
  uint16_t* u = malloc(n * 2);
  uint64_t s = 3;
  for (long i = 0; i < n; ++i) {
    a[i] = (int32_t)prog_rand(&s); b[i] = (int32_t)prog_rand(&s);
    a64[i] = (int64_t)prog_rand(&s); b64[i] = (int64_t)prog_rand(&s); u[i] = (uint16_t)prog_rand(&s);
  }
  long k = 0;
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    cond_store(c, a, b, n - r);
    select64(c64, a64, b64, n - r);
    k += count_if(u + r, n - r);
    cond_load(e, a, b, n - r);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, c, n * 4); h = prog_hash(h, c64, (n - 3) * 8); h = prog_hash(h, &k, 8); h = prog_hash(h, e, (n - 3) * 4);
  prog_report(h, t);
  return 0;
}
