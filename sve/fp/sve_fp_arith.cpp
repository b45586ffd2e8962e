// Floating-point element-wise arithmetic: both roads.
//
// Half precision always takes the generic road. The generic routines of the
// single and double rows that go fast exist too, so that the roads can be
// held against each other in the tests.

#include "decode_decls.h"
#include "sve/fp/fp_lanes.h"

using namespace fplanes;

namespace {

// FABD: the difference, then its sign cleared; flags are the subtraction's.
struct op_abd {
  template <class T> static T lib(T a, T b, FPSCR& f) { return fplib::FPAbs<T>(fplib::FPSub<T>(a, b, f)); }
};
// FSCALE: the second operand is a signed integer of the lane's width.
struct op_scale {
  static F16 lib(F16 a, F16 b, FPSCR& f) { return FPScale16(a, static_cast<short>(b), f); }
  static F32 lib(F32 a, F32 b, FPSCR& f) { return FPScale32(a, static_cast<int>(b), f); }
  static D64 lib(D64 a, D64 b, FPSCR& f) { return FPScale64(a, static_cast<long>(b), f); }
};
// FABS and FNEG touch the sign bit only and raise nothing, on either road.
struct op_abs {
  template <class T> static T lib(T a, FPSCR&) { return fplib::FPAbs<T>(a); }
};
struct op_neg {
  template <class T> static T lib(T a, FPSCR&) { return fplib::FPNeg<T>(a); }
};

template <class T, class Op> aarch64_decode_rc sign_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  const unsigned char* d = cs->z[zd.number];
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  FPSCR unused = 0;
  for (unsigned i = 0; i < fast::lanes<T>; ++i)
    fast::set_lane<T>(out, i, fast::active<T>(p, i) ? Op::lib(fast::lane<T>(a, i), unused) : fast::lane<T>(d, i));
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

}  // namespace

extern "C" {

// ---- fast handlers ------------------------------------------------------------

#define QUERN_FP_FAST_ZPZ(NAME, OP)                                                              \
  aarch64_decode_rc NAME(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) { \
    return fast_fp::zpz(cs, zdn, pg, zm, OP{});                                                  \
  }
#define QUERN_FP_FAST_ZZZ(NAME, OP)                                                              \
  aarch64_decode_rc NAME(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {  \
    return fast_fp::zzz(cs, zd, zn, zm, OP{});                                                   \
  }
#define QUERN_FP_FAST_ZPI(NAME, KIND, OP)                                                        \
  aarch64_decode_rc NAME(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_sve_fp_arith_imm imm) { \
    return fast_fp::zpi(cs, zdn, pg, imm, imm_kind::KIND, OP{});                                 \
  }

QUERN_FP_FAST_ZPZ(sve_fadd_zpz, op_add)
QUERN_FP_FAST_ZPZ(sve_fsub_zpz, op_sub)
QUERN_FP_FAST_ZPZ(sve_fsubr_zpz, swapped<op_sub>)
QUERN_FP_FAST_ZPZ(sve_fmul_zpz, op_mul)
QUERN_FP_FAST_ZPZ(sve_fdiv_zpz, op_div)
QUERN_FP_FAST_ZPZ(sve_fdivr_zpz, swapped<op_div>)
QUERN_FP_FAST_ZPZ(sve_fmax_zpz, op_max)
QUERN_FP_FAST_ZPZ(sve_fmaxnm_zpz, op_maxnm)
QUERN_FP_FAST_ZPZ(sve_fminnm_zpz, op_minnm)
QUERN_FP_FAST_ZZZ(sve_fadd_zzz, op_add)
QUERN_FP_FAST_ZZZ(sve_fsub_zzz, op_sub)
QUERN_FP_FAST_ZZZ(sve_fmul_zzz, op_mul)
QUERN_FP_FAST_ZPI(sve_fadd_zpi, add, op_add)
QUERN_FP_FAST_ZPI(sve_fsub_zpi, add, op_sub)
QUERN_FP_FAST_ZPI(sve_fsubr_zpi, add, swapped<op_sub>)
QUERN_FP_FAST_ZPI(sve_fmul_zpi, mul, op_mul)
#undef QUERN_FP_FAST_ZPZ
#undef QUERN_FP_FAST_ZZZ
#undef QUERN_FP_FAST_ZPI

aarch64_decode_rc sve_fsqrt_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast_fp::unary_zpz(cs, zd, pg, zn, op_sqrt{});
}
aarch64_decode_rc sve_fabs_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast_fp::by_fp_size(zd.size, [&](auto t) { return sign_zpz<decltype(t), op_abs>(cs, zd, pg, zn); });
}
aarch64_decode_rc sve_fneg_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast_fp::by_fp_size(zd.size, [&](auto t) { return sign_zpz<decltype(t), op_neg>(cs, zd, pg, zn); });
}

