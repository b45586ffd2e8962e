// LSL, LSR, ASR by immediate, by vector and by wide (64-bit) elements, the
// reversed forms LSLR, LSRR, ASRR, and ASRD.
//
// The count is never masked: a count of the lane width or more gives 0 for a
// left or logical right shift and the sign fill for an arithmetic one, whatever
// its size (a byte count of 0x80 or a wide count of 0x100 included).

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"
#include "sve/lib/int_helpers.h"

namespace {

using int2::shift_left;
using int2::shift_right;

struct shl_op {
  template <typename T> T operator()(T a, T count) const {
    return shift_left(a, static_cast<std::make_unsigned_t<T>>(count));
  }
};
// The lane type decides: signed lanes shift arithmetically.
struct shr_op {
  template <typename T> T operator()(T a, T count) const {
    return shift_right(a, static_cast<std::make_unsigned_t<T>>(count));
  }
};
// Reversed: the first operand is the count, the second the value.
struct shlr_op {
  template <typename T> T operator()(T count, T b) const { return shl_op{}(b, count); }
};
struct shrr_op {
  template <typename T> T operator()(T count, T b) const { return shr_op{}(b, count); }
};

// The arithmetic shift that divides by 2^count, rounding towards zero; the
// count runs from 1 to the lane width, where every lane becomes 0.
template <typename T>
T asrd(T x, uint64_t count) {
  s128 v = x;
  if (v < 0) v += ShiftLeftInt(1, count) - 1;
  return static_cast<T>(bits(ShiftRightInt(v, count)));
}

// Shift each lane by the 64-bit element of `w` that covers it.
template <typename T, typename Shift>
VecV wide(const VecV& a, const PredV* p, const VecV& w, const CpuContext* c, Shift shift) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = generic::lane<T>(a, i);
    const uint64_t count = generic::lane<uint64_t>(w, i * sizeof(T) / 8);
    generic::set_lane<T>(r, i, p && !generic::active<T>(*p, i) ? x : shift(x, count));
  }
  return r;
}

template <typename T, typename Op>
VecV imm_vim(const VecV& a, const PredV& p, uint64_t count, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = generic::lane<T>(a, i);
    generic::set_lane<T>(r, i, generic::active<T>(p, i) ? op(x, count) : x);
  }
  return r;
}

// By immediate: left, or arithmetic right on the signed lanes of ASR.
template <bool Right>
struct imm_shift {
  unsigned count;
  template <typename T> T operator()(T a) const { return Right ? shift_right(a, count) : shift_left(a, count); }
};

// Lanes by size code, signed when `Signed`.
template <bool Signed, typename F>
aarch64_decode_rc by_lane(int32_t size, F f) {
  return fast::by_size(size, [&](auto lane) {
    using U = decltype(lane);
    return f(std::conditional_t<Signed, std::make_signed_t<U>, U>{});
  });
}

template <typename T>
T lsl_(T a, uint64_t n) { return shift_left(a, n); }
template <typename T>
T shr_(T a, uint64_t n) { return shift_right(a, n); }

}  // namespace

extern "C" {

// ---- fast road ----------------------------------------------------------------

aarch64_decode_rc sve_lsl_zpi(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, unsigned int count) {
  return by_lane<false>(zdn.in_size, [&](auto lane) { return int2::unary_zp<decltype(lane)>(cs, zdn, pg, imm_shift<false>{count}); });
}
aarch64_decode_rc sve_asr_zpi(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, unsigned int count) {
  return by_lane<true>(zdn.in_size, [&](auto lane) { return int2::unary_zp<decltype(lane)>(cs, zdn, pg, imm_shift<true>{count}); });
}
aarch64_decode_rc sve_lsl_zzi(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, unsigned int count) {
  return by_lane<false>(zd.size, [&](auto lane) { return int2::unary_zz<decltype(lane)>(cs, zd, zn, imm_shift<false>{count}); });
}
aarch64_decode_rc sve_asr_zzi(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, unsigned int count) {
  return by_lane<true>(zd.size, [&](auto lane) { return int2::unary_zz<decltype(lane)>(cs, zd, zn, imm_shift<true>{count}); });
}
aarch64_decode_rc sve_lsl_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, shl_op{}); });
}
aarch64_decode_rc sve_lsr_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, shr_op{}); });
}
aarch64_decode_rc sve_asr_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return by_lane<true>(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, shr_op{}); });
}

