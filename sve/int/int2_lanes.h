// Lane forms and element rules shared by the multiply, shift, reduction,
// permute and extraction families (and the predicate permutes, which reuse
// the element movers).
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "sve/dispatch/cpu_state.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"

// The element size of the movers: a shift count, 48 >> size lanes in a register.
enum element_size : int { kElem8 = 0, kElem16 = 1, kElem32 = 2, kElem64 = 3 };

extern "C" {
// Element movers on 48-byte areas, a Z register or the byte-per-bit form of a
// predicate alike. They write all 48 bytes of the destination, which must not
// be one of the sources: callers pass a temporary.
void sve_zip1(char* dst, char* a, char* b, element_size size);
void sve_zip2(char* dst, char* a, char* b, element_size size);
void sve_uzp1(char* dst, char* a, char* b, element_size size);
// TRN1 of byte predicates; kept although no row of the decode table leads to it.
aarch64_decode_rc sve_trn1_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm);
}

namespace int2 {

template <typename T>
constexpr unsigned kBits = sizeof(T) * 8;

// ---- element rules ---------------------------------------------------------

// A left shift or a logical right shift by the lane width or more leaves 0;
// an arithmetic right shift stops at width - 1, which fills with the sign.
// The lane type's signedness chooses between the two right shifts.
template <typename T>
inline T shift_left(T a, uint64_t count) {
  using U = std::make_unsigned_t<T>;
  // Shifted at 32 bits unless the lane is wider (count is below the lane's
  // width here), so that the lane loops vectorise without widening to 64.
  using W = std::conditional_t<(sizeof(U) < 8), uint32_t, uint64_t>;
  if (count >= kBits<T>) return T(0);
  return static_cast<T>(static_cast<U>(static_cast<W>(static_cast<U>(a)) << count));
}

template <typename T>
inline T shift_right(T a, uint64_t count) {
  if constexpr (std::is_signed_v<T>) {
    return static_cast<T>(a >> (count < kBits<T> ? count : kBits<T> - 1));
  } else {
    return count < kBits<T> ? static_cast<T>(a >> count) : T(0);
  }
}

// Modular product at the lane width, in unsigned 64 bits so that no narrow
// lane is promoted to a signed int that could overflow.
template <typename T>
inline T mul_mod(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<uint64_t>(static_cast<U>(a)) * static_cast<uint64_t>(static_cast<U>(b)));
}

// ---- fast forms not in fast_lanes.h ----------------------------------------

// Zdn = Pg ? op(Zdn) : Zdn, in place: each lane reads only itself.
template <typename T, typename Op>
inline aarch64_decode_rc unary_zp(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, Op op) {
  unsigned char* a = cs->z[zdn.number];
  const unsigned char* p = cs->p[pg.number];
  for (unsigned i = 0; i < fast::lanes<T>; ++i)
    if (fast::active<T>(p, i)) fast::set_lane<T>(a, i, static_cast<T>(op(fast::lane<T>(a, i))));
  return AARCH64_DECODE_OK;
}

// Zd = op(Zn), lane by lane.
template <typename T, typename Op>
inline aarch64_decode_rc unary_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, Op op) {
  const unsigned char* a = cs->z[zn.number];
  unsigned char* d = cs->z[zd.number];
  for (unsigned i = 0; i < fast::lanes<T>; ++i) fast::set_lane<T>(d, i, static_cast<T>(op(fast::lane<T>(a, i))));
  return AARCH64_DECODE_OK;
}

// Zd = Pg ? op(Zd, X, Y) : Zd, through a temporary so that any register may
// stand in any position.
template <typename T, typename Op>
inline aarch64_decode_rc ternary_zpzz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zx,
                                      aarch64_z_reg zy, Op op) {
  const unsigned char* d = cs->z[zd.number];
  const unsigned char* x = cs->z[zx.number];
  const unsigned char* y = cs->z[zy.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  for (unsigned i = 0; i < fast::lanes<T>; ++i) {
    const T old = fast::lane<T>(d, i);
    fast::set_lane<T>(out, i,
                      fast::active<T>(p, i) ? static_cast<T>(op(old, fast::lane<T>(x, i), fast::lane<T>(y, i))) : old);
  }
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// A scalar result in a SIMD&FP register: the low 64 bits, the other 40 bytes 0.
inline void put_scalar(cpu_state* cs, unsigned vd, uint64_t value, unsigned bytes = 8) {
  std::memset(cs->z[vd], 0, kVecBytes);
  std::memcpy(cs->z[vd], &value, bytes);
}

// Highest active lane of a byte-per-bit predicate, -1 if none.
template <typename T>
inline int last_active(const unsigned char* p) {
  for (int i = static_cast<int>(fast::lanes<T>) - 1; i >= 0; --i)
    if (fast::active<T>(p, static_cast<unsigned>(i))) return i;
  return -1;
}

// ---- generic forms -----------------------------------------------------------

template <typename T>
inline int last_active(const PredV& p, const CpuContext* c) {
  for (int i = static_cast<int>(generic::lane_count<T>(c)) - 1; i >= 0; --i)
    if (generic::active<T>(p, static_cast<unsigned>(i))) return i;
  return -1;
}

// Lane i of a zero-extended to 64 bits.
template <typename T>
inline uint64_t zext_lane(const VecV& v, unsigned i) {
  return static_cast<std::make_unsigned_t<T>>(generic::lane<T>(v, i));
}

}  // namespace int2
