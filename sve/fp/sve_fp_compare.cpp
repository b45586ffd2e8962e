// Floating-point compares into a predicate: FCMEQ, FCMNE, FCMGE, FCMGT,
// FCMLE, FCMLT, FCMUO, FACGE, FACGT, between vectors and against zero.
//
// The result is canonical for the element size: only the bit of each lane's
// first byte may be set, inactive lanes are 0. NZCV is not touched.

#include "decode_decls.h"
#include "sve/fp/fp_cmp.h"
#include "sve/fp/fp_cvt.h"
#include "sve/fp/fp_cvt_fast.h"

namespace {

template <class T, class Rel>
PredV cmp_vv(const PredV& p, const VecV& a, const VecV& b, CpuContext* c, Rel rel) {
  PredV r{};
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    if (!generic::active<T>(p, i)) continue;
    const T x = generic::lane<T>(a, i), y = generic::lane<T>(b, i);
    if (fpcvt::call(c, [&](FPSCR& s) { return rel(x, y, s); })) {
      const unsigned bit = i * sizeof(T);
      r.w[bit / 64] |= uint64_t(1) << (bit % 64);
    }
  }
  return r;
}

template <class T, class Rel>
PredV cmp_v0(const PredV& p, const VecV& a, CpuContext* c, Rel rel) {
  VecV zero{};
  return cmp_vv<T>(p, a, zero, c, rel);
}

// The host's compares: FCMPE (signalling, IOC on any NaN) for the ordered
// relations, FCMP (quiet, IOC on a signalling NaN only) for EQ, NE and UO,
// then the condition that holds for the relation and fails when unordered
// (NE and UO hold when unordered). LE and LT swap the operands of GE and GT.
#if defined(__aarch64__)
#define QUERN_HOST_FCMP(INSN, COND, A, B)                                                                \
  template <class T> static bool host(T x, T y) {                                                       \
    const auto a = fpfast::as<fpfast::host_float<T>>(A), b = fpfast::as<fpfast::host_float<T>>(B);      \
    int r;                                                                                              \
    if constexpr (sizeof(T) == 4)                                                                       \
      __asm__ volatile(INSN " %s1, %s2\n\tcset %w0, " COND : "=r"(r) : "w"(a), "w"(b) : "cc");         \
    else                                                                                                \
      __asm__ volatile(INSN " %d1, %d2\n\tcset %w0, " COND : "=r"(r) : "w"(a), "w"(b) : "cc");         \
    return r != 0;                                                                                      \
  }
// The vector compares raise what the scalar ones do: FCMEQ only on a
// signalling NaN, FCMGE and FCMGT on any NaN. There is no vector FCMUO.
#define QUERN_HOST_VCMP(VINSN, INVERT, A, B)                                                             \
  static constexpr bool kVector = VINSN[0] != 0;                                                         \
  template <class V> static uint8x16_t vhost(V x, V y) {                                                 \
    uint8x16_t r;                                                                                        \
    if constexpr (sizeof(x[0]) == 4)                                                                     \
      __asm__ volatile(VINSN " %0.4s, %1.4s, %2.4s" : "=w"(r) : "w"(A), "w"(B));                        \
    else                                                                                                 \
      __asm__ volatile(VINSN " %0.2d, %1.2d, %2.2d" : "=w"(r) : "w"(A), "w"(B));                        \
    return INVERT ? vmvnq_u8(r) : r;                                                                     \
  }
#else
#define QUERN_HOST_FCMP(INSN, COND, A, B)
#define QUERN_HOST_VCMP(VINSN, INVERT, A, B) static constexpr bool kVector = false;
#endif

#define QUERN_FAST_REL(NAME, REL, INSN, COND, VINSN, INVERT, A, B)                         \
  struct NAME {                                                                            \
    QUERN_HOST_FCMP(INSN, COND, A, B)                                                      \
    QUERN_HOST_VCMP(VINSN, INVERT, A, B)                                                   \
    template <class T> bool lib(T x, T y, FPSCR& s) const { return fpcmp::REL{}(x, y, s); } \
  };
