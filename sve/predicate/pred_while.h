// The generic WHILE routines that no row reaches (the fast handlers serve
// those instructions): Vec<S|U><esize>While<4|8><LT|LE>SS.
#pragma once

#include "sve/dispatch/cpu_state.h"

#define QUERN_DECLARE_WHILE(TY)                                    \
  PredV Vec##TY##While4LTSS(uint64_t a, uint64_t b, CpuContext* c); \
  PredV Vec##TY##While8LTSS(uint64_t a, uint64_t b, CpuContext* c); \
  PredV Vec##TY##While4LESS(uint64_t a, uint64_t b, CpuContext* c); \
  PredV Vec##TY##While8LESS(uint64_t a, uint64_t b, CpuContext* c);

extern "C" {
QUERN_DECLARE_WHILE(S8)
QUERN_DECLARE_WHILE(S16)
QUERN_DECLARE_WHILE(S32)
QUERN_DECLARE_WHILE(S64)
QUERN_DECLARE_WHILE(U8)
QUERN_DECLARE_WHILE(U16)
QUERN_DECLARE_WHILE(U32)
QUERN_DECLARE_WHILE(U64)
}
#undef QUERN_DECLARE_WHILE
