// Rounding to integral (FRINT*), conversions between formats (FCVT), from
// integers (SCVTF, UCVTF) and to integers (FCVTZS, FCVTZU).
//
// A lane is the wider of source and result; a narrower source is read from
// the low bits of the lane and a narrower result written to them, zeroes above
// except for a signed integer result, which is sign-extended.

#include "decode_decls.h"
#include "sve/fp/fp_cvt.h"
#include "sve/fp/fp_cvt_fast.h"
#include "sve/fp/fp_cvt_fast.h"

namespace {

using fpcvt::rmode;

template <class T, FPRounding R, bool Exact>
struct round_fixed {
  T operator()(T x, FPSCR& s) const { return fplib::FPRoundInt<T>(x, R, Exact, s); }
};
template <class T, bool Exact>
struct round_current {
  T operator()(T x, FPSCR& s) const { return fplib::FPRoundInt<T>(x, rmode(s), Exact, s); }
};

// Vector conversions always use the IEEE half format and never flush a
// half-precision operand, whatever the control word says.
template <class S, class D>
struct convert {
  D operator()(S x, FPSCR& s) const {
    s &= ~((1u << 26) | (1u << 19));
    return fplib::FPConvert<S, D>(x, rmode(s), s);
  }
};

template <class S, class D, bool Unsigned>
struct from_int {
  D operator()(S x, FPSCR& s) const {
    const uint64_t v = Unsigned ? uint64_t(x) : uint64_t(int64_t(std::make_signed_t<S>(x)));
    return fplib::fplibFixedToFP<D>(v, 0, Unsigned, rmode(s), s);
  }
};

template <class S, class D, bool Unsigned>
struct to_int {
  D operator()(S x, FPSCR& s) const { return fplib::fplibFPToFixed<S, D>(x, 0, Unsigned, FPRounding_ZERO, s); }
};

// Fast-road lanes: one host instruction, with the host types of its source
// and result (a float type in a SIMD&FP register, "w", or an integer in a
// general register, "r"), and the library call it stands for.
#if defined(__aarch64__)
#define QUERN_HOST_CVT(S, R, HS, HR, CS, CR, ASM)               \
  static R host(S x) {                                         \
    HR r;                                                      \
    __asm__ volatile(ASM : "=" CR(r) : CS(fpfast::as<HS>(x))); \
    return fpfast::as<R>(r);                                   \
  }
#else
#define QUERN_HOST_CVT(S, R, HS, HR, CS, CR, ASM)
#endif
#define QUERN_FAST_CVT(NAME, S, R, HS, HR, CS, CR, ASM, LIB) \
  struct NAME {                                              \
    QUERN_HOST_CVT(S, R, HS, HR, CS, CR, ASM)                \
    R lib(S x, FPSCR& s) const { return LIB{}(x, s); }       \
  };

QUERN_FAST_CVT(frinta_s, uint32_t, uint32_t, float, float, "w", "w", "frinta %s0, %s1", (round_fixed<uint32_t, FPRounding_TIEAWAY, false>))
QUERN_FAST_CVT(frinta_d, uint64_t, uint64_t, double, double, "w", "w", "frinta %d0, %d1", (round_fixed<uint64_t, FPRounding_TIEAWAY, false>))
QUERN_FAST_CVT(fcvt_d2s, uint64_t, uint32_t, double, float, "w", "w", "fcvt %s0, %d1", (convert<uint64_t, uint32_t>))
QUERN_FAST_CVT(fcvt_s2d, uint32_t, uint64_t, float, double, "w", "w", "fcvt %d0, %s1", (convert<uint32_t, uint64_t>))
QUERN_FAST_CVT(scvtf_s2s, uint32_t, uint32_t, uint32_t, float, "r", "w", "scvtf %s0, %w1", (from_int<uint32_t, uint32_t, false>))
QUERN_FAST_CVT(ucvtf_s2s, uint32_t, uint32_t, uint32_t, float, "r", "w", "ucvtf %s0, %w1", (from_int<uint32_t, uint32_t, true>))
QUERN_FAST_CVT(scvtf_d2s, uint64_t, uint32_t, uint64_t, float, "r", "w", "scvtf %s0, %x1", (from_int<uint64_t, uint32_t, false>))
QUERN_FAST_CVT(scvtf_s2d, uint32_t, uint64_t, uint32_t, double, "r", "w", "scvtf %d0, %w1", (from_int<uint32_t, uint64_t, false>))
QUERN_FAST_CVT(ucvtf_s2d, uint32_t, uint64_t, uint32_t, double, "r", "w", "ucvtf %d0, %w1", (from_int<uint32_t, uint64_t, true>))
QUERN_FAST_CVT(scvtf_d2d, uint64_t, uint64_t, uint64_t, double, "r", "w", "scvtf %d0, %x1", (from_int<uint64_t, uint64_t, false>))
QUERN_FAST_CVT(ucvtf_d2d, uint64_t, uint64_t, uint64_t, double, "r", "w", "ucvtf %d0, %x1", (from_int<uint64_t, uint64_t, true>))
QUERN_FAST_CVT(fcvtzs_s2s, uint32_t, uint32_t, float, uint32_t, "w", "r", "fcvtzs %w0, %s1", (to_int<uint32_t, uint32_t, false>))
QUERN_FAST_CVT(fcvtzs_s2d, uint32_t, uint64_t, float, uint64_t, "w", "r", "fcvtzs %x0, %s1", (to_int<uint32_t, uint64_t, false>))
QUERN_FAST_CVT(fcvtzs_d2s, uint64_t, uint32_t, double, uint32_t, "w", "r", "fcvtzs %w0, %d1", (to_int<uint64_t, uint32_t, false>))
QUERN_FAST_CVT(fcvtzu_d2s, uint64_t, uint32_t, double, uint32_t, "w", "r", "fcvtzu %w0, %d1", (to_int<uint64_t, uint32_t, true>))
QUERN_FAST_CVT(fcvtzs_d2d, uint64_t, uint64_t, double, uint64_t, "w", "r", "fcvtzs %x0, %d1", (to_int<uint64_t, uint64_t, false>))
QUERN_FAST_CVT(fcvtzu_d2d, uint64_t, uint64_t, double, uint64_t, "w", "r", "fcvtzu %x0, %d1", (to_int<uint64_t, uint64_t, true>))
#undef QUERN_FAST_CVT
#undef QUERN_HOST_CVT

}  // namespace

