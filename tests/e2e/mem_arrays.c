// Loops over arrays of every element width that GCC vectorises for SVE at
// -O3: contiguous loads and stores (same width and widening), with trip counts
// that are not multiples of the vector length, so that the last pass runs
// under a partial predicate. Prints a checksum of every result.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "e2e.h"

#define N 1003

static uint8_t a8[N], b8[N], d8[N];
static uint16_t a16[N], b16[N], d16[N];
static uint32_t a32[N], b32[N], d32[N], w32[N];
static uint64_t a64[N], b64[N], d64[N], w64[N];

#define KERNEL(T, name)                                                                        \
  __attribute__((noipa)) static void name(T* restrict d, const T* restrict a, const T* restrict b, int n) { \
    for (int i = 0; i < n; ++i) d[i] = (T)(a[i] + b[i] * 3u);                                  \
  }
KERNEL(uint8_t, k8)
KERNEL(uint16_t, k16)
KERNEL(uint32_t, k32)
KERNEL(uint64_t, k64)

// Widening loads: bytes and halfwords into words, words into doublewords.
__attribute__((noipa)) static void widen32(uint32_t* restrict d, const uint8_t* restrict a, const int16_t* restrict b, int n) {
  for (int i = 0; i < n; ++i) d[i] = a[i] + (uint32_t)(int32_t)b[i];
}
__attribute__((noipa)) static void widen64(uint64_t* restrict d, const int32_t* restrict a, const uint16_t* restrict b, int n) {
  for (int i = 0; i < n; ++i) d[i] = (uint64_t)(int64_t)a[i] + b[i];
}
// Narrowing stores.
__attribute__((noipa)) static void narrow8(uint8_t* restrict d, const uint32_t* restrict a, int n) {
  for (int i = 0; i < n; ++i) d[i] = (uint8_t)(a[i] >> 3);
}

int main(void) {
  uint64_t x = 88172645463325252ull;
  for (int i = 0; i < N; ++i) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    a8[i] = (uint8_t)x, b8[i] = (uint8_t)(x >> 8);
    a16[i] = (uint16_t)(x >> 16), b16[i] = (uint16_t)(x >> 24);
    a32[i] = (uint32_t)(x >> 3), b32[i] = (uint32_t)(x >> 29);
    a64[i] = x, b64[i] = x * 7;
  }
  const int counts[] = {N, N - 1, 47, 13, 1, 0};
  for (unsigned c = 0; c < sizeof counts / sizeof counts[0]; ++c) {
    const int n = counts[c];
    memset(d8, 0, sizeof d8), memset(d16, 0, sizeof d16), memset(d32, 0, sizeof d32), memset(d64, 0, sizeof d64);
    memset(w32, 0, sizeof w32), memset(w64, 0, sizeof w64);
    k8(d8, a8, b8, n);
    k16(d16, a16, b16, n);
    k32(d32, a32, b32, n);
    k64(d64, a64, b64, n);
    widen32(w32, a8, (const int16_t*)a16, n);
    widen64(w64, (const int32_t*)a32, b16, n);
    narrow8(b8, a32, n / 2);
    printf("n=%4d  %016llx %016llx %016llx %016llx  %016llx %016llx %016llx\n", n,
           (unsigned long long)e2e_hash(d8, sizeof d8), (unsigned long long)e2e_hash(d16, sizeof d16),
           (unsigned long long)e2e_hash(d32, sizeof d32), (unsigned long long)e2e_hash(d64, sizeof d64),
           (unsigned long long)e2e_hash(w32, sizeof w32), (unsigned long long)e2e_hash(w64, sizeof w64),
           (unsigned long long)e2e_hash(b8, sizeof b8));
  }
  return 0;
}
