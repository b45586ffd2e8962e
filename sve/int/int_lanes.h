// Element loops of the integer element-wise families beyond those of
// fast_lanes.h and vec_loop.h: unary merging forms, and the lane type lists
// that the generic routines are instantiated over.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "sve/dispatch/cpu_state.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"

namespace fast {

// Zd = Pg ? op(Zn) : Zd, through a temporary (Zd may be Zn).
template <typename T, typename Op>
inline aarch64_decode_rc unary_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, Op op) {
  const unsigned char* d = cs->z[zd.number];
  const unsigned char* s = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  for (unsigned i = 0; i < lanes<T>; ++i)
    set_lane<T>(out, i, active<T>(p, i) ? static_cast<T>(op(lane<T>(s, i))) : lane<T>(d, i));
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Every lane of Zd set to v.
template <typename T>
inline aarch64_decode_rc fill(cpu_state* cs, aarch64_z_reg zd, T v) {
  unsigned char out[kVecBytes];
  for (unsigned i = 0; i < lanes<T>; ++i) set_lane<T>(out, i, v);
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Lanes of Zd set to v where Pg is active; the others kept or, when `zeroing`,
// cleared.
template <typename T>
inline aarch64_decode_rc fill_zp(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, T v, bool zeroing) {
  unsigned char* d = cs->z[zd.number];
  const unsigned char* p = cs->p[pg.number];
  for (unsigned i = 0; i < lanes<T>; ++i) {
    if (active<T>(p, i)) set_lane<T>(d, i, v);
    else if (zeroing) set_lane<T>(d, i, T{0});
  }
  return AARCH64_DECODE_OK;
}

}  // namespace fast

namespace generic {

// Merging unary: active lanes get op(b) of the source, inactive ones keep the
// old destination.
template <typename T, typename Op>
inline VecV unary_vm(const VecV& old, const PredV& p, const VecV& src, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i)
    set_lane<T>(r, i, active<T>(p, i) ? static_cast<T>(op(lane<T>(src, i))) : lane<T>(old, i));
  return r;
}

// Every lane through op, no predicate.
template <typename T, typename Op>
inline VecV unary_vx(const VecV& src, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) set_lane<T>(r, i, static_cast<T>(op(lane<T>(src, i))));
  return r;
}

// Number of lanes whose leading predicate bit is set.
template <typename T>
inline uint64_t count_active(const PredV& p, const CpuContext* c) {
  uint64_t k = 0;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) k += active<T>(p, i) ? 1 : 0;
  return k;
}

}  // namespace generic

// Lane width in bits of an element type.
template <typename T>
constexpr int lane_bits = static_cast<int>(sizeof(T) * 8);

// The generic routines exist once per lane type: these lists name them
// (type letter and width, storage type, unsigned flag for the helpers).
#define QUERN_INT_TYPES_U(M) M(U8, uint8_t, 1) M(U16, uint16_t, 1) M(U32, uint32_t, 1) M(U64, uint64_t, 1)
#define QUERN_INT_TYPES_S(M) M(S8, uint8_t, 0) M(S16, uint16_t, 0) M(S32, uint32_t, 0) M(S64, uint64_t, 0)
#define QUERN_INT_TYPES_US(M) QUERN_INT_TYPES_U(M) QUERN_INT_TYPES_S(M)
// Without bytes: the vector forms of the count families.
#define QUERN_INT_TYPES_US_WIDE(M) \
  M(U16, uint16_t, 1) M(U32, uint32_t, 1) M(U64, uint64_t, 1) M(S16, uint16_t, 0) M(S32, uint32_t, 0) M(S64, uint64_t, 0)
