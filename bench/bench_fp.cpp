// Floating-point vector instructions from word to result, through the decode
// table's adapters: FADD, FMLA and FADDV at single and double precision (the
// fast road) and at half precision (the generic road). Lanes hold ordinary
// numbers, all active. A row that has not landed on this build is skipped.
#include <benchmark/benchmark.h>

#include <cstring>

#include "sve/dispatch/decode.h"

namespace {

void run_word(benchmark::State& state, uint32_t word, unsigned size) {
  static cpu_state s;
  std::memset(&s, 0, sizeof s);
  const unsigned bytes = 1u << size;
  for (unsigned r = 0; r < 3; ++r)
    for (unsigned i = 0; i < 48; i += bytes) {
      // 1.0 + a little at each width: sums and products stay finite.
      const uint64_t v = size == 1 ? 0x3c01 : size == 2 ? 0x3f800001 : 0x3ff0000000000001;
      std::memcpy(s.z[r] + i, &v, bytes);
    }
  for (unsigned i = 0; i < 48; i += bytes) s.p[1][i] = 1;
  const sve_handler_fn h = get_sve_handler(word);
  if (!h || h(&s, word) != AARCH64_DECODE_OK) {
    state.SkipWithError("row not landed");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(h(&s, word));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

// z0 = Zdn / Zda, p1 = Pg, z1, z2 = other sources; size code in bits 23..22.
void BM_Fadd(benchmark::State& s) { run_word(s, 0x65008440u | unsigned(s.range(0)) << 22, unsigned(s.range(0))); }
void BM_Fmla(benchmark::State& s) { run_word(s, 0x65220420u | unsigned(s.range(0)) << 22, unsigned(s.range(0))); }
void BM_Faddv(benchmark::State& s) { run_word(s, 0x65002440u | unsigned(s.range(0)) << 22, unsigned(s.range(0))); }

// Argument: size code (1 half, 2 single, 3 double).
BENCHMARK(BM_Fadd)->Arg(2)->Arg(3)->Arg(1);
BENCHMARK(BM_Fmla)->Arg(2)->Arg(3)->Arg(1);
BENCHMARK(BM_Faddv)->Arg(2)->Arg(3)->Arg(1);

}  // namespace
BENCHMARK_MAIN();
