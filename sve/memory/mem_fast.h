// The element walks of the fast memory handlers, at the fixed 48-byte vector
// length. Addresses are host pointers: elements are loaded and stored through
// them directly, lane by lane in ascending order, and an inactive lane never
// touches memory. There is no guard: a bad address on an active lane is a real
// fault of the program.
//
// Element types: E is the lane in the register (unsigned), M the element in
// memory; a signed M means a sign-extending load.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "sve/dispatch/cpu_state.h"
#include "sve/int/fast_lanes.h"

namespace mem {

template <typename M>
inline M load(uint64_t addr) {
  M v;
  std::memcpy(&v, reinterpret_cast<const void*>(addr), sizeof v);
  return v;
}

template <typename M>
inline void store(uint64_t addr, M v) {
  std::memcpy(reinterpret_cast<void*>(addr), &v, sizeof v);
}

// Widen a memory element to the lane: by sign when M is signed, else by zero.
template <typename E, typename M>
inline E widen(M v) {
  using W = std::conditional_t<std::is_signed<M>::value, std::make_signed_t<E>, E>;
  return static_cast<E>(static_cast<W>(v));
}

// How a gather or scatter reads an offset from its lane: whole, or the low 32
// bits sign- or zero-extended.
enum class Ext { none, sxtw, uxtw };

template <Ext X>
inline uint64_t extend_offset(uint64_t lane) {
  switch (X) {
    case Ext::sxtw: return static_cast<uint64_t>(int64_t(static_cast<int32_t>(lane)));
    case Ext::uxtw: return static_cast<uint32_t>(lane);
    default: return lane;
  }
}

// Bytes that one vector of this load occupies in memory: the step of the
// "#imm, MUL VL" forms.
template <typename E, typename M>
constexpr int64_t vl_footprint = int64_t(fast::lanes<E>) * int64_t(sizeof(M));

// Base plus immediate times the vector's footprint, as a signed 64-bit product.
template <typename E, typename M>
inline uint64_t addr_mul_vl(const cpu_state* cs, aarch64_i_rsp_reg rn, int imm) {
  return read_xsp(cs, rn) + static_cast<uint64_t>(int64_t(imm) * vl_footprint<E, M>);
}

// Base plus index times the memory size; register 31 as index is zero.
template <typename M>
inline uint64_t addr_index(const cpu_state* cs, aarch64_i_rsp_reg rn, aarch64_i_reg rm) {
  return read_xsp(cs, rn) + read_x(cs, rm) * sizeof(M);
}

// ---- contiguous ---------------------------------------------------------------

using fast::all_active;

// Inactive lanes become zero; the register is never merged.
template <typename E, typename M>
inline aarch64_decode_rc ld1(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  const unsigned char* p = cs->p[pg.number];
  unsigned char* z = cs->z[zt.number];
  if (all_active<E>(p)) {
    // Through a local, which aliases nothing: the walk becomes wide moves.
    unsigned char out[kVecBytes];
#pragma GCC unroll 48
    for (unsigned e = 0; e < fast::lanes<E>; ++e) fast::set_lane<E>(out, e, widen<E>(load<M>(addr + e * sizeof(M))));
    std::memcpy(z, out, kVecBytes);
    return AARCH64_DECODE_OK;
  }
#pragma GCC unroll 12
  for (unsigned e = 0; e < fast::lanes<E>; ++e)
    fast::set_lane<E>(z, e, fast::active<E>(p, e) ? widen<E>(load<M>(addr + e * sizeof(M))) : E(0));
  return AARCH64_DECODE_OK;
}

// The low sizeof(M) bytes of each active lane; memory under an inactive lane
// is neither read nor written.
template <typename E, typename M>
inline aarch64_decode_rc st1(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  const unsigned char* p = cs->p[pg.number];
  const unsigned char* z = cs->z[zt.number];
  if (all_active<E>(p)) {
    unsigned char in[kVecBytes];
    std::memcpy(in, z, kVecBytes);
#pragma GCC unroll 48
    for (unsigned e = 0; e < fast::lanes<E>; ++e) store<M>(addr + e * sizeof(M), static_cast<M>(fast::lane<E>(in, e)));
    return AARCH64_DECODE_OK;
  }
#pragma GCC unroll 12
  for (unsigned e = 0; e < fast::lanes<E>; ++e)
    if (fast::active<E>(p, e)) store<M>(addr + e * sizeof(M), static_cast<M>(fast::lane<E>(z, e)));
  return AARCH64_DECODE_OK;
}

// Load and broadcast: every active lane loads the one address itself.
template <typename E, typename M>
inline aarch64_decode_rc ld1r(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  const unsigned char* p = cs->p[pg.number];
  unsigned char* z = cs->z[zt.number];
  for (unsigned e = 0; e < fast::lanes<E>; ++e)
    fast::set_lane<E>(z, e, fast::active<E>(p, e) ? widen<E>(load<M>(addr)) : E(0));
  return AARCH64_DECODE_OK;
}

// Clears the FFR bytes of lane e.
template <typename E>
inline void ffr_clear_lane(cpu_state* cs, unsigned e) {
  std::memset(cs->ffr + e * sizeof(E), 0, sizeof(E));
}

// ---- structures ---------------------------------------------------------------

// LDn: lane e of register k is element k of structure e. Structure-major
// order: all members of structure 0, then of structure 1. The register list
// wraps from Z31 to Z0.
template <typename T, unsigned N>
inline aarch64_decode_rc ldn(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  const unsigned char* p = cs->p[pg.number];
  if (all_active<T>(p)) {   // through locals, which alias nothing
    unsigned char out[N][kVecBytes];
#pragma GCC unroll 16
    for (unsigned e = 0; e < fast::lanes<T>; ++e)
      for (unsigned k = 0; k < N; ++k) fast::set_lane<T>(out[k], e, load<T>(addr + (uint64_t(e) * N + k) * sizeof(T)));
    for (unsigned k = 0; k < N; ++k) std::memcpy(cs->z[(zt.number + k) & 31], out[k], kVecBytes);
    return AARCH64_DECODE_OK;
  }
  for (unsigned e = 0; e < fast::lanes<T>; ++e) {
    const uint64_t s = addr + uint64_t(e) * N * sizeof(T);
    const bool on = fast::active<T>(p, e);
    for (unsigned k = 0; k < N; ++k)
      fast::set_lane<T>(cs->z[(zt.number + k) & 31], e, on ? load<T>(s + k * sizeof(T)) : T(0));
  }
  return AARCH64_DECODE_OK;
}

template <typename T, unsigned N>
inline aarch64_decode_rc stn(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  const unsigned char* p = cs->p[pg.number];
  if (all_active<T>(p)) {
    unsigned char in[N][kVecBytes];
    for (unsigned k = 0; k < N; ++k) std::memcpy(in[k], cs->z[(zt.number + k) & 31], kVecBytes);
#pragma GCC unroll 16
    for (unsigned e = 0; e < fast::lanes<T>; ++e)
      for (unsigned k = 0; k < N; ++k) store<T>(addr + (uint64_t(e) * N + k) * sizeof(T), fast::lane<T>(in[k], e));
    return AARCH64_DECODE_OK;
  }
  for (unsigned e = 0; e < fast::lanes<T>; ++e) {
    if (!fast::active<T>(p, e)) continue;
    const uint64_t s = addr + uint64_t(e) * N * sizeof(T);
    for (unsigned k = 0; k < N; ++k) store<T>(s + k * sizeof(T), fast::lane<T>(cs->z[(zt.number + k) & 31], e));
  }
  return AARCH64_DECODE_OK;
}

// Base plus immediate times N vectors: a signed 32-bit product, sign-extended.
template <unsigned N>
inline uint64_t addr_mul_vl_n(const cpu_state* cs, aarch64_i_rsp_reg rn, int imm) {
  const int32_t off = static_cast<int32_t>(static_cast<uint32_t>(imm) * N * kVecBytes);
  return read_xsp(cs, rn) + static_cast<uint64_t>(int64_t(off));
}

}  // namespace mem
