// Predicate instructions and a compare, in ns per instruction, each through
// its row's adapter on a cpu_state (the adapter found once by get_sve_handler,
// as the client does when it rewrites a block): PTEST, AND and ANDS (the
// flag-setting form takes the generic road), WHILELO on the fast road and
// WHILELE on the generic one, the generic WHILELO routine called alone, and
// compares with flags on both roads.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/bench_word.h"
#include "sve/predicate/pred_while.h"

namespace {

cpu_state machine() {
  static cpu_state s;   // static: large, and zeroed
  std::memset(&s, 0, sizeof s);
  for (unsigned p = 0; p < 16; ++p)
    for (unsigned i = 0; i < kVecBytes; ++i) s.p[p][i] = (i * 7 + p) % 3 != 0;
  for (unsigned z = 0; z < 32; ++z)
    for (unsigned i = 0; i < kVecBytes; ++i) s.z[z][i] = static_cast<unsigned char>(i * 13 + z);
  s.x[2] = 100;
  s.x[3] = 140;
  return s;
}

void run_word(benchmark::State& state, uint32_t word) {
  cpu_state s = machine();
  bench::run_word(state, &s, word);
}

void BM_Ptest(benchmark::State& s) { run_word(s, 0x2550c860u); }            // ptest p2, p3.b
void BM_And_Fast(benchmark::State& s) { run_word(s, 0x25034841u); }         // and p1.b, p2/z, p2.b, p3.b
void BM_Ands_Generic(benchmark::State& s) { run_word(s, 0x25434841u); }     // ands p1.b, p2/z, p2.b, p3.b
void BM_WhileloW_Fast(benchmark::State& s) { run_word(s, 0x25a30c41u); }    // whilelo p1.s, w2, w3
void BM_WhileloX_Fast(benchmark::State& s) { run_word(s, 0x25a31c41u); }    // whilelo p1.s, x2, x3
void BM_WhileleX_Generic(benchmark::State& s) { run_word(s, 0x25a31451u); } // whilele p1.s, x2, x3
void BM_CmpeqZZ_Fast(benchmark::State& s) { run_word(s, 0x2484a861u); }     // cmpeq p1.s, p2/z, z3.s, z4.s
void BM_CmpgeZI_Generic(benchmark::State& s) { run_word(s, 0x25900861u); }  // cmpge p1.s, p2/z, z3.s, #-16

// The generic WHILELO routine by itself, without the adapter's packing.
void BM_WhileloX_GenericRoutine(benchmark::State& state) {
  CpuContext c{};
  c.vl = kVecUnits;
  uint64_t a = 100, b = 140;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(VecU32While8LTSS(a, b, &c));
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Ptest);
BENCHMARK(BM_And_Fast);
BENCHMARK(BM_Ands_Generic);
BENCHMARK(BM_WhileloW_Fast);
BENCHMARK(BM_WhileloX_Fast);
BENCHMARK(BM_WhileleX_Generic);
BENCHMARK(BM_WhileloX_GenericRoutine);
BENCHMARK(BM_CmpeqZZ_Fast);
BENCHMARK(BM_CmpgeZI_Generic);

}  // namespace

BENCHMARK_MAIN();
