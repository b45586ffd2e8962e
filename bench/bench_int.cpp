// The cost of one emulated integer instruction, called the way the rewritten
// code calls it: the adapter found by get_sve_handler, on a cpu_state. Next to
// it the floor: a plain copy of one 48-byte register.
#include <benchmark/benchmark.h>

#include "bench/bench_word.h"

namespace {

using bench::run_word;

void BM_Floor_Copy48(benchmark::State& state) { bench::copy_floor(state); }
BENCHMARK(BM_Floor_Copy48);

// Unary, minimum and maximum.
void BM_Fast_SmaxS(benchmark::State& s) { run_word(s, 0x04880861u); }      // SMAX Z1.S, P2/M, Z1.S, Z3.S
void BM_Generic_ClsH(benchmark::State& s) { run_word(s, 0x0458A861u); }    // CLS Z1.H, P2/M, Z3.H
// Saturating arithmetic and counting.
void BM_Fast_IncwX(benchmark::State& s) { run_word(s, 0x04B1E3E3u); }      // INCW X3, ALL, MUL #2
void BM_Generic_SqaddB(benchmark::State& s) { run_word(s, 0x04231041u); }  // SQADD Z1.B, Z2.B, Z3.B
// Logical: every row is fast.
void BM_Fast_AndS(benchmark::State& s) { run_word(s, 0x049A0861u); }       // AND Z1.S, P2/M, Z1.S, Z3.S
void BM_Fast_EorD(benchmark::State& s) { run_word(s, 0x04A33041u); }       // EOR Z1.D, Z2.D, Z3.D
// Broadcast and select.
void BM_Fast_SelS(benchmark::State& s) { run_word(s, 0x05A3C841u); }       // SEL Z1.S, P2, Z2.S, Z3.S
void BM_Generic_FcpyS(benchmark::State& s) { run_word(s, 0x0592CE01u); }   // FMOV Z1.S, P2/M, #1.0

BENCHMARK(BM_Fast_SmaxS);
BENCHMARK(BM_Generic_ClsH);
BENCHMARK(BM_Fast_IncwX);
BENCHMARK(BM_Generic_SqaddB);
BENCHMARK(BM_Fast_AndS);
BENCHMARK(BM_Fast_EorD);
BENCHMARK(BM_Fast_SelS);
BENCHMARK(BM_Generic_FcpyS);

}  // namespace

BENCHMARK_MAIN();
