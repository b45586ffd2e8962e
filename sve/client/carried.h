// Ordinary integer instructions that a run of SVE words carries between its
// words. Compiled loops put the counter's ADD (or a CMP, a MOV, an address's
// LSL) among their SVE words; carried inside the run, it costs one dispatch
// instead of splitting the run in two, each with its own park, call and
// reload.
//
// Only instructions that cannot fault, do not branch, read no system
// register but NZCV, and write nothing but X registers and NZCV: integer
// arithmetic and logic on registers and immediates, moves, bit-field moves,
// conditional selects, multiplies and divides, ADR and ADRP, and NOP. They
// are carried out on cpu_state exactly as the processor would; an encoding
// that the architecture leaves unallocated, or one that writes SP, is not
// taken and stays in the block as it is.
#pragma once

#include <cstdint>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"

// Whether a run may carry `word`; if so, the X registers it names (and SP, if
// it reads it) are added to `use`.
bool carried_instruction(uint32_t word, register_use* use);

// Carries out a word that carried_instruction() took, on `cs`; cs->pc is its
// address (ADR and ADRP read it). Succeeds always.
aarch64_decode_rc carry_out(cpu_state* cs, unsigned int word);