extern "C" {

// Same-width forms: lane, source and result all of type T.
#define QUERN_FP_SAME(NAME, T, OP) \
  VecV NAME(VecV d, PredV p, VecV n, CpuContext* c) { return fpcvt::unary_vm<T, T, T, false>(d, p, n, c, OP{}); }
// Mixed widths: lane L, source S, result R, signed integer result or not.
#define QUERN_FP_MIXED(NAME, L, S, R, SIGNED, OP) \
  VecV NAME(VecV d, PredV p, VecV n, CpuContext* c) { return fpcvt::unary_vm<L, S, R, SIGNED>(d, p, n, c, OP{}); }

#define QUERN_FRINT(TY, T)                                               \
  QUERN_FP_SAME(Vec##TY##FRIntIVM, T, (round_current<T, false>))             \
  QUERN_FP_SAME(Vec##TY##FRIntMVM, T, (round_fixed<T, FPRounding_NEGINF, false>))  \
  QUERN_FP_SAME(Vec##TY##FRIntNVM, T, (round_fixed<T, FPRounding_TIEEVEN, false>)) \
  QUERN_FP_SAME(Vec##TY##FRIntPVM, T, (round_fixed<T, FPRounding_POSINF, false>))  \
  QUERN_FP_SAME(Vec##TY##FRIntXVM, T, (round_current<T, true>))              \
  QUERN_FP_SAME(Vec##TY##FRIntZVM, T, (round_fixed<T, FPRounding_ZERO, false>))

// Every form for half; FRINTA of single and double is a fast handler.
QUERN_FRINT(F16, uint16_t)
QUERN_FP_SAME(VecF16FRIntAVM, uint16_t, (round_fixed<uint16_t, FPRounding_TIEAWAY, false>))
QUERN_FRINT(F32, uint32_t)
QUERN_FRINT(D64, uint64_t)

QUERN_FP_MIXED(VecF32ExtndHVM, uint32_t, uint16_t, uint32_t, false, (convert<uint16_t, uint32_t>))
QUERN_FP_MIXED(VecD64ExtndHVM, uint64_t, uint16_t, uint64_t, false, (convert<uint16_t, uint64_t>))
QUERN_FP_MIXED(VecH32TruncFVM, uint32_t, uint32_t, uint16_t, false, (convert<uint32_t, uint16_t>))
QUERN_FP_MIXED(VecH64TruncDVM, uint64_t, uint64_t, uint16_t, false, (convert<uint64_t, uint16_t>))

QUERN_FP_SAME(VecF16FromS2VM, uint16_t, (from_int<uint16_t, uint16_t, false>))
QUERN_FP_SAME(VecF16FromU2VM, uint16_t, (from_int<uint16_t, uint16_t, true>))
QUERN_FP_MIXED(VecF16FromS4VM, uint32_t, uint32_t, uint16_t, false, (from_int<uint32_t, uint16_t, false>))
QUERN_FP_MIXED(VecF16FromU4VM, uint32_t, uint32_t, uint16_t, false, (from_int<uint32_t, uint16_t, true>))
QUERN_FP_MIXED(VecF16FromS8VM, uint64_t, uint64_t, uint16_t, false, (from_int<uint64_t, uint16_t, false>))
QUERN_FP_MIXED(VecF16FromU8VM, uint64_t, uint64_t, uint16_t, false, (from_int<uint64_t, uint16_t, true>))
QUERN_FP_MIXED(VecF64FromU8VM, uint64_t, uint64_t, uint32_t, false, (from_int<uint64_t, uint32_t, true>))

QUERN_FP_SAME(VecS16_2FromHVM, uint16_t, (to_int<uint16_t, uint16_t, false>))
QUERN_FP_SAME(VecU16_2FromHVM, uint16_t, (to_int<uint16_t, uint16_t, true>))
QUERN_FP_MIXED(VecS32_4FromHVM, uint32_t, uint16_t, uint32_t, false, (to_int<uint16_t, uint32_t, false>))
QUERN_FP_MIXED(VecU32_4FromHVM, uint32_t, uint16_t, uint32_t, false, (to_int<uint16_t, uint32_t, true>))
QUERN_FP_MIXED(VecS64_8FromHVM, uint64_t, uint16_t, uint64_t, false, (to_int<uint16_t, uint64_t, false>))
QUERN_FP_MIXED(VecU64_8FromHVM, uint64_t, uint16_t, uint64_t, false, (to_int<uint16_t, uint64_t, true>))
QUERN_FP_SAME(VecU32_4FromFVM, uint32_t, (to_int<uint32_t, uint32_t, true>))
QUERN_FP_MIXED(VecU64_8FromFVM, uint64_t, uint32_t, uint64_t, false, (to_int<uint32_t, uint64_t, true>))

// Fast handlers: the lane is the wider of source and result; of the results
// narrower than the lane only FCVTZS is sign-extended.
#define QUERN_FAST_ZPZ(NAME, L, S, R, SIGNED)                                                                  \
  aarch64_decode_rc sve_##NAME##_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) { \
    return fpfast::unary_zpz<L, S, R, SIGNED>(cs, zd, pg, zn, NAME{});                                       \
  }
QUERN_FAST_ZPZ(fcvt_d2s, uint64_t, uint64_t, uint32_t, false)
QUERN_FAST_ZPZ(fcvt_s2d, uint64_t, uint32_t, uint64_t, false)
QUERN_FAST_ZPZ(scvtf_s2s, uint32_t, uint32_t, uint32_t, false)
QUERN_FAST_ZPZ(ucvtf_s2s, uint32_t, uint32_t, uint32_t, false)
QUERN_FAST_ZPZ(scvtf_d2s, uint64_t, uint64_t, uint32_t, false)
QUERN_FAST_ZPZ(scvtf_s2d, uint64_t, uint32_t, uint64_t, false)
QUERN_FAST_ZPZ(ucvtf_s2d, uint64_t, uint32_t, uint64_t, false)
QUERN_FAST_ZPZ(scvtf_d2d, uint64_t, uint64_t, uint64_t, false)
QUERN_FAST_ZPZ(ucvtf_d2d, uint64_t, uint64_t, uint64_t, false)
QUERN_FAST_ZPZ(fcvtzs_s2s, uint32_t, uint32_t, uint32_t, false)
QUERN_FAST_ZPZ(fcvtzs_s2d, uint64_t, uint32_t, uint64_t, false)
QUERN_FAST_ZPZ(fcvtzs_d2s, uint64_t, uint64_t, uint32_t, true)
QUERN_FAST_ZPZ(fcvtzu_d2s, uint64_t, uint64_t, uint32_t, false)
QUERN_FAST_ZPZ(fcvtzs_d2d, uint64_t, uint64_t, uint64_t, false)
QUERN_FAST_ZPZ(fcvtzu_d2d, uint64_t, uint64_t, uint64_t, false)
#undef QUERN_FAST_ZPZ

aarch64_decode_rc sve_frinta_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  if (zn.size == kZD) return fpfast::unary_zpz<uint64_t, uint64_t, uint64_t, false>(cs, zd, pg, zn, frinta_d{});
  return fpfast::unary_zpz<uint32_t, uint32_t, uint32_t, false>(cs, zd, pg, zn, frinta_s{});
}

#undef QUERN_FRINT
#undef QUERN_FP_SAME
#undef QUERN_FP_MIXED

}  // extern "C"
