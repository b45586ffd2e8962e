// Integer reductions: sums (with widening), maximum, minimum, and, or, xor.
#include "prog.h"

struct red { int64_t sum64; int32_t sum32; int32_t max; uint16_t min; uint32_t xor_; uint8_t and_; uint64_t or_; };

__attribute__((noipa)) static struct red reduce(const int32_t* restrict a, const uint16_t* restrict b,
                                                const uint8_t* restrict c, const uint64_t* restrict d, long n) {
  struct red r = {0, 0, INT32_MIN, 0xffff, 0, 0xff, 0};
  for (long i = 0; i < n; ++i) r.sum64 += a[i];
  for (long i = 0; i < n; ++i) r.sum32 += a[i] >> 4;
  for (long i = 0; i < n; ++i) r.max = a[i] > r.max ? a[i] : r.max;
  for (long i = 0; i < n; ++i) r.min = b[i] < r.min ? b[i] : r.min;
  for (long i = 0; i < n; ++i) r.xor_ ^= (uint32_t)a[i] * 3u;
  for (long i = 0; i < n; ++i) r.and_ &= c[i] | 0x81;
  for (long i = 0; i < n; ++i) r.or_ |= d[i] & 0x8040201008040201ull;
  return r;
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  int32_t* a = malloc(n * 4);
  uint16_t* b = malloc(n * 2);
  uint8_t* c = malloc(n);
  uint64_t* d = malloc(n * 8);
  uint64_t s = 7;
  for (long i = 0; i < n; ++i) {
    a[i] = (int32_t)prog_rand(&s); b[i] = (uint16_t)(prog_rand(&s) | 0x100); c[i] = (uint8_t)prog_rand(&s);
    d[i] = prog_rand(&s) & prog_rand(&s) & prog_rand(&s);
  }
  uint64_t h = PROG_HASH0;
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    a[r] ^= r;
    struct red x = reduce(a, b, c, d, n - r);
    h = prog_hash(h, &x.sum64, 8); h = prog_hash(h, &x.sum32, 4); h = prog_hash(h, &x.max, 4);
    h = prog_hash(h, &x.min, 2); h = prog_hash(h, &x.xor_, 4); h = prog_hash(h, &x.and_, 1); h = prog_hash(h, &x.or_, 8);
  }
  prog_report(h, prog_now() - t0);
  return 0;
}
