// Saturating arithmetic (SQADD, UQADD, SQSUB, UQSUB) and the element counts:
// CNT, INC and DEC of every element size with a pattern and a multiplier, their
// saturating scalar and vector forms, and INCP, DECP with theirs.
//
// The fast handlers take the multiplier already incremented and the count from
// the pattern table of sat_count.h; the generic routines take the raw imm4 and
// ask VecTrueILength with the lane count of their context.

#include "decode_decls.h"
#include "sve/int/int_lanes.h"
#include "sve/int/sat_count.h"
#include "sve/predicate/pred_flags.h"
#include "sve/lib/int_helpers.h"

namespace {

// X[d] +/- multiplier * count; register 31 is not written.
template <int Size, bool Dec>
aarch64_decode_rc step_x(cpu_state* cs, aarch64_i_reg xdn, unsigned pattern, unsigned mul) {
  const uint64_t delta = uint64_t{mul} * fast::pattern_count(Size, pattern);
  const uint64_t x = read_x(cs, xdn);
  write_x(cs, xdn, Dec ? x - delta : x + delta);
  return AARCH64_DECODE_OK;
}

// Every lane +/- multiplier * count, at lane width.
template <typename T, bool Dec>
aarch64_decode_rc step_z(cpu_state* cs, aarch64_z_reg zdn, unsigned pattern, unsigned mul) {
  constexpr int size = sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
  const T delta = static_cast<T>(uint64_t{mul} * fast::pattern_count(size, pattern));
  unsigned char* z = cs->z[zdn.number];
  for (unsigned i = 0; i < fast::lanes<T>; ++i) {
    const T v = fast::lane<T>(z, i);
    fast::set_lane<T>(z, i, static_cast<T>(Dec ? v - delta : v + delta));
  }
  return AARCH64_DECODE_OK;
}

// The count that a pattern and a raw imm4 give at lane type T.
template <typename T>
uint64_t vl_count(uint64_t pattern, uint64_t imm4, const CpuContext* c) {
  const uint64_t count = static_cast<uint64_t>(VecTrueILength(pattern, generic::lane_count<T>(c)));
  return count + imm4 * count;
}

// A scalar of Bytes (4 or 8) bytes plus or minus a count, saturated. A 32-bit
// result comes back sign-extended when signed and zero-extended when unsigned,
// also where SatQ gave a bare N-bit pattern.
template <bool Dec, int Bytes>
uint64_t sat_scalar(uint64_t value, uint64_t count, int is_unsigned) {
  const u128 r = Dec ? SatSub(value, count, Bytes * 8, is_unsigned) : SatAdd(value, count, Bytes * 8, is_unsigned);
  if (Bytes == 8) return SatValue(r);
  const uint32_t v = static_cast<uint32_t>(SatValue(r));
  return is_unsigned == 1 ? v : static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(v)));
}

// The lane plus or minus c, exactly, then clamped.
template <typename T, bool Dec>
T sat_lane(T a, uint64_t c, int is_unsigned) {
  const s128 x = Int(a, lane_bits<T>, is_unsigned);
  const s128 y = static_cast<s128>(c);
  return static_cast<T>(SatValue(SatQ(Dec ? x - y : x + y, lane_bits<T>, is_unsigned)));
}

}  // namespace

extern "C" {

// ---- fast road ---------------------------------------------------------------

// INC<T> and DEC<T> on a general register (STEP = step_x, ARG the size code)
// or on a vector (STEP = step_z, ARG the lane type).
#define QUERN_INC_DEC(L, FORM, REG, STEP, ARG)                                                       \
  aarch64_decode_rc sve_inc##L##_##FORM(cpu_state* cs, REG r, unsigned int pat, unsigned int mul) {  \
    return STEP<ARG, false>(cs, r, pat, mul);                                                        \
  }                                                                                                  \
  aarch64_decode_rc sve_dec##L##_##FORM(cpu_state* cs, REG r, unsigned int pat, unsigned int mul) {  \
    return STEP<ARG, true>(cs, r, pat, mul);                                                         \
  }
