// Integer unary, minimum and maximum operations: SUBR, NEG, ABS, NOT, CNOT,
// SABD, UABD, SMAX, UMAX, SMIN, UMIN (vectors and immediate), the sign and zero
// extensions, CLS, CLZ, CNT, RBIT.
//
// The fast handlers compute their lanes directly; the generic routines lift
// each lane to the wide integer of the helpers so that no intermediate
// overflows.

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int_lanes.h"
#include "sve/lib/int_helpers.h"

namespace {

// The fast lane operations work on host vectors of lanes (fast::Quad).
struct neg_op {
  template <typename V> V operator()(V b) const { return V{} - b; }
};
// On host vectors of lanes: the comparison picks whole lanes.
template <bool Signed, bool Greater>
struct minmax_op {
  template <typename V> V operator()(V a, V b) const {
    using T = std::remove_reference_t<decltype(a[0])>;
    using C = fast::Quad<std::conditional_t<Signed, std::make_signed_t<T>, T>>;
    const C x = reinterpret_cast<C>(a), y = reinterpret_cast<C>(b);
    return (Greater ? x > y : x < y) ? a : b;
  }
};
using smax_op = minmax_op<true, true>;
using umax_op = minmax_op<false, true>;
using smin_op = minmax_op<true, false>;
using umin_op = minmax_op<false, false>;

// The low part of type From, sign- or zero-extended by From's signedness.
template <typename From>
struct extend_op {
  template <typename V> V operator()(V b) const {
    using T = std::remove_reference_t<decltype(b[0])>;
    constexpr int shift = lane_bits<T> - lane_bits<From>;
    if constexpr (shift <= 0) {
      return b;  // a lane no wider than From: no row has one
    } else if constexpr (std::is_unsigned_v<From>) {
      return b & static_cast<T>(ones(lane_bits<From>));
    } else {
      using S = fast::Quad<std::make_signed_t<T>>;
      return reinterpret_cast<V>((reinterpret_cast<S>(b) << shift) >> shift);
    }
  }
};

// Bits mirrored within each byte, then the bytes of each lane reversed.
struct rbit_op {
  template <typename V> V operator()(V b) const {
    using B = fast::Quad<uint8_t>;
    constexpr unsigned size = sizeof(b[0]);
    B x = reinterpret_cast<B>(b);
    x = ((x >> 1) & 0x55) | ((x & 0x55) << 1);
    x = ((x >> 2) & 0x33) | ((x & 0x33) << 2);
    x = ((x >> 4) & 0x0F) | ((x & 0x0F) << 4);
    B order;
    for (unsigned j = 0; j < 16; ++j) order[j] = static_cast<uint8_t>(j / size * size + (size - 1 - j % size));
    return reinterpret_cast<V>(__builtin_shuffle(x, order));
  }
};

}  // namespace

