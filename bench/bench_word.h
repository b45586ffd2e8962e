// One emulated instruction, called the way rewritten code calls it: the
// adapter that get_sve_handler finds for the word, on a cpu_state. And the
// floor every such figure is read against: a plain copy of one 48-byte register.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"

namespace bench {

// Random Z and X registers, predicates of random 0/1 bytes. Static: it is large.
inline cpu_state* random_machine() {
  static cpu_state s;
  std::mt19937_64 rng(3);
  std::memset(&s, 0, sizeof s);
  for (auto& z : s.z)
    for (auto& b : z) b = static_cast<unsigned char>(rng());
  for (auto& p : s.p)
    for (auto& b : p) b = static_cast<unsigned char>(rng() & 1);
  for (auto& x : s.x) x = rng();
  return &s;
}

inline void run_word(benchmark::State& state, cpu_state* s, uint32_t word) {
  const sve_handler_fn h = get_sve_handler(word);
  if (!h) {
    state.SkipWithError("word has no row");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(h(s, word));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

inline void run_word(benchmark::State& state, uint32_t word) { run_word(state, random_machine(), word); }

inline void copy_floor(benchmark::State& state) {
  cpu_state* s = random_machine();
  unsigned n = 0;
  for (auto _ : state) {
    std::memcpy(s->z[1 + (n & 1)], s->z[3], kVecBytes);
    ++n;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace bench
