// The memory rows through their adapters, as the emulation call reaches them:
// get_sve_handler once, then the adapter on a cpu_state whose base and offset
// registers point at host buffers. Contiguous LD1W and ST1W with all lanes and
// with every other lane active, LD1RQW on the generic road, a gather with
// 32-bit offsets, LD3W; and a plain 48-byte copy to compare them with.
#include <benchmark/benchmark.h>

#include <cstring>

#include "decode_decls.h"
#include "sve/dispatch/decode.h"

namespace {

struct Rig {
  cpu_state s{};
  alignas(64) unsigned char buf[4096];
  sve_handler_fn h;
  uint32_t word;
  Rig(uint32_t w, bool half) : h(get_sve_handler(w)), word(w) {
    for (unsigned i = 0; i < sizeof buf; ++i) buf[i] = static_cast<unsigned char>(i * 13);
    for (unsigned i = 0; i < 48; ++i) s.p[1][i] = half ? (i / 4) % 2 == 0 : 1;
    s.x[2] = reinterpret_cast<uint64_t>(buf + 1024);
    s.x[3] = 0;
    for (unsigned e = 0; e < 12; ++e) {   // 32-bit offsets, scaled by 4 in the gather
      const int32_t off = int32_t((e * 37) % 200) - 100;
      std::memcpy(s.z[3] + 4 * e, &off, 4);
    }
  }
};

void run(benchmark::State& state, uint32_t word, bool half, int64_t bytes) {
  Rig r(word, half);
  if (!r.h) {
    state.SkipWithError("no row for the word");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(r.h(&r.s, r.word));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * bytes);
}

// Zt 5, Pg 1, Xn 2, Xm 3 / Zm 3.
constexpr uint32_t kLd1w = 0xa5434445;       // ld1w {z5.s}, p1/z, [x2, x3, lsl #2]
constexpr uint32_t kSt1w = 0xe5434445;       // st1w {z5.s}, p1, [x2, x3, lsl #2]
constexpr uint32_t kLd1rqw = 0xa5002445;     // ld1rqw {z5.s}, p1/z, [x2]
constexpr uint32_t kGather = 0x85634445;     // ld1w {z5.s}, p1/z, [x2, z3.s, sxtw #2]
constexpr uint32_t kLd3w = 0xa540e445;       // ld3w {z5.s-z7.s}, p1/z, [x2]

void BM_Copy48(benchmark::State& state) {
  alignas(16) unsigned char from[48], to[48];
  std::memset(from, 1, sizeof from);
  for (auto _ : state) {
    benchmark::DoNotOptimize(from);
    std::memcpy(to, from, 48);
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 48);
}
// The same path for an instruction that moves no memory: ADD Z5.S, Z3.S, Z3.S,
// the floor that the adapter and the call put under every row.
void BM_AddZZZ(benchmark::State& s) { run(s, 0x04a30065, false, 48); }
void BM_Ld1w_All(benchmark::State& s) { run(s, kLd1w, false, 48); }
// The handler alone, called with its operands as the adapter builds them.
void BM_Ld1w_All_HandlerOnly(benchmark::State& state) {
  Rig r(kLd1w, false);
  const aarch64_z_reg zt{5, kZS, kZAbsent, kZAbsent};
  const aarch64_p_reg pg{1, kPZero, kPAbsent, kPAbsent};
  const aarch64_i_rsp_reg rn{2, kRX};
  const aarch64_i_reg rm{3, kRX, kRAbsent, kRAbsent};
  for (auto _ : state) {
    benchmark::DoNotOptimize(sve_ld1w_scaled_zprr(&r.s, zt, pg, rn, rm));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 48);
}
void BM_Ld1w_Half(benchmark::State& s) { run(s, kLd1w, true, 24); }
void BM_St1w_All(benchmark::State& s) { run(s, kSt1w, false, 48); }
void BM_St1w_Half(benchmark::State& s) { run(s, kSt1w, true, 24); }
void BM_Ld1rqw_Generic(benchmark::State& s) { run(s, kLd1rqw, false, 16); }
void BM_Gather_Sxtw32(benchmark::State& s) { run(s, kGather, false, 48); }
void BM_Ld3w(benchmark::State& s) { run(s, kLd3w, false, 144); }

BENCHMARK(BM_Copy48);
BENCHMARK(BM_AddZZZ);
BENCHMARK(BM_Ld1w_All);
BENCHMARK(BM_Ld1w_All_HandlerOnly);
BENCHMARK(BM_Ld1w_Half);
BENCHMARK(BM_St1w_All);
BENCHMARK(BM_St1w_Half);
BENCHMARK(BM_Ld1rqw_Generic);
BENCHMARK(BM_Gather_Sxtw32);
BENCHMARK(BM_Ld3w);

}  // namespace

BENCHMARK_MAIN();
