// A histogram of bytes and a weighted histogram of 16-bit keys: indirect
// read-modify-write, which the vectoriser must leave scalar or handle with
// care for repeated keys, around a vectorised key computation.
#include "prog.h"

__attribute__((noipa)) static void keys(uint16_t* restrict k, const uint32_t* restrict v, long n) {
  for (long i = 0; i < n; ++i) k[i] = (uint16_t)((v[i] * 2654435761u) >> 22);
}
__attribute__((noipa)) static void hist(uint32_t* restrict h, const uint16_t* restrict k, const uint8_t* restrict w, long n) {
  for (long i = 0; i < n; ++i) h[k[i]] += w[i];
}
__attribute__((noipa)) static void hist8(uint32_t* restrict h, const uint8_t* restrict b, long n) {
  for (long i = 0; i < n; ++i) h[b[i]]++;
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 20);
  uint32_t* v = malloc(n * 4);
  uint16_t* k = malloc(n * 2);
  uint8_t* w = malloc(n);
  uint32_t* h = calloc(1024, 4);
  uint32_t* h8 = calloc(256, 4);
  uint64_t s = 5;
  for (long i = 0; i < n; ++i) { v[i] = (uint32_t)prog_rand(&s); w[i] = (uint8_t)(prog_rand(&s) & 7); }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    keys(k, v, n);
    hist(h, k, w, n);
    hist8(h8, w, n);
    v[r] += 1;
  }
  double t = prog_now() - t0;
  uint64_t x = PROG_HASH0;
  x = prog_hash(x, h, 1024 * 4); x = prog_hash(x, h8, 256 * 4); x = prog_hash(x, k, n * 2);
  prog_report(x, t);
  return 0;
}
