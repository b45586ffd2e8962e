// Carrying out an instruction list on a register file, without generating
// code: the fallback for instructions whose rewritten code cannot be placed,
// run from the SIGILL handler on the signal context.
#pragma once

#include <cstdint>

#include "framework/ir.h"

struct reg_file {
  uint64_t x[31];
  uint64_t sp;
  uint64_t nzcv;
  uint32_t fpsr, fpcr;
  unsigned char q[32][16];
};

// Runs `ilist` as the rewritten code would: X28 holds `block` while it runs
// and the application's X28 comes back after.
// Returns false if the list holds an instruction outside the repertoire.
bool interpret_sequence(const instrlist_t* ilist, reg_file& regs, void* block);
