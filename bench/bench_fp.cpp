// Floating-point vector instructions from word to result, called the way the
// rewritten code calls them: the adapter found by get_sve_handler, on a
// cpu_state. Single and double FADD and FMLA take the fast road, half the
// generic one; FADDV and FADDA take the generic road at every width, FMAXNMV
// the fast one. Lanes hold ordinary numbers, every lane active.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>

#include "bench/bench_word.h"

namespace {

// Ordinary numbers in every lane (no NaNs, no subnormals), every lane active.
cpu_state* state_for_bench(unsigned size) {
  static cpu_state s;
  std::memset(&s, 0, sizeof s);
  std::mt19937_64 rng(5);
  const unsigned bytes = 1u << size;
  for (auto& z : s.z)
    for (unsigned i = 0; i < kVecBytes; i += bytes) {
      const double d = 0.5 + double(rng() % 1000) / 1000.0;
      uint64_t bits;
      if (size == 3) {
        std::memcpy(&bits, &d, 8);
      } else if (size == 2) {
        const float f = float(d);
        uint32_t u;
        std::memcpy(&u, &f, 4);
        bits = u;
      } else {
        bits = 0x3800u | (rng() & 0x3ffu);  // 0.5 to 1.0 in half precision
      }
      std::memcpy(z + i, &bits, bytes);
    }
  for (auto& p : s.p) std::memset(p, 1, kVecBytes);
  return &s;
}

// The size code (1 half, 2 single, 3 double) goes into bits 23..22 of the word.
void run_sized(benchmark::State& state, uint32_t word) {
  const unsigned size = unsigned(state.range(0));
  bench::run_word(state, state_for_bench(size), word | size << 22);
}

// FADD Z0, P0/M, Z0, Z1: the sum grows by about 1 per call, and stays ordinary.
void BM_Fadd(benchmark::State& s) { run_sized(s, 0x65008020u); }
// FMLA Z0, P0/M, Z1, Z2: likewise.
void BM_Fmla(benchmark::State& s) { run_sized(s, 0x65220020u); }
// FADDV V0, P0, Z1
void BM_Faddv(benchmark::State& s) { run_sized(s, 0x65002020u); }
// FMAXNMV V0, P0, Z1 and FADDA V0, P0, V0, Z1
void BM_Fmaxnmv(benchmark::State& s) { run_sized(s, 0x65042020u); }
void BM_Fadda(benchmark::State& s) { run_sized(s, 0x65182020u); }

BENCHMARK(BM_Fadd)->Arg(2)->Arg(3)->Arg(1);
BENCHMARK(BM_Fmla)->Arg(2)->Arg(3)->Arg(1);
BENCHMARK(BM_Faddv)->Arg(2)->Arg(3)->Arg(1);
BENCHMARK(BM_Fmaxnmv)->Arg(2);
BENCHMARK(BM_Fadda)->Arg(2);

}  // namespace
BENCHMARK_MAIN();
