// Random trials for the differential test: instruction words of a row, machine
// states with the values where arithmetic goes wrong, and memory operands
// bounded to the scratch area.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"

namespace oracle {

// xoshiro256**, seeded through splitmix64. Each trial has its own generator,
// derived from the run's seed, the row's adapter name and the trial number, so
// that one trial can be replayed alone.
struct rng {
  uint64_t s[4];
  uint64_t next();
  uint64_t below(uint64_t n);       // uniform in [0, n), n > 0
  bool one_in(unsigned n) { return below(n) == 0; }
  int64_t between(int64_t lo, int64_t hi);  // uniform in [lo, hi]
};
rng trial_rng(uint64_t seed, const char* row_name, unsigned trial);

// The memory that memory rows work on: `size` bytes followed by one unmapped
// page (first-fault and non-fault trials run into it) and preceded by another.
// It lies below 4 GiB, so that 32-bit vector elements can address it.
constexpr size_t kScratchBytes = 32 * 1024;
struct scratch_area {
  unsigned char* mem = nullptr;
  size_t size = 0;
  size_t page = 0;
};

enum class addr_form {
  none,            // not a memory row, or a prefetch (which neither faults nor writes)
  scalar_imm,      // [Xn|SP{, #imm...}]
  scalar_scalar,   // [Xn|SP, Xm{, LSL #s}]
  scalar_vector,   // [Xn|SP, Zm.T{, extend{ #s}}]
  vector_imm,      // [Zn.T{, #imm}]
};

// What a row's word says about memory, worked out once per row from its
// adapter name and operand tokens.
struct row_plan {
  bool memory = false;        // a load, store, fill, spill or prefetch
  bool prefetch = false;
  bool first_fault = false;   // LDFF1* or LDNF1*
  addr_form form = addr_form::none;
  int base_hi = -1, base_lo = -1;    // scalar base register field (31 = SP)
  int index_hi = -1, index_lo = -1;  // scalar index register field (31 = XZR)
  int vec_hi = -1, vec_lo = -1;      // vector base or index register field
  unsigned vec_bytes = 0;            // 4 or 8
  bool vec_signed = false;           // index sign-extended from 32 bits, or 64-bit
  bool vec_scaled = false;           // index shifted left by log2(msize)
  unsigned msize = 0;                // bytes of one memory element
  unsigned esize = 0;                // bytes of one register element
  unsigned fp_bytes = 0;             // floating-point rows: bytes of the element the name gives
};

// Works out the plan; returns false with a message if the row's name and
// tokens do not fit together (the oracle would then bound the wrong thing).
bool plan_row(const decode_row& r, row_plan& plan, std::string& error);

// A random machine state: X registers, SP (16-byte aligned, inside the scratch
// area), NZCV, FPSR, FPCR, Z, P and FFR (a first run of set bits mostly, and
// always for first-fault rows). With `fp_bytes` set, Z registers hold mostly
// floating-point values of that width, often drawn from a small shared pool so
// that operands meet (equal, opposite, cancelling).
void random_state(cpu_state& s, rng& g, const scratch_area& scratch, bool first_fault, unsigned fp_bytes = 0);

struct trial_input {
  uint32_t word = 0;
  cpu_state state{};
  bool fault_trial = false;   // some access placed on the unmapped page after the scratch area
};

// Draws one trial of a row: the word (row bits plus random operand fields),
// the state, and for memory rows the bounded addresses and the initial scratch
// bytes (`mem`, scratch.size bytes).
void make_trial(const decode_row& r, const row_plan& plan, rng& g, const scratch_area& scratch, trial_input& t,
                unsigned char* mem);

}  // namespace oracle
