// The cost of one emulated fused multiply-add and one reduction, called the
// way the rewritten code calls them: the adapter found by get_sve_handler, on
// a cpu_state. Single and double FMLA take the fast road, half the generic
// one; FADDV takes the generic road at every width, FMAXNMV the fast one.
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

void run_word(benchmark::State& state, uint32_t word, unsigned size) {
  bench::run_word(state, state_for_bench(size), word);
}

// FMLA Z0, P0/M, Z1, Z2: the accumulator keeps growing by about 1 per call,
// so the numbers stay ordinary.
void BM_Fast_FmlaS(benchmark::State& s) { run_word(s, 0x65a20020u, 2); }
void BM_Fast_FmlaD(benchmark::State& s) { run_word(s, 0x65e20020u, 3); }
void BM_Generic_FmlaH(benchmark::State& s) { run_word(s, 0x65620020u, 1); }
// FADDV V0, P0, Z1
void BM_Generic_FaddvS(benchmark::State& s) { run_word(s, 0x65802020u, 2); }
void BM_Generic_FaddvD(benchmark::State& s) { run_word(s, 0x65c02020u, 3); }
void BM_Generic_FaddvH(benchmark::State& s) { run_word(s, 0x65402020u, 1); }
// FMAXNMV S0, P0, Z1 and FADDA S0, P0, S0, Z1
void BM_Fast_FmaxnmvS(benchmark::State& s) { run_word(s, 0x65842020u, 2); }
void BM_Generic_FaddaS(benchmark::State& s) { run_word(s, 0x65982020u, 2); }

BENCHMARK(BM_Fast_FmlaS);
BENCHMARK(BM_Fast_FmlaD);
BENCHMARK(BM_Generic_FmlaH);
BENCHMARK(BM_Generic_FaddvS);
BENCHMARK(BM_Generic_FaddvD);
BENCHMARK(BM_Generic_FaddvH);
BENCHMARK(BM_Fast_FmaxnmvS);
BENCHMARK(BM_Generic_FaddaS);

}  // namespace
BENCHMARK_MAIN();
