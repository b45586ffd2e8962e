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

// If a run may carry `word`: the entry that carries it out on cpu_state, as
// a run's table calls an SVE word's (with cs->pc its address, which ADR and
// ADRP read; it always succeeds), and the X registers it names (and SP, if it
// reads it) added to `use`. Null otherwise.
sve_handler_fn carried_instruction(uint32_t word, register_use* use);
