// The cost of single SVE words as a run calls them: ns per word of the
// emulator's own part (dispatch, adapter and handler), under whatever runs
// this program (qemu-aarch64 on a processor without SVE, on a machine
// without AArch64). Each word is called eight times in a row through its
// entry, in the loop that runs use, on a state whose base registers point
// into a buffer and whose predicates are all true; the first line is a
// prefetch, which does nothing: the floor of dispatch alone; the last ones
// are ordinary instructions that runs carry. CPU time of the thread, best of
// five rounds.
//
//   word_costs [CALLS]
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sve/client/carried.h"
#include "sve/dispatch/decode.h"

namespace {

const struct {
  uint32_t word;
  const char* text;
} kWords[] = {
    {0x85c00000, "prfb pldl1keep, p0, [x0]"},
    {0xa5444001, "ld1w {z1.s}, p0/z, [x0, x4, lsl #2]"},
    {0xa5e44022, "ld1d {z2.d}, p0/z, [x1, x4, lsl #3]"},
    {0xa4844043, "ld1sw {z3.d}, p0/z, [x2, x4, lsl #2]"},
    {0xa4044004, "ld1b {z4.b}, p0/z, [x0, x4]"},
    {0xe5444061, "st1w {z1.s}, p0, [x3, x4, lsl #2]"},
    {0xe5e44062, "st1d {z2.d}, p0, [x3, x4, lsl #3]"},
    {0x85744001, "ld1w {z1.s}, p0/z, [x0, z20.s, sxtw #2]"},
    {0xe5748061, "st1w {z1.s}, p0, [x3, z20.s, uxtw #2]"},
    {0xa4046004, "ldff1b {z4.b}, p0/z, [x0, x4]"},
    {0x25a31c81, "whilelo p1.s, x4, x3"},
    {0x25e31c81, "whilelo p1.d, x4, x3"},
    {0x25231c81, "whilelo p1.b, x4, x3"},
    {0x04b0e3e4, "incw x4"},
    {0x04a0e3e5, "cntw x5"},
    {0x2598e3e2, "ptrue p2.s"},
    {0x252c8804, "incp x4, p0.b"},
    {0x25208025, "cntp x5, p0, p1.b"},
    {0x2519f004, "rdffr p4.b"},
    {0x252c9000, "setffr"},
    {0x25904025, "brkb p5.b, p0/z, p1.b"},
    {0x25008083, "cmpeq p3.b, p0/z, z4.b, #0"},
    {0x047d9025, "asr z5.s, z1.s, #3"},
    {0x04329c25, "lsl z5.h, z1.h, #2"},
    {0x058000e6, "and z6.s, z6.s, #0xff"},
    {0x05000e26, "orr z6.b, z6.b, #0x81"},
    {0x04a20027, "add z7.s, z1.s, z2.s"},
    {0x04e20427, "sub z7.d, z1.d, z2.d"},
    {0x04a2302b, "eor z11.d, z1.d, z2.d"},
    {0x04800028, "add z8.s, p0/m, z8.s, z1.s"},
    {0x0482c029, "mad z9.s, p0/m, z2.s, z1.s"},
    {0x04c34029, "mla z9.d, p0/m, z1.d, z3.d"},
    {0x04d20076, "smulh z22.d, p0/m, z22.d, z3.d"},
    {0x0488002a, "smax z10.s, p0/m, z10.s, z1.s"},
    {0x044b002a, "umin z10.h, p0/m, z10.h, z1.h"},
    {0x04a1a435, "adr z21.s, [z1.s, z1.s, lsl #1]"},
    {0x0420bc2c, "movprfx z12, z1"},
    {0x2538c00d, "mov z13.b, #0"},
    {0x05e2c02e, "sel z14.d, p0, z1.d, z2.d"},
    {0x0481202f, "uaddv d15, p0, z1.s"},
    {0x0488202f, "smaxv s15, p0, z1.s"},
    {0x65820830, "fmul z16.s, z1.s, z2.s"},
    {0x65c20030, "fadd z16.d, z1.d, z2.d"},
    {0x65a20031, "fmla z17.s, p0/m, z1.s, z2.s"},
    {0x65982032, "fadda s18, p0, s18, z1.s"},
    {0x65d82052, "fadda d18, p0, d18, z2.d"},
    {0x05e23020, "tbl z0.d, {z1.d}, z2.d"},
    {0x05626820, "uzp1 z0.h, z1.h, z2.h"},
    {0x24828031, "cmpgt p1.s, p0/z, z1.s, z2.s"},
    {0x04900023, "mul z3.s, p0/m, z3.s, z1.s"},
    {0x04810028, "sub z8.s, p0/m, z8.s, z1.s"},
    {0x047d9425, "lsr z5.s, z1.s, #3"},
    {0x05314001, "punpkhi p1.h, p0.b"},
    {0xe4c44061, "st1h {z1.s}, p0, [x3, x4, lsl #1]"},
    {0x05f13823, "sunpkhi z3.d, z1.s"},
    {0x04f0e3e4, "incd x4"},
    {0x05a038a1, "mov z1.s, w5"},
    {0x65cba024, "fcvt z4.d, p0/m, z1.s"},
    {0x659da024, "fcvtzu z4.s, p0/m, z1.s"},
    {0x65824031, "fcmgt p1.s, p0/z, z1.s, z2.s"},
    {0x65e38041, "fmad z1.d, p0/m, z2.d, z3.d"},
    {0x8b050084, "add x4, x4, x5 (carried)"},
    {0xd503201f, "nop (carried)"},
};

constexpr int kRun = 8, kRounds = 5;

struct run_word {
  unsigned char* pc;
  sve_handler_fn handler;
  uint64_t word;
};

// The loop of the client's emulate_run, without its counters.
__attribute__((noinline)) void run(cpu_state* cs, const run_word* words, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) {
    cs->pc = words[i].pc;
    if (words[i].handler(cs, static_cast<unsigned>(words[i].word)) != AARCH64_DECODE_OK) std::abort();
  }
}