QUERN_FAST_REL(host_eq, eq, "fcmp", "eq", "fcmeq", false, x, y)
QUERN_FAST_REL(host_ne, ne, "fcmp", "ne", "fcmeq", true, x, y)
QUERN_FAST_REL(host_un, un, "fcmp", "vs", "", false, x, y)
QUERN_FAST_REL(host_ge, ge, "fcmpe", "ge", "fcmge", false, x, y)
QUERN_FAST_REL(host_gt, gt, "fcmpe", "gt", "fcmgt", false, x, y)
QUERN_FAST_REL(host_le, le, "fcmpe", "ge", "fcmge", false, y, x)
QUERN_FAST_REL(host_lt, lt, "fcmpe", "gt", "fcmgt", false, y, x)
#undef QUERN_FAST_REL
#undef QUERN_HOST_FCMP
#undef QUERN_HOST_VCMP

template <class Op>
aarch64_decode_rc fast_cmp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn, const unsigned char* b) {
  if (zn.size == kZD) return fpfast::compare<uint64_t>(cs, pd, pg, zn, b, Op{});
  return fpfast::compare<uint32_t>(cs, pd, pg, zn, b, Op{});
}

}  // namespace

extern "C" {

#define QUERN_FAST_CMP(NAME, OP)                                                                             \
  aarch64_decode_rc sve_##NAME##_ppzz(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn,   \
                                      aarch64_z_reg zm) {                                                    \
    return fast_cmp<OP>(cs, pd, pg, zn, cs->z[zm.number]);                                                   \
  }
#define QUERN_FAST_CMP0(NAME, OP)                                                                            \
  aarch64_decode_rc sve_##NAME##_ppz(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn) { \
    return fast_cmp<OP>(cs, pd, pg, zn, nullptr);                                                            \
  }
QUERN_FAST_CMP(fcmeq, host_eq)
QUERN_FAST_CMP(fcmne, host_ne)
QUERN_FAST_CMP(fcmge, host_ge)
QUERN_FAST_CMP(fcmgt, host_gt)
QUERN_FAST_CMP(fcmuo, host_un)
QUERN_FAST_CMP0(fcmeq, host_eq)
QUERN_FAST_CMP0(fcmge, host_ge)
QUERN_FAST_CMP0(fcmgt, host_gt)
QUERN_FAST_CMP0(fcmle, host_le)
QUERN_FAST_CMP0(fcmlt, host_lt)
#undef QUERN_FAST_CMP
#undef QUERN_FAST_CMP0

#define QUERN_FCMP_VV(TY, T, NAME, REL) \
  PredV Vec##TY##NAME##VVZ(PredV p, VecV a, VecV b, CpuContext* c) { return cmp_vv<T>(p, a, b, c, fpcmp::REL{}); }
#define QUERN_FCMP_V0(TY, T, NAME, REL) \
  PredV Vec##TY##NAME##V0Z(PredV p, VecV a, CpuContext* c) { return cmp_v0<T>(p, a, c, fpcmp::REL{}); }

// Half precision has every form on the generic road.
QUERN_FCMP_VV(F16, uint16_t, CmpEQ, eq)
QUERN_FCMP_VV(F16, uint16_t, CmpNE, ne)
QUERN_FCMP_VV(F16, uint16_t, CmpGE, ge)
QUERN_FCMP_VV(F16, uint16_t, CmpGT, gt)
QUERN_FCMP_VV(F16, uint16_t, CmpUN, un)
QUERN_FCMP_V0(F16, uint16_t, CmpEQ, eq)
QUERN_FCMP_V0(F16, uint16_t, CmpNE, ne)
QUERN_FCMP_V0(F16, uint16_t, CmpGE, ge)
QUERN_FCMP_V0(F16, uint16_t, CmpGT, gt)
QUERN_FCMP_V0(F16, uint16_t, CmpLE, le)
QUERN_FCMP_V0(F16, uint16_t, CmpLT, lt)
// Single and double: the forms without a fast handler.
QUERN_FCMP_V0(F32, uint32_t, CmpNE, ne)
QUERN_FCMP_V0(D64, uint64_t, CmpNE, ne)
QUERN_FCMP_VV(F16, uint16_t, AcGE, acge)
QUERN_FCMP_VV(F16, uint16_t, AcGT, acgt)
QUERN_FCMP_VV(F32, uint32_t, AcGE, acge)
QUERN_FCMP_VV(F32, uint32_t, AcGT, acgt)
QUERN_FCMP_VV(D64, uint64_t, AcGE, acge)
QUERN_FCMP_VV(D64, uint64_t, AcGT, acgt)
#undef QUERN_FCMP_VV
#undef QUERN_FCMP_V0

}  // extern "C"