QUERN_INC_DEC(b, rii, aarch64_i_reg, step_x, 0)
QUERN_INC_DEC(h, rii, aarch64_i_reg, step_x, 1)
QUERN_INC_DEC(w, rii, aarch64_i_reg, step_x, 2)
QUERN_INC_DEC(d, rii, aarch64_i_reg, step_x, 3)
QUERN_INC_DEC(h, zii, aarch64_z_reg, step_z, uint16_t)
QUERN_INC_DEC(w, zii, aarch64_z_reg, step_z, uint32_t)
QUERN_INC_DEC(d, zii, aarch64_z_reg, step_z, uint64_t)
#undef QUERN_INC_DEC

// UQDECB on a 32-bit (width code 2) or 64-bit register: clamps at zero.
aarch64_decode_rc sve_uqdecb_rii(cpu_state* cs, aarch64_i_reg rdn, unsigned int pattern, unsigned int mul) {
  const bool wide = rdn.in_size == kRX;
  const uint64_t x = read_x(cs, rdn);
  const uint64_t v = wide ? x : static_cast<uint32_t>(x);
  const uint64_t dec = uint64_t{mul} * fast::pattern_count(0, pattern);
  write_x(cs, rdn, v <= dec ? 0 : v - dec);
  return AARCH64_DECODE_OK;
}

// INCP Xdn, Pm.<T>: the number of lanes whose leading predicate byte has bit 0.
aarch64_decode_rc sve_incp_rp(cpu_state* cs, aarch64_i_reg xdn, aarch64_p_reg pm) {
  const uint64_t count = static_cast<uint64_t>(__builtin_popcountll(pred_bits(cs->p[pm.number], lane_bytes_of(pm.size))));
  write_x(cs, xdn, read_x(cs, xdn) + count);
  return AARCH64_DECODE_OK;
}

// ---- generic road --------------------------------------------------------------

#define QUERN_SAT_VECTORS(TY, T, U)                                                                  \
  VecV Vec##TY##QAddVVX(VecV a, VecV b, CpuContext* c) {                                             \
    return generic::binary_vvx<T>(a, b, c, [](T x, T y) { return static_cast<T>(SatValue(SatAdd(x, y, lane_bits<T>, U))); }); \
  }                                                                                                  \
  VecV Vec##TY##QSubVVX(VecV a, VecV b, CpuContext* c) {                                             \
    return generic::binary_vvx<T>(a, b, c, [](T x, T y) { return static_cast<T>(SatValue(SatSub(x, y, lane_bits<T>, U))); }); \
  }                                                                                                  \
  /* The immediate is unsigned at the lane's width, also for signed lanes. */                        \
  VecV Vec##TY##QAddVIX(VecV a, uint64_t imm, CpuContext* c) {                                       \
    return generic::binary_vix<T>(a, imm, c, [](T x, T y) { return sat_lane<T, false>(x, y, U); });  \
  }                                                                                                  \
  VecV Vec##TY##QSubVIX(VecV a, uint64_t imm, CpuContext* c) {                                       \
    return generic::binary_vix<T>(a, imm, c, [](T x, T y) { return sat_lane<T, true>(x, y, U); });   \
  }
QUERN_INT_TYPES_US(QUERN_SAT_VECTORS)
#undef QUERN_SAT_VECTORS

// Saturating scalar counts: Vec<TY>Q<Incr|Decr>VL<4|8>SI from a pattern,
// Vec<TY>Q<Incr|Decr>SCount<4|8>PS from a predicate.
#define QUERN_SAT_VL(TY, T, U, OP, DEC, B)                                                           \
  uint64_t Vec##TY##Q##OP##VL##B##SI(uint64_t v, uint64_t pat, uint64_t imm4, CpuContext* c) {       \
    return sat_scalar<DEC, B>(v, vl_count<T>(pat, imm4, c), U);                                      \
  }
