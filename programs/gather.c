// Strided and indirect access: gathers, scatters and strided loads/stores
// with 32- and 64-bit indices.
#include "prog.h"

__attribute__((noipa)) static void gather32(uint32_t* restrict b, const uint32_t* restrict a, const int32_t* restrict idx, long n) {
  for (long i = 0; i < n; ++i) b[i] = a[idx[i]] + 1;
}
__attribute__((noipa)) static void scatter64(uint64_t* restrict c, const uint64_t* restrict b, const int64_t* restrict idx, long n) {
  for (long i = 0; i < n; ++i) c[idx[i]] = b[i] ^ 0x5555;
}
__attribute__((noipa)) static void strided(int32_t* restrict c, const int32_t* restrict a, long n, long stride) {
  for (long i = 0; i < n; ++i) c[i * stride] = a[i * 3] * 2;
}
__attribute__((noipa)) static void gather16(uint16_t* restrict b, const uint16_t* restrict a, const uint32_t* restrict idx, long n) {
  for (long i = 0; i < n; ++i) b[i] = a[idx[i]];
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 19);
  uint32_t *a = malloc(n * 4), *b = malloc(n * 4), *ui = malloc(n * 4);
  int32_t* idx = malloc(n * 4);
  int64_t* idx64 = malloc(n * 8);
  uint64_t *b64 = malloc(n * 8), *c64 = calloc(n, 8);
  int32_t *sa = malloc(n * 12), *sc = calloc(n * 5, 4);
  uint16_t *a16 = malloc(n * 2), *b16 = malloc(n * 2);
  uint64_t s = 11;
  for (long i = 0; i < n; ++i) {
    a[i] = (uint32_t)prog_rand(&s); idx[i] = (int32_t)(prog_rand(&s) % n); ui[i] = (uint32_t)(prog_rand(&s) % n);
    b64[i] = prog_rand(&s); idx64[i] = (int64_t)i; a16[i] = (uint16_t)prog_rand(&s);
  }
  for (long i = n - 1; i > 0; --i) {   // a permutation: scatters without collisions
    long j = (long)(prog_rand(&s) % (uint64_t)(i + 1));
    int64_t t = idx64[i]; idx64[i] = idx64[j]; idx64[j] = t;
  }
  for (long i = 0; i < n * 3; ++i) sa[i] = (int32_t)prog_rand(&s);
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    gather32(b, a, idx, n);
    scatter64(c64, b64, idx64, n);
    strided(sc, sa, n, 5);
    gather16(b16, a16, ui, n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, b, n * 4); h = prog_hash(h, c64, n * 8); h = prog_hash(h, sc, n * 20); h = prog_hash(h, b16, n * 2);
  prog_report(h, t);
  return 0;
}
