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

// The merging forms read whole registers as three 16-byte host vectors of
// lanes and select with a lane mask instead of a branch: no loop and no
// temporary in memory. Lane operations take and give such vectors. Bit 0 of
// the predicate byte at a lane's first byte is bit 0 of the predicate read at
// the lane's width (little-endian), so the mask is 0 - (P & 1).
template <typename T>
struct quad_of {
  typedef T type __attribute__((vector_size(16)));
};
template <typename T>
using Quad = typename quad_of<T>::type;

template <typename T>
struct Quads {
  Quad<T> q[3];
};

// One 16-byte copy per host vector: a single 48-byte copy lets GCC move the
// three through the stack and load them back as one LD1 of three registers,
// which an emulating host (qemu) carries out element by element.
template <typename T>
inline Quads<T> load_q(const unsigned char* reg) {
  Quads<T> l;
  for (int k = 0; k < 3; ++k) std::memcpy(&l.q[k], reg + 16 * k, 16);
  return l;
}

template <typename T>
inline void store_q(unsigned char* reg, const Quads<T>& l) {
  for (int k = 0; k < 3; ++k) std::memcpy(reg + 16 * k, &l.q[k], 16);
}

template <typename T>
inline Quads<T> splat_q(T v) {
  Quads<T> l;
  l.q[0] = l.q[1] = l.q[2] = Quad<T>{} + v;
  return l;
}

template <typename T>
inline Quad<T> active_mask(Quad<T> pred) {
  return Quad<T>{} - (pred & 1);
}

// Zd = Pg ? on : off, lane by lane: every merging form ends here.
template <typename T>
inline aarch64_decode_rc select_zp(cpu_state* cs, aarch64_z_reg zd, const unsigned char* pred, const Quads<T>& on,
                                   const Quads<T>& off) {
  const Quads<T> p = load_q<T>(pred);
  Quads<T> out;
  const auto one = [&](int k) {
    const Quad<T> m = active_mask<T>(p.q[k]);
    out.q[k] = (on.q[k] & m) | (off.q[k] & ~m);
  };
  one(0), one(1), one(2);
  store_q<T>(cs->z[zd.number], out);
  return AARCH64_DECODE_OK;
}

// The three host vectors f(0), f(1), f(2).
template <typename T, typename F>
inline Quads<T> map_q(F f) {
  return Quads<T>{{f(0), f(1), f(2)}};
}

// Zd = Pg ? op(Zn) : Zd. Zd may be Zn.
template <typename T, typename Op>
inline aarch64_decode_rc unary_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, Op op) {
  const Quads<T> s = load_q<T>(cs->z[zn.number]);
  return select_zp<T>(cs, zd, cs->p[pg.number], map_q<T>([&](int k) { return op(s.q[k]); }), load_q<T>(cs->z[zd.number]));
}

// Zdn = Pg ? op(Zdn, Zm) : Zdn. Zdn may be Zm.
template <typename T, typename Op>
inline aarch64_decode_rc merge_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, Op op) {
  const Quads<T> a = load_q<T>(cs->z[zdn.number]), b = load_q<T>(cs->z[zm.number]);
  return select_zp<T>(cs, zdn, cs->p[pg.number], map_q<T>([&](int k) { return op(a.q[k], b.q[k]); }), a);
}

// Every lane of Zd set to v.
template <typename T>
inline aarch64_decode_rc fill(cpu_state* cs, aarch64_z_reg zd, T v) {
  store_q<T>(cs->z[zd.number], splat_q<T>(v));
  return AARCH64_DECODE_OK;
}

// Lanes of Zd set to v where Pg is active; the others kept or, when
// `zeroing`, cleared.
template <typename T>
inline aarch64_decode_rc fill_zp(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, T v, bool zeroing) {
  return select_zp<T>(cs, zd, cs->p[pg.number], splat_q<T>(v), zeroing ? splat_q<T>(0) : load_q<T>(cs->z[zd.number]));
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
#define QUERN_INT_TYPES_U_WIDE(M) M(U16, uint16_t, 1) M(U32, uint32_t, 1) M(U64, uint64_t, 1)
#define QUERN_INT_TYPES_US_WIDE(M) QUERN_INT_TYPES_U_WIDE(M) M(S16, uint16_t, 0) M(S32, uint32_t, 0) M(S64, uint64_t, 0)