#define QUERN_SAT_PS(TY, T, U, OP, DEC, B)                                                           \
  uint64_t Vec##TY##Q##OP##SCount##B##PS(PredV p, uint64_t v, CpuContext* c) {                       \
    return sat_scalar<DEC, B>(v, generic::count_active<T>(p, c), U);                                 \
  }
#define QUERN_SAT_SCALARS(TY, T, U)                                                                  \
  QUERN_SAT_VL(TY, T, U, Incr, false, 4) QUERN_SAT_VL(TY, T, U, Incr, false, 8)                     \
  QUERN_SAT_PS(TY, T, U, Incr, false, 4) QUERN_SAT_PS(TY, T, U, Incr, false, 8)                     \
  QUERN_SAT_PS(TY, T, U, Decr, true, 4) QUERN_SAT_PS(TY, T, U, Decr, true, 8)
QUERN_INT_TYPES_US(QUERN_SAT_SCALARS)
// UQDECB takes the fast road: no U8 routine for it here.
#define QUERN_SAT_DECR_VL(TY, T, U) QUERN_SAT_VL(TY, T, U, Decr, true, 4) QUERN_SAT_VL(TY, T, U, Decr, true, 8)
QUERN_INT_TYPES_S(QUERN_SAT_DECR_VL)
QUERN_INT_TYPES_U_WIDE(QUERN_SAT_DECR_VL)
#undef QUERN_SAT_DECR_VL
#undef QUERN_SAT_SCALARS
#undef QUERN_SAT_PS
#undef QUERN_SAT_VL

#define QUERN_COUNT_U(TY, T, U)                                                                      \
  uint64_t Vec##TY##CountVLSI(uint64_t pat, uint64_t imm4, CpuContext* c) { return vl_count<T>(pat, imm4, c); } \
  uint64_t Vec##TY##DecrSCountPS(PredV p, uint64_t v, CpuContext* c) { return v - generic::count_active<T>(p, c); }
QUERN_INT_TYPES_U(QUERN_COUNT_U)
#undef QUERN_COUNT_U

// Every lane plus or minus a count: saturating (Q) or modular, the count from
// a pattern (VLVI) or a predicate (CountPV).
#define QUERN_STEP_VL(TY, T, U, OP, DEC)                                                             \
  VecV Vec##TY##OP##VLVI(VecV a, uint64_t pat, uint64_t imm4, CpuContext* c) {                       \
    const uint64_t k = vl_count<T>(pat, imm4, c);                                                    \
    return generic::unary_vx<T>(a, c, [k](T x) { return sat_lane<T, DEC>(x, k, U); });               \
  }
#define QUERN_STEP_PV(TY, T, U, OP, DEC, LANE)                                                       \
  VecV Vec##TY##OP##CountPV(PredV p, VecV a, CpuContext* c) {                                        \
    const uint64_t k = generic::count_active<T>(p, c);                                               \
    return generic::unary_vx<T>(a, c, [k](T x) { return LANE; });                                    \
  }
#define QUERN_STEP_WIDE(TY, T, U)                                                                    \
  QUERN_STEP_VL(TY, T, U, QIncr, false) QUERN_STEP_VL(TY, T, U, QDecr, true)                        \
  QUERN_STEP_PV(TY, T, U, QIncr, false, (sat_lane<T, false>(x, k, U)))                              \
  QUERN_STEP_PV(TY, T, U, QDecr, true, (sat_lane<T, true>(x, k, U)))
QUERN_INT_TYPES_US_WIDE(QUERN_STEP_WIDE)
#define QUERN_STEP_MODULAR(TY, T, U)                                                                 \
  QUERN_STEP_PV(TY, T, U, Incr, false, static_cast<T>(x + k)) QUERN_STEP_PV(TY, T, U, Decr, true, static_cast<T>(x - k))
QUERN_INT_TYPES_U_WIDE(QUERN_STEP_MODULAR)
#undef QUERN_STEP_MODULAR
#undef QUERN_STEP_WIDE
#undef QUERN_STEP_PV
#undef QUERN_STEP_VL

}  // extern "C"
