// The loops every SVE compiler writes first: WHILELO to make the predicate,
// LD1W, ADD, ST1W, a step by the vector's word count (CNTW, or INCW of the
// index vector), and a branch on the flags WHILELO sets. Trip counts
// that are not multiples of the 12 words of a vector leave a partial last pass.
#include <stdint.h>
#include <stdio.h>

#define N 203

static int32_t a[N], b[N], c[N];

__attribute__((noipa)) static void add(int32_t* restrict d, const int32_t* restrict x, const int32_t* restrict y,
                                       unsigned n) {
  for (unsigned i = 0; i < n; ++i) d[i] = x[i] + y[i];
}

// d[i] = x[i] + i: the index lives in a vector that INCW steps.
__attribute__((noipa)) static void ramp(int32_t* restrict d, const int32_t* restrict x, int n) {
  for (int i = 0; i < n; ++i) d[i] = x[i] + i;
}

int main(void) {
  for (int i = 0; i < N; ++i) a[i] = i * 7 - 300, b[i] = 1000 - i * i;
  static const unsigned counts[] = {0, 1, 11, 12, 13, 24, 25, 100, 203};
  for (unsigned k = 0; k < sizeof counts / sizeof counts[0]; ++k) {
    for (int i = 0; i < N; ++i) c[i] = -1;
    add(c, a, b, counts[k]);
    int64_t sum = 0;
    for (int i = 0; i < N; ++i) sum = sum * 31 + c[i];
    ramp(c, b, (int)counts[k]);
    for (int i = 0; i < N; ++i) sum = sum * 31 + c[i];
    printf("n=%u c[0]=%d c[n-1]=%d c[n]=%d hash=%lld\n", counts[k], c[0], counts[k] ? c[counts[k] - 1] : 0,
           counts[k] < N ? c[counts[k]] : 0, (long long)sum);
  }
  return 0;
}
