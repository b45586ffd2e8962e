// The generic routines of ADD and SUB. The decode table sends these
// instructions down the fast road; the routines serve to check one road
// against the other.
#pragma once

#include "sve/dispatch/cpu_state.h"

#define QUERN_DECLARE_ADD_SUB(TY)                                         \
  VecV Vec##TY##AddVVM(VecV a, PredV p, VecV b, CpuContext* c);           \
  VecV Vec##TY##SubVVM(VecV a, PredV p, VecV b, CpuContext* c);           \
  VecV Vec##TY##AddVVX(VecV a, VecV b, CpuContext* c);                    \
  VecV Vec##TY##SubVVX(VecV a, VecV b, CpuContext* c);                    \
  VecV Vec##TY##AddVIX(VecV a, uint32_t imm, CpuContext* c);              \
  VecV Vec##TY##SubVIX(VecV a, uint32_t imm, CpuContext* c);

extern "C" {
QUERN_DECLARE_ADD_SUB(U8)
QUERN_DECLARE_ADD_SUB(U16)
QUERN_DECLARE_ADD_SUB(U32)
QUERN_DECLARE_ADD_SUB(U64)
}
#undef QUERN_DECLARE_ADD_SUB
