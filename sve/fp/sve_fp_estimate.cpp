// Reciprocal and square-root estimates and steps (FRECPE, FRECPS, FRSQRTE,
// FRSQRTS, FRECPX) and the trigonometric and exponential accelerators (FTMAD,
// FTSMUL, FTSSEL, FEXPA). All unpredicated but FRECPX.

#include "decode_decls.h"
#include "sve/fp/fp_cvt.h"
#include "sve/fp/fp_cvt_fast.h"

namespace {

// The host halves exist for the two with a fast handler: the scalar
// AdvSIMD estimate and step compute the same function per lane.
struct op_recpe {
  template <class T> static T lib(T a, FPSCR& s) { return fplib::FPRecipEstimate<T>(a, s); }
  QUERN_FP_HOST1("frecpe")
};
struct op_recps {
  template <class T> static T lib(T a, T b, FPSCR& s) { return fplib::FPRecipStepFused<T>(a, b, s); }
  QUERN_FP_HOST2("frecps")
};
struct op_rsqrte {
  template <class T> static T lib(T a, FPSCR& s) { return fplib::FPRSqrtEstimate<T>(a, s); }
};
struct op_rsqrts {
  template <class T> static T lib(T a, T b, FPSCR& s) { return fplib::FPRSqrtStepFused<T>(a, b, s); }
};
struct op_recpx {
  template <class T> static T lib(T a, FPSCR& s) { return fplib::FPRecpX<T>(a, s); }
};
struct op_trismul {
  template <class T> static T lib(T a, T b, FPSCR& s) { return fplib::FPTRISMUL<T>(a, b, s); }
};
// FTMAD: the immediate selects the coefficient.
struct op_trimadd {
  uint64_t imm;
  template <class T> T lib(T a, T b, FPSCR& s) const { return fplib::FPTRIMADD<T>(imm, a, b, s); }
};

template <class T, class Op>
VecV unary_v(const VecV& a, CpuContext* c, Op op) {
  return fpcvt::unary_v<T>(a, c, [op](T x, FPSCR& s) { return op.template lib<T>(x, s); });
}

// FTSSEL and FEXPA are bit manipulations: no word, no flags.
template <class T>
VecV trig_select(const VecV& a, const VecV& b, const CpuContext* c) {
  VecV r;
  for (unsigned i = 0, n = generic::lane_count<T>(c); i < n; ++i)
    generic::set_lane<T>(r, i, fplib::fp_trig_select<T>(generic::lane<T>(a, i), generic::lane<T>(b, i)));
  return r;
}
template <class T>
VecV expa(const VecV& a, const CpuContext* c) {
  VecV r;
  for (unsigned i = 0, n = generic::lane_count<T>(c); i < n; ++i) generic::set_lane<T>(r, i, fplib::FPEXPA<T>(generic::lane<T>(a, i)));
  return r;
}

}  // namespace

extern "C" {

// Unpredicated: every lane, 12 or 6.
aarch64_decode_rc sve_frecpe_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn) {
  if (zd.size == kZD) return fpfast::unary_zz<fplanes::D64>(cs, zd, zn, op_recpe{});
  return fpfast::unary_zz<fplanes::F32>(cs, zd, zn, op_recpe{});
}
aarch64_decode_rc sve_frecps_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fplanes::fast_fp::zzz(cs, zd, zn, zm, op_recps{});
}

#define QUERN_FP_EST(TY, T)                                                                                    \
  VecV Vec##TY##RSqrtEV(VecV a, CpuContext* c) { return unary_v<T>(a, c, op_rsqrte{}); }                       \
  VecV Vec##TY##RSqrtSVV(VecV a, VecV b, CpuContext* c) { return fplanes::gen::vvx<T>(a, b, c, op_rsqrts{}); } \
  VecV Vec##TY##RecpXVM(VecV d, PredV p, VecV a, CpuContext* c) { return fplanes::gen::vm<T>(d, p, a, c, op_recpx{}); } \
  VecV Vec##TY##TRIMADDVVI(VecV a, VecV b, uint64_t imm, CpuContext* c) {                                      \
    return fplanes::gen::vvx<T>(a, b, c, op_trimadd{imm});                                                      \
  }                                                                                                            \
  VecV Vec##TY##TRISMULVV(VecV a, VecV b, CpuContext* c) { return fplanes::gen::vvx<T>(a, b, c, op_trismul{}); } \
  VecV Vec##TY##TRISSELVV(VecV a, VecV b, CpuContext* c) { return trig_select<T>(a, b, c); }                   \
  VecV Vec##TY##EXPAV(VecV a, CpuContext* c) { return expa<T>(a, c); }

QUERN_FP_EST(F16, fplanes::F16)
QUERN_FP_EST(F32, fplanes::F32)
QUERN_FP_EST(D64, fplanes::D64)
#undef QUERN_FP_EST
// Half precision has no fast estimate or step.
VecV VecF16RecpEV(VecV a, CpuContext* c) { return unary_v<fplanes::F16>(a, c, op_recpe{}); }
VecV VecF16RecpSVV(VecV a, VecV b, CpuContext* c) { return fplanes::gen::vvx<fplanes::F16>(a, b, c, op_recps{}); }

}  // extern "C"
