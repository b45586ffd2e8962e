// Floating-point element-wise arithmetic: both roads.
//
// Half precision always takes the generic road. The generic routines of the
// single and double rows that go fast exist too, so that the roads can be
// held against each other in the tests.

#include "decode_decls.h"
#include "sve/fp/fp_lanes.h"

using namespace fplanes;

extern "C" {

// ---- fast handlers ------------------------------------------------------------

aarch64_decode_rc sve_fadd_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast_fp::zpz(cs, zdn, pg, zm, op_add{});
}
aarch64_decode_rc sve_fadd_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast_fp::zzz(cs, zd, zn, zm, op_add{});
}
aarch64_decode_rc sve_fadd_zpi(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_sve_fp_arith_imm imm) {
  return fast_fp::zpi(cs, zdn, pg, imm, imm_kind::add, op_add{});
}

// ---- generic routines -----------------------------------------------------------

#define QUERN_FP_ADD_GENERIC(T, TY)                                                                \
  VecV Vec##TY##AddVVM(VecV a, PredV p, VecV b, CpuContext* c) { return gen::vvm<T>(a, p, b, c, op_add{}); } \
  VecV Vec##TY##AddVVX(VecV a, VecV b, CpuContext* c) { return gen::vvx<T>(a, b, c, op_add{}); }             \
  VecV Vec##TY##AddVIM(VecV a, PredV p, uint64_t sel, CpuContext* c) {                             \
    return gen::vim<T>(a, p, sel, imm_kind::add, c, op_add{});                                     \
  }

QUERN_FP_ADD_GENERIC(F16, F16)
QUERN_FP_ADD_GENERIC(F32, F32)
QUERN_FP_ADD_GENERIC(D64, D64)
#undef QUERN_FP_ADD_GENERIC

}  // extern "C"