// ---- generic routines -----------------------------------------------------------

#define QUERN_FP_VVM(TY, T, NAME, OP) \
  VecV Vec##TY##NAME##VVM(VecV a, PredV p, VecV b, CpuContext* c) { return gen::vvm<T>(a, p, b, c, OP{}); }
#define QUERN_FP_VVX(TY, T, NAME, OP) \
  VecV Vec##TY##NAME##VVX(VecV a, VecV b, CpuContext* c) { return gen::vvx<T>(a, b, c, OP{}); }
#define QUERN_FP_VIM(TY, T, NAME, KIND, OP)                                 \
  VecV Vec##TY##NAME##VIM(VecV a, PredV p, uint64_t sel, CpuContext* c) { \
    return gen::vim<T>(a, p, sel, imm_kind::KIND, c, OP{});                \
  }
#define QUERN_FP_VM(TY, T, NAME, OP) \
  VecV Vec##TY##NAME##VM(VecV d, PredV p, VecV a, CpuContext* c) { return gen::vm<T>(d, p, a, c, OP{}); }

#define QUERN_FP_ARITH_GENERIC(TY, T)                                                      \
  QUERN_FP_VVM(TY, T, Add, op_add)                                                         \
  QUERN_FP_VVM(TY, T, Sub, op_sub)                                                         \
  QUERN_FP_VVM(TY, T, SubR, swapped<op_sub>)                                               \
  QUERN_FP_VVM(TY, T, Mul, op_mul)                                                         \
  QUERN_FP_VVM(TY, T, MulX, op_mulx)                                                       \
  QUERN_FP_VVM(TY, T, Div, op_div)                                                         \
  QUERN_FP_VVM(TY, T, DivR, swapped<op_div>)                                               \
  QUERN_FP_VVM(TY, T, Max, op_max)                                                         \
  QUERN_FP_VVM(TY, T, Min, op_min)                                                         \
  QUERN_FP_VVM(TY, T, MaxNum, op_maxnm)                                                    \
  QUERN_FP_VVM(TY, T, MinNum, op_minnm)                                                    \
  QUERN_FP_VVM(TY, T, Abd, op_abd)                                                         \
  QUERN_FP_VVM(TY, T, Scale, op_scale)                                                     \
  QUERN_FP_VVX(TY, T, Add, op_add)                                                         \
  QUERN_FP_VVX(TY, T, Sub, op_sub)                                                         \
  QUERN_FP_VVX(TY, T, Mul, op_mul)                                                         \
  QUERN_FP_VIM(TY, T, Add, add, op_add)                                                    \
  QUERN_FP_VIM(TY, T, Sub, add, op_sub)                                                    \
  QUERN_FP_VIM(TY, T, SubR, add, swapped<op_sub>)                                          \
  QUERN_FP_VIM(TY, T, Mul, mul, op_mul)                                                    \
  QUERN_FP_VIM(TY, T, Max, minmax, op_max)                                                 \
  QUERN_FP_VIM(TY, T, Min, minmax, op_min)                                                 \
  QUERN_FP_VIM(TY, T, MaxNum, minmax, op_maxnm)                                            \
  QUERN_FP_VIM(TY, T, MinNum, minmax, op_minnm)                                            \
  QUERN_FP_VM(TY, T, Abs, op_abs)                                                          \
  QUERN_FP_VM(TY, T, Neg, op_neg)                                                          \
  QUERN_FP_VM(TY, T, Sqrt, op_sqrt)                                                        \
  VecV Vec##TY##MulVVIX(VecV a, VecV b, uint64_t index, CpuContext* c) {                   \
    return gen::vvix<T>(a, b, index, c, op_mul{});                                         \
  }

QUERN_FP_ARITH_GENERIC(F16, F16)
QUERN_FP_ARITH_GENERIC(F32, F32)
QUERN_FP_ARITH_GENERIC(D64, D64)
#undef QUERN_FP_ARITH_GENERIC
#undef QUERN_FP_VVM
#undef QUERN_FP_VVX
#undef QUERN_FP_VIM
#undef QUERN_FP_VM

}  // extern "C"