double now() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

alignas(64) unsigned char memory[4][4096];
cpu_state state;

// Base registers X0..X3 into the buffers, X4 a small index, all predicates
// and FFR true, Z registers of ones (1.0 in single precision), Z20 offsets.
void reset() {
  std::memset(&state, 0, sizeof state);
  for (int i = 0; i < 4; ++i) state.x[i] = reinterpret_cast<uint64_t>(memory[i] + 1024);
  state.x[4] = 8;
  for (auto& p : state.p) std::memset(p, 1, sizeof p);
  std::memset(state.ffr, 1, sizeof state.ffr);
  const uint32_t one = 0x3F800000u;
  for (auto& z : state.z)
    for (unsigned i = 0; i < kVecBytes; i += 4) std::memcpy(z + i, &one, 4);
  for (uint32_t e = 0; e < kVecBytes / 4; ++e) std::memcpy(state.z[20] + 4 * e, &e, 4);
}

}  // namespace

int main(int argc, char** argv) {
  const long calls = argc > 1 ? atol(argv[1]) : 200000;
  std::printf("%-42s %8s\n", "word", "ns");
  for (const auto& w : kWords) {
    const decode_row* row = find_decode_row(w.word);
    register_use unused{};
    const sve_handler_fn entry = row ? row_entry(*row) : carried_instruction(w.word, &unused);
    if (!entry) {
      std::printf("%-42s %8s\n", w.text, "no row");
      continue;
    }
    run_word table[kRun];
    for (auto& t : table) t = {nullptr, entry, w.word};
    double best = 1e30;
    for (int r = 0; r < kRounds; ++r) {
      reset();
      const double t0 = now();
      for (long i = 0; i < calls / kRun; ++i) run(&state, table, kRun);
      const double t = (now() - t0) / static_cast<double>(calls / kRun * kRun);
      if (t < best) best = t;
    }
    std::printf("%-42s %8.1f\n", w.text, best * 1e9);
  }
  return 0;
}
