/* A small program with SVE instructions in it, for `make demo`: it reads the
 * vector length, adds vectors with SVE ADD, and runs a loop that the compiler
 * turns into an SVE gather inside the region marked for the memory trace. On a
 * processor without SVE it runs only under `quern run`. */
#include <stdint.h>
#include <stdio.h>

/* ADD Zn.B, Zn.B, #1, LSL #8 and #2, LSL #8: no compiler emits these words;
 * quern reads them as "start" and "stop" of the traced region. */
#define TRACE_START() __asm__ volatile(".inst 0x2520e020" ::: "memory")
#define TRACE_STOP() __asm__ volatile(".inst 0x2520e040" ::: "memory")

/* out[i] = table[idx[i]]: GCC vectorises it into LD1W gathers. */
__attribute__((noipa)) static void gather(uint32_t* restrict out, const uint32_t* restrict table,
                                          const uint32_t* restrict idx, int n) {
  for (int i = 0; i < n; ++i) out[i] = table[idx[i]];
}

int main(void) {
  uint64_t vl;
  __asm__ volatile("rdvl %0, #1" : "=r"(vl));
  printf("vector length: %llu bytes (%llu bits)\n", (unsigned long long)vl, (unsigned long long)vl * 8);

  uint32_t a[4] = {1, 2, 3, 4}, b[4] = {10, 20, 30, 40}, sum[4], diff[4];
  TRACE_START();
  __asm__ volatile(
      "ldr q1, [%2]\n"
      "ldr q2, [%3]\n"
      "add z3.s, z1.s, z2.s\n"
      "sub z4.s, z2.s, z1.s\n"
      "add z3.s, z3.s, #100\n"
      "str q3, [%0]\n"
      "str q4, [%1]\n"
      : : "r"(sum), "r"(diff), "r"(a), "r"(b) : "v1", "v2", "v3", "v4", "memory");
  uint32_t table[64], idx[30], out[30];
  for (int i = 0; i < 64; ++i) table[i] = (uint32_t)(i * i);
  for (int i = 0; i < 30; ++i) idx[i] = (uint32_t)(i * 7 % 64);
  gather(out, table, idx, 30);
  TRACE_STOP();
  printf("gathered    = %u %u %u ... %u (30 loads, traced)\n", out[0], out[1], out[2], out[29]);
  printf("a + b + 100 = %u %u %u %u\n", sum[0], sum[1], sum[2], sum[3]);
  printf("b - a       = %u %u %u %u\n", diff[0], diff[1], diff[2], diff[3]);
  return 0;
}
