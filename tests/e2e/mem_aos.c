// Arrays of structures that GCC at -O3 turns into LD3/ST3 (and LD2/ST2,
// LD4/ST4) for SVE: each pass loads three interleaved fields into three
// registers and stores them back interleaved. Trip counts that are not
// multiples of the vector length. Prints a checksum of every result.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "e2e.h"

#define N 517

struct rgb32 { uint32_t r, g, b; };
struct rgb8 { uint8_t r, g, b; };
struct pair16 { uint16_t re, im; };
struct quad64 { uint64_t a, b, c, d; };

static struct rgb32 in32[N], out32[N];
static struct rgb8 in8[N], out8[N];
static struct pair16 inp[N], outp[N];
static struct quad64 inq[N], outq[N];

__attribute__((noipa)) static void mix32(struct rgb32* restrict o, const struct rgb32* restrict in, int n) {
  for (int i = 0; i < n; ++i) {
    o[i].r = in[i].g + in[i].b;
    o[i].g = in[i].r << 1;
    o[i].b = in[i].b ^ in[i].r;
  }
}
__attribute__((noipa)) static void mix8(struct rgb8* restrict o, const struct rgb8* restrict in, int n) {
  for (int i = 0; i < n; ++i) {
    o[i].r = (uint8_t)(in[i].b + 1);
    o[i].g = (uint8_t)(in[i].r + in[i].g);
    o[i].b = in[i].g;
  }
}
__attribute__((noipa)) static void swap16(struct pair16* restrict o, const struct pair16* restrict in, int n) {
  for (int i = 0; i < n; ++i) {
    o[i].re = in[i].im;
    o[i].im = (uint16_t)(in[i].re - in[i].im);
  }
}
__attribute__((noipa)) static void rot64(struct quad64* restrict o, const struct quad64* restrict in, int n) {
  for (int i = 0; i < n; ++i) {
    o[i].a = in[i].b;
    o[i].b = in[i].c + 1;
    o[i].c = in[i].d;
    o[i].d = in[i].a ^ in[i].c;
  }
}

int main(void) {
  uint64_t x = 2463534242ull;
  for (int i = 0; i < N; ++i) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    in32[i] = (struct rgb32){(uint32_t)x, (uint32_t)(x >> 20), (uint32_t)(x >> 40)};
    in8[i] = (struct rgb8){(uint8_t)x, (uint8_t)(x >> 8), (uint8_t)(x >> 16)};
    inp[i] = (struct pair16){(uint16_t)(x >> 5), (uint16_t)(x >> 33)};
    inq[i] = (struct quad64){x, x * 3, x >> 9, ~x};
  }
  const int counts[] = {N, N - 5, 12, 3, 0};
  for (unsigned c = 0; c < sizeof counts / sizeof counts[0]; ++c) {
    const int n = counts[c];
    memset(out32, 0, sizeof out32), memset(out8, 0, sizeof out8), memset(outp, 0, sizeof outp), memset(outq, 0, sizeof outq);
    mix32(out32, in32, n);
    mix8(out8, in8, n);
    swap16(outp, inp, n);
    rot64(outq, inq, n);
    printf("n=%3d  %016llx %016llx %016llx %016llx\n", n, (unsigned long long)e2e_hash(out32, sizeof out32),
           (unsigned long long)e2e_hash(out8, sizeof out8), (unsigned long long)e2e_hash(outp, sizeof outp),
           (unsigned long long)e2e_hash(outq, sizeof outq));
  }
  return 0;
}
