// A gather loop (b[i] = a[idx[i]]) and a scatter loop (c[idx[i]] = b[i] * 3)
// that GCC vectorises for SVE at -O3, run by several threads at once. With
// --markers each thread runs its loops inside a traced region, and the
// program prints how many active lanes its gathers and scatters had: one per
// element, as the loops are fully predicated. The output is the same either
// way, so the reference processor (which has no markers) runs it without.
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

enum { kThreads = 4, kN = 1000 };

static int use_markers;

#define START() __asm__ volatile(".inst 0x2520e020" ::: "memory")   // ADD Z0.B, Z0.B, #1, LSL #8
#define STOP() __asm__ volatile(".inst 0x2520e040" ::: "memory")    // ADD Z0.B, Z0.B, #2, LSL #8

__attribute__((noipa)) static void gather32(uint32_t* restrict b, const uint32_t* restrict a, const int32_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) b[i] = a[idx[i]];
}
__attribute__((noipa)) static void scatter32(uint32_t* restrict c, const uint32_t* restrict b, const int32_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) c[idx[i]] = b[i] * 3;
}
__attribute__((noipa)) static void gather64(uint64_t* restrict b, const uint64_t* restrict a, const int64_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) b[i] = a[idx[i]];
}
__attribute__((noipa)) static void scatter64(uint64_t* restrict c, const uint64_t* restrict b, const int64_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) c[idx[i]] = b[i] + 1;
}

struct job {
  int id;
  long lanes;
  uint64_t sum;
};

static void* worker(void* arg) {
  struct job* j = arg;
  static __thread uint32_t a[kN], b[kN], c[kN];
  static __thread int32_t idx[kN];
  static __thread uint64_t a64[kN], b64[kN], c64[kN];
  static __thread int64_t idx64[kN];
  uint64_t x = 0x9E3779B97F4A7C15ull * (uint64_t)(j->id + 1);
  for (int i = 0; i < kN; ++i) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    a[i] = (uint32_t)x, a64[i] = x;
    idx[i] = (int32_t)((uint32_t)(i * 7919 + j->id) % kN);   // a permutation: scatters do not collide
    idx64[i] = (kN - 1 - i);
  }
  memset(c, 0, sizeof c);
  memset(c64, 0, sizeof c64);
  const int n = kN - 17 * j->id;   // not a multiple of any vector length
  if (use_markers) START();
  gather32(b, a, idx, n);
  scatter32(c, b, idx, n);
  gather64(b64, a64, idx64, n);
  scatter64(c64, b64, idx64, n);
  if (use_markers) STOP();
  j->lanes = 4L * n;
  uint64_t h = 1469598103934665603ull;
  for (int i = 0; i < kN; ++i) h = (h ^ c[i] ^ b[i] ^ c64[i] ^ b64[i]) * 1099511628211ull;
  j->sum = h;
  return NULL;
}

int main(int argc, char** argv) {
  use_markers = argc > 1 && strcmp(argv[1], "--markers") == 0;
  pthread_t t[kThreads];
  struct job jobs[kThreads];
  for (int k = 0; k < kThreads; ++k) {
    jobs[k] = (struct job){.id = k};
    pthread_create(&t[k], NULL, worker, &jobs[k]);
  }
  long lanes = 0;
  for (int k = 0; k < kThreads; ++k) {
    pthread_join(t[k], NULL);
    printf("thread %d: %016llx\n", k, (unsigned long long)jobs[k].sum);
    lanes += jobs[k].lanes;
  }
  printf("active lanes: %ld\n", lanes);
  return 0;
}