extern "C" {

// ---- fast road ---------------------------------------------------------------

// The element size of the destructive min/max comes from Zm.
#define QUERN_MINMAX_FAST(NAME, OP)                                                                  \
  aarch64_decode_rc NAME(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {     \
    return fast::by_size(zm.size, [&](auto lane) { return fast::merge_zpz<decltype(lane)>(cs, zdn, pg, zm, OP{}); }); \
  }
QUERN_MINMAX_FAST(sve_smax_zpz, smax_op)
QUERN_MINMAX_FAST(sve_umax_zpz, umax_op)
QUERN_MINMAX_FAST(sve_smin_zpz, smin_op)
QUERN_MINMAX_FAST(sve_umin_zpz, umin_op)
#undef QUERN_MINMAX_FAST

// Unary merging: Zd, Pg/M, Zn with the element size of Zd.
#define QUERN_UNARY_FAST(NAME, OP)                                                                   \
  aarch64_decode_rc NAME(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {      \
    return fast::by_size(zd.size, [&](auto lane) { return fast::unary_zpz<decltype(lane)>(cs, zd, pg, zn, OP{}); }); \
  }
QUERN_UNARY_FAST(sve_neg_zpz, neg_op)
QUERN_UNARY_FAST(sve_rbit_zpz, rbit_op)
QUERN_UNARY_FAST(sve_sxtb_zpz, extend_op<int8_t>)
QUERN_UNARY_FAST(sve_sxth_zpz, extend_op<int16_t>)
QUERN_UNARY_FAST(sve_sxtw_zpz, extend_op<int32_t>)
QUERN_UNARY_FAST(sve_uxth_zpz, extend_op<uint16_t>)
QUERN_UNARY_FAST(sve_uxtw_zpz, extend_op<uint32_t>)
#undef QUERN_UNARY_FAST

// ---- generic road --------------------------------------------------------------

// Unary merging routines: Vec<TY><OP>VM(old destination, PredV, source, CpuContext*).
#define QUERN_UNARY_VM(TY, T, U, OP, EXPR)                                                           \
  VecV Vec##TY##OP##VM(VecV d, PredV p, VecV s, CpuContext* c) {                                     \
    return generic::unary_vm<T>(d, p, s, c, [](T b) { return static_cast<T>(EXPR); });              \
  }

#define QUERN_UNARY_ANY(TY, T, U)                                                                    \
  QUERN_UNARY_VM(TY, T, U, Inv, ~b)                                                                  \
  QUERN_UNARY_VM(TY, T, U, Not, b == 0 ? 1 : 0)                                                      \
  QUERN_UNARY_VM(TY, T, U, Cls, CountLeadingSignBits(b, lane_bits<T>))                                          \
  QUERN_UNARY_VM(TY, T, U, Clz, CountLeadingZeroBits(b, lane_bits<T>))                                          \
  QUERN_UNARY_VM(TY, T, U, Cnt, BitCount(b, lane_bits<T>))                                                      \
  VecV Vec##TY##SubRVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                    \
    return generic::binary_vvm<T>(a, p, b, c, [](T x, T y) { return static_cast<T>(y - x); });       \
  }                                                                                                  \
  /* The immediate is cut to the lane: at bytes the shifted form gives 0 - a. */                     \
  VecV Vec##TY##SubRVIX(VecV a, uint64_t imm, CpuContext* c) {                                       \
    return generic::binary_vix<T>(a, imm, c, [](T x, T y) { return static_cast<T>(y - x); });       \
  }
QUERN_INT_TYPES_U(QUERN_UNARY_ANY)
#undef QUERN_UNARY_ANY

// The most negative value has no positive counterpart and stays as it is.
#define QUERN_ABS(TY, T, U) QUERN_UNARY_VM(TY, T, U, Abs, bits(AbsInt(Int(b, lane_bits<T>, U))))
QUERN_INT_TYPES_S(QUERN_ABS)
#undef QUERN_ABS

#define QUERN_ABD_MINMAX_IMM(TY, T, U)                                                                  \
  VecV Vec##TY##AbdVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                     \
    return generic::binary_vvm<T>(a, p, b, c, [](T x, T y) {                                         \
      return static_cast<T>(bits(AbsInt(Int(x, lane_bits<T>, U) - Int(y, lane_bits<T>, U))));       \
    });                                                                                              \
  }                                                                                                  \
  VecV Vec##TY##MaxVIX(VecV a, std::conditional_t<U == 1, uint64_t, int64_t> imm, CpuContext* c) {  \
    return generic::binary_vix<T>(a, static_cast<uint64_t>(imm), c,                                 \
                                  [](T x, T y) { return static_cast<T>(Max(x, y, lane_bits<T>, U)); }); \
  }                                                                                                  \
  VecV Vec##TY##MinVIX(VecV a, std::conditional_t<U == 1, uint64_t, int64_t> imm, CpuContext* c) {  \
    return generic::binary_vix<T>(a, static_cast<uint64_t>(imm), c,                                 \
                                  [](T x, T y) { return static_cast<T>(Min(x, y, lane_bits<T>, U)); }); \
  }
QUERN_INT_TYPES_US(QUERN_ABD_MINMAX_IMM)
#undef QUERN_ABD_MINMAX_IMM

// UXTB: the low byte, zero-extended.
QUERN_UNARY_VM(U16, uint16_t, 1, Extnd12, static_cast<uint8_t>(b))
QUERN_UNARY_VM(U32, uint32_t, 1, Extnd14, static_cast<uint8_t>(b))
QUERN_UNARY_VM(U64, uint64_t, 1, Extnd18, static_cast<uint8_t>(b))
#undef QUERN_UNARY_VM

}  // extern "C"