// ---- generic road ---------------------------------------------------------------

// Right shifts by immediate (LSR on U lanes) and the reversed forms.
#define QUERN_SHIFT_RIGHT(T, TY)                                                                        \
  VecV Vec##TY##ShrVIM(VecV a, PredV p, uint64_t n, CpuContext* c) { return imm_vim<T>(a, p, n, c, shr_<T>); } \
  VecV Vec##TY##ShrRVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                        \
    return generic::binary_vvm<T>(a, p, b, c, shrr_op{});                                                \
  }
#define QUERN_SHIFT_UNSIGNED(T, TY)                                                                     \
  QUERN_SHIFT_RIGHT(T, TY)                                                                              \
  VecV Vec##TY##ShrVIX(VecV a, uint64_t n, CpuContext* c) {                                              \
    VecV r;                                                                                             \
    const unsigned lanes = generic::lane_count<T>(c);                                                   \
    for (unsigned i = 0; i < lanes; ++i) generic::set_lane<T>(r, i, shift_right(generic::lane<T>(a, i), n)); \
    return r;                                                                                           \
  }                                                                                                     \
  VecV Vec##TY##ShlRVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                        \
    return generic::binary_vvm<T>(a, p, b, c, shlr_op{});                                                \
  }
#define QUERN_SHIFT_SIGNED(T, TY)                                                                        \
  VecV Vec##TY##ShrRVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                        \
    return generic::binary_vvm<T>(a, p, b, c, shrr_op{});                                                \
  }                                                                                                     \
  VecV Vec##TY##ShrDVIM(VecV a, PredV p, uint64_t n, CpuContext* c) { return imm_vim<T>(a, p, n, c, asrd<T>); }
// Wide forms exist for lanes narrower than the count elements.
#define QUERN_SHIFT_WIDE_RIGHT(T, TY)                                                                     \
  VecV Vec##TY##ShrVWM(VecV a, PredV p, VecV w, CpuContext* c) { return wide<T>(a, &p, w, c, shr_<T>); } \
  VecV Vec##TY##ShrVWX(VecV a, VecV w, CpuContext* c) { return wide<T>(a, nullptr, w, c, shr_<T>); }
#define QUERN_SHIFT_WIDE_LEFT(T, TY)                                                                      \
  VecV Vec##TY##ShlVWM(VecV a, PredV p, VecV w, CpuContext* c) { return wide<T>(a, &p, w, c, lsl_<T>); } \
  VecV Vec##TY##ShlVWX(VecV a, VecV w, CpuContext* c) { return wide<T>(a, nullptr, w, c, lsl_<T>); }

QUERN_SHIFT_UNSIGNED(uint8_t, U8)
QUERN_SHIFT_UNSIGNED(uint16_t, U16)
QUERN_SHIFT_UNSIGNED(uint32_t, U32)
QUERN_SHIFT_UNSIGNED(uint64_t, U64)
QUERN_SHIFT_SIGNED(int8_t, S8)
QUERN_SHIFT_SIGNED(int16_t, S16)
QUERN_SHIFT_SIGNED(int32_t, S32)
QUERN_SHIFT_SIGNED(int64_t, S64)
QUERN_SHIFT_WIDE_RIGHT(uint8_t, U8)
QUERN_SHIFT_WIDE_RIGHT(uint16_t, U16)
QUERN_SHIFT_WIDE_RIGHT(uint32_t, U32)
QUERN_SHIFT_WIDE_RIGHT(int8_t, S8)
QUERN_SHIFT_WIDE_RIGHT(int16_t, S16)
QUERN_SHIFT_WIDE_RIGHT(int32_t, S32)
QUERN_SHIFT_WIDE_LEFT(uint8_t, U8)
QUERN_SHIFT_WIDE_LEFT(uint16_t, U16)
QUERN_SHIFT_WIDE_LEFT(uint32_t, U32)

#undef QUERN_SHIFT_RIGHT
#undef QUERN_SHIFT_UNSIGNED
#undef QUERN_SHIFT_SIGNED
#undef QUERN_SHIFT_WIDE_RIGHT
#undef QUERN_SHIFT_WIDE_LEFT

}  // extern "C"
