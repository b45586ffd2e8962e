// The software floating-point library against the host's own floating-point
// unit: add, multiply, fused multiply-add, divide and square root at single
// and double precision, on random normal operands. Figures are ns per
// operation (items_per_second inverted); each loop runs independent
// operations, so both sides are measured at throughput.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "sve/lib/fp_lib.h"

namespace {

constexpr size_t N = 1024;

template <class T> struct Host;
template <> struct Host<unsigned int> { typedef float F; };
template <> struct Host<unsigned long> { typedef double F; };

template <class T> std::vector<T> operands(unsigned seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> dist(0.5, 1000.0);
  std::vector<T> v(N);
  for (auto& x : v) {
    typename Host<T>::F f = typename Host<T>::F(dist(rng));
    std::memcpy(&x, &f, sizeof x);
  }
  return v;
}

enum Op { ADD, MUL, FMA, DIV, SQRT };

template <class T, Op op> void Library(benchmark::State& state) {
  auto a = operands<T>(1), b = operands<T>(2), c = operands<T>(3);
  std::vector<T> r(N);
  for (auto _ : state) {
    // as the vector routines use it: a fresh word per element, the flags
    // gathered into a status word
    FPSCR status = 0;
    for (size_t i = 0; i < N; ++i) {
      FPSCR fpscr = 0;
      switch (op) {
        case ADD: r[i] = FPAdd<T>(a[i], b[i], fpscr); break;
        case MUL: r[i] = FPMul<T>(a[i], b[i], fpscr); break;
        case FMA: r[i] = FPMulAdd<T>(c[i], a[i], b[i], fpscr); break;
        case DIV: r[i] = FPDiv<T>(a[i], b[i], fpscr); break;
        case SQRT: r[i] = FPSqrt<T>(a[i], fpscr); break;
      }
      status |= fpscr;
    }
    benchmark::DoNotOptimize(r.data());
    benchmark::DoNotOptimize(status);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(N));
}

template <class T, Op op> void Hardware(benchmark::State& state) {
  typedef typename Host<T>::F F;
  auto ai = operands<T>(1), bi = operands<T>(2), ci = operands<T>(3);
  std::vector<F> a(N), b(N), c(N), r(N);
  std::memcpy(a.data(), ai.data(), N * sizeof(F));
  std::memcpy(b.data(), bi.data(), N * sizeof(F));
  std::memcpy(c.data(), ci.data(), N * sizeof(F));
  for (auto _ : state) {
    for (size_t i = 0; i < N; ++i) {
      F x = a[i], y = b[i], z = c[i];
      // keep the compiler from vectorising or folding: one scalar
      // operation per element, as the library does
      benchmark::DoNotOptimize(x);
      switch (op) {
        case ADD: r[i] = x + y; break;
        case MUL: r[i] = x * y; break;
        case FMA: r[i] = std::fma(x, y, z); break;
        case DIV: r[i] = x / y; break;
        case SQRT: r[i] = std::sqrt(x); break;
      }
    }
    benchmark::DoNotOptimize(r.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(N));
}

#define FPLIB_BENCH(OP)                                            \
  BENCHMARK_TEMPLATE(Library, unsigned int, OP);                   \
  BENCHMARK_TEMPLATE(Hardware, unsigned int, OP);                  \
  BENCHMARK_TEMPLATE(Library, unsigned long, OP);                  \
  BENCHMARK_TEMPLATE(Hardware, unsigned long, OP);
FPLIB_BENCH(ADD)
FPLIB_BENCH(MUL)
FPLIB_BENCH(FMA)
FPLIB_BENCH(DIV)
FPLIB_BENCH(SQRT)

}  // namespace

BENCHMARK_MAIN();
