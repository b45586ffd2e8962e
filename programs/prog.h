// What every program of the suite shares: its size from the command line,
// a clock around the kernel, and a checksum of the output's bytes (FNV-1a),
// so that a single differing bit anywhere shows.
#ifndef QUERN_PROGRAMS_PROG_H
#define QUERN_PROGRAMS_PROG_H
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// The size from argv[1] ("small" runs of CI, full ones of `make programs`).
static inline long prog_size(int argc, char** argv, long full) {
  if (argc > 1) {
    long n = strtol(argv[1], NULL, 10);
    if (n > 0) return n;
  }
  return full;
}

static inline double prog_now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static inline uint64_t prog_hash(uint64_t h, const void* p, size_t n) {
  const unsigned char* b = (const unsigned char*)p;
  for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 0x100000001b3ull;
  return h;
}
#define PROG_HASH0 0xcbf29ce484222325ull

// A deterministic pseudo-random sequence (xorshift64*).
static inline uint64_t prog_rand(uint64_t* s) {
  *s ^= *s >> 12;
  *s ^= *s << 25;
  *s ^= *s >> 27;
  return *s * 0x2545f4914f6cdd1dull;
}

// The two lines the runner reads: the checksum must be the same everywhere,
// the time is the kernel's alone.
static inline void prog_report(uint64_t checksum, double seconds) {
  printf("checksum %016llx\n", (unsigned long long)checksum);
  fprintf(stderr, "kernel time %.6f s\n", seconds);
}

#ifdef __cplusplus
}
#endif
#endif
