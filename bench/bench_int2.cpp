// The cost of one emulated instruction of the multiply/divide, reduction and
// permute families, through get_sve_handler and the adapter on a cpu_state,
// against the floor of copying one 48-byte register.
#include <benchmark/benchmark.h>

#include "bench/bench_word.h"

namespace {

void run(benchmark::State& state, uint32_t word) { bench::run_word(state, word); }
void BM_CopyFloor(benchmark::State& state) { bench::copy_floor(state); }

void BM_Mul_S(benchmark::State& s) { run(s, 0x04900020); }      // mul z0.s, p0/m, z0.s, z1.s
void BM_Sdiv_S(benchmark::State& s) { run(s, 0x04940020); }     // sdiv z0.s, p0/m, z0.s, z1.s
void BM_Sdiv_D(benchmark::State& s) { run(s, 0x04d40020); }     // sdiv z0.d, p0/m, z0.d, z1.d
void BM_Uaddv_B(benchmark::State& s) { run(s, 0x04012020); }    // uaddv d0, p0, z1.b
void BM_Tbl_B(benchmark::State& s) { run(s, 0x05223020); }      // tbl z0.b, {z1.b}, z2.b
void BM_Zip1_B(benchmark::State& s) { run(s, 0x05226020); }     // zip1 z0.b, z1.b, z2.b
void BM_Zip1_D(benchmark::State& s) { run(s, 0x05e26020); }     // zip1 z0.d, z1.d, z2.d

BENCHMARK(BM_CopyFloor);
BENCHMARK(BM_Mul_S);
BENCHMARK(BM_Sdiv_S);
BENCHMARK(BM_Sdiv_D);
BENCHMARK(BM_Uaddv_B);
BENCHMARK(BM_Tbl_B);
BENCHMARK(BM_Zip1_B);
BENCHMARK(BM_Zip1_D);

}  // namespace

BENCHMARK_MAIN();
