// The cost of get_sve_handler: the bucket index against the 44-map cascade,
// for words that hit a row and words that miss. Lookups happen once per
// instruction when a block is rewritten, never at emulation time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "sve/dispatch/decode.h"

namespace {

// One word per row with random operand fields.
std::vector<uint32_t> hit_words() {
  std::mt19937 rng(1);
  std::vector<uint32_t> words;
  for (const decode_row& r : decode_rows) words.push_back(r.value | (rng() & ~r.mask));
  std::shuffle(words.begin(), words.end(), rng);
  return words;
}

// Words that match no row: ordinary AArch64 code (outside the SVE group) or
// unallocated words inside it.
std::vector<uint32_t> miss_words(bool in_group) {
  std::mt19937 rng(2);
  std::vector<uint32_t> words;
  while (words.size() < 4096) {
    uint32_t w = rng();
    if (in_group) w = (w & ~0x1E000000u) | 0x04000000u;
    if (!get_sve_handler_cascade(w)) words.push_back(w);
  }
  return words;
}

template <sve_handler_fn (*Lookup)(unsigned int)>
void run(benchmark::State& state, const std::vector<uint32_t>& words) {
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Lookup(words[i]));
    if (++i == words.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Index_Hit(benchmark::State& s) { run<get_sve_handler>(s, hit_words()); }
void BM_Cascade_Hit(benchmark::State& s) { run<get_sve_handler_cascade>(s, hit_words()); }
void BM_Index_MissSveGroup(benchmark::State& s) { run<get_sve_handler>(s, miss_words(true)); }
void BM_Cascade_MissSveGroup(benchmark::State& s) { run<get_sve_handler_cascade>(s, miss_words(true)); }
void BM_Index_MissOther(benchmark::State& s) { run<get_sve_handler>(s, miss_words(false)); }
void BM_Cascade_MissOther(benchmark::State& s) { run<get_sve_handler_cascade>(s, miss_words(false)); }

BENCHMARK(BM_Index_Hit);
BENCHMARK(BM_Cascade_Hit);
BENCHMARK(BM_Index_MissSveGroup);
BENCHMARK(BM_Cascade_MissSveGroup);
BENCHMARK(BM_Index_MissOther);
BENCHMARK(BM_Cascade_MissOther);

}  // namespace

BENCHMARK_MAIN();
