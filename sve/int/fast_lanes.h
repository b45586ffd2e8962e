// Lane access for the fast handlers, which work in place on cpu_state at the
// fixed 48-byte vector length.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/cpu_state.h"

namespace fast {

template <typename T>
constexpr unsigned lanes = kVecBytes / sizeof(T);

template <typename T>
inline T lane(const unsigned char* reg, unsigned i) {
  T v;
  std::memcpy(&v, reg + i * sizeof(T), sizeof(T));
  return v;
}

template <typename T>
inline void set_lane(unsigned char* reg, unsigned i, T v) {
  std::memcpy(reg + i * sizeof(T), &v, sizeof(T));
}

// A lane is active when bit 0 of the predicate byte at its first byte is set.
template <typename T>
inline bool active(const unsigned char* pred, unsigned i) {
  return pred[i * sizeof(T)] & 1u;
}

// True when every lane of E bytes is active in the first Bytes bytes of the
// predicate (the whole register, or one 16-byte chunk): the common case of a
// loop body, whose walk then needs no test per lane. Bit 0 of the first byte
// of each lane, eight predicate bytes at a time, all words ANDed first so that
// there is one test at the end.
template <typename E, unsigned Bytes = kVecBytes>
inline bool all_active(const unsigned char* pred) {
  constexpr uint64_t kMask = sizeof(E) == 1   ? 0x0101010101010101ull
                             : sizeof(E) == 2 ? 0x0001000100010001ull
                             : sizeof(E) == 4 ? 0x0000000100000001ull
                                              : 0x0000000000000001ull;
  uint64_t all = ~uint64_t(0);
#pragma GCC unroll 6
  for (unsigned i = 0; i < Bytes; i += 8) {
    uint64_t w;
    std::memcpy(&w, pred + i, 8);
    all &= w;
  }
  return (all & kMask) == kMask;
}

// Dispatch on an element-size code: 2, 3 and 1 select words, doublewords and
// halfwords; any other code means bytes. `f` is called with a value of the
// lane type: fast::by_size(size, [&](auto lane) { using T = decltype(lane); ... }).
template <typename F>
inline aarch64_decode_rc by_size(int32_t size, F&& f) {
  switch (size) {
    case 1: return f(uint16_t{});
    case 2: return f(uint32_t{});
    case 3: return f(uint64_t{});
    default: return f(uint8_t{});
  }
}

}  // namespace fast

namespace fast {

// The three element-wise forms, with the result built in a temporary so that
// the destination may be any of the sources.

// Zdn = Pg ? op(Zdn, Zm) : Zdn
template <typename T, typename Op>
inline aarch64_decode_rc binary_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, Op op) {
  const unsigned char* a = cs->z[zdn.number];
  const unsigned char* b = cs->z[zm.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  // Inactive lanes keep Zdn through a mask rather than a branch per lane.
  for (unsigned i = 0; i < lanes<T>; ++i) {
    const T x = lane<T>(a, i), m = static_cast<T>(T(0) - T(p[i * sizeof(T)] & 1u));
    set_lane<T>(out, i, static_cast<T>((static_cast<T>(op(x, lane<T>(b, i))) & m) | (x & static_cast<T>(~m))));
  }
  std::memcpy(cs->z[zdn.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Zd = op(Zn, Zm)
template <typename T, typename Op>
inline aarch64_decode_rc binary_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm, Op op) {
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* b = cs->z[zm.number];
  unsigned char out[kVecBytes];
  for (unsigned i = 0; i < lanes<T>; ++i)
    set_lane<T>(out, i, static_cast<T>(op(lane<T>(a, i), lane<T>(b, i))));
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Zdn = op(Zdn, imm), the immediate taken at the element width.
template <typename T, typename Op>
inline aarch64_decode_rc binary_zi(cpu_state* cs, aarch64_z_reg zdn, uint64_t imm, Op op) {
  unsigned char* a = cs->z[zdn.number];
  for (unsigned i = 0; i < lanes<T>; ++i)
    set_lane<T>(a, i, static_cast<T>(op(lane<T>(a, i), static_cast<T>(imm))));
  return AARCH64_DECODE_OK;
}

}  // namespace fast
