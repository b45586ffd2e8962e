// Encoding of instruction lists into AArch64 machine code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/ir.h"

// Where the code runs and what it needs to know of the process.
struct encode_env {
  uint64_t code_addr;     // address of the first emitted word
  uint64_t next_pc;       // where the application continues afterwards
  int64_t tls_offset;     // offset of the block pointer from TPIDR_EL0
};

// Encodes `ilist` wrapped in the framework's entry and exit and a branch to
// env.next_pc. Returns the number of words, or 0 if an instruction cannot be
// encoded (unknown form, or a branch out of range) or `cap` is too small.
size_t encode_sequence(const instrlist_t* ilist, const encode_env& env, uint32_t* out, size_t cap);

// One instruction of the pass's own repertoire (ldr, str, ldp, stp, add,
// mrs, msr). Returns the word, or 0 if the form is not encodable.
uint32_t encode_instr(const instr_t* in);

// Words used by the rest of the framework.
constexpr uint32_t kNoBlockTrap = 0x00005154u;   // udf #0x5154: "this thread has no block"
uint32_t encode_branch(uint64_t from, uint64_t to);   // 0 if out of range
bool branch_in_range(uint64_t from, uint64_t to);
