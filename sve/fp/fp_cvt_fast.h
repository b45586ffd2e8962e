// The fast road of the compares, conversions and estimates. On AArch64 each
// lane is one scalar instruction of the host, under the application's FPCR,
// its flags going to the host's FPSR, which the adapter exchanges with
// cpu_state. Elsewhere the lane goes through the library under the emulated
// FPCR and the flags are merged into the word standing in for the FPSR.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/int/fast_lanes.h"
#include "sve/fp/fp_lanes.h"
#include "sve/lib/fp_lib.h"

namespace fpfast {

using fplanes::fast_fp::kHostFP;
using fplanes::fast_fp::soft_status;

template <class T>
using host_float = typename fplanes::host_float<T>::type;

template <class F, class T>
inline F as(T bits) {
  static_assert(sizeof(F) == sizeof(T), "same width");
  F f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// One lane: Op::host on the host's unit, or Op::lib through the library with
// the flags collected in `st`.
template <class Op, class... A>
inline auto lane(soft_status& st, Op op, A... a) {
  if constexpr (kHostFP) {
    (void)st;
    return op.host(a...);
  } else {
    return op.lib(a..., st.fpscr);
  }
}

// Merging unary of mixed width: lane L, source S in its low bits, result R in
// its low bits, sign-extended when SignedResult, zeroes above otherwise.
template <class L, class S, class R, bool SignedResult, class Op>
inline aarch64_decode_rc unary_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, Op op) {
  const unsigned char* src = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  std::memcpy(out, cs->z[zd.number], kVecBytes);
  soft_status st(cs);
  for (unsigned i = 0; i < fast::lanes<L>; ++i) {
    if (!fast::active<L>(p, i)) continue;
    const R r = lane(st, op, static_cast<S>(fast::lane<L>(src, i)));
    L x;
    if constexpr (SignedResult)
      x = static_cast<L>(static_cast<std::make_signed_t<L>>(static_cast<std::make_signed_t<R>>(r)));
    else
      x = static_cast<L>(r);
    fast::set_lane<L>(out, i, x);
  }
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Unpredicated, every lane.
template <class T, class Op>
inline aarch64_decode_rc unary_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, Op op) {
  const unsigned char* a = cs->z[zn.number];
  unsigned char out[kVecBytes];
  soft_status st(cs);
  for (unsigned i = 0; i < fast::lanes<T>; ++i)
    fast::set_lane<T>(out, i, fplanes::fast_fp::lane_op1<T>(op, fast::lane<T>(a, i), st));
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Compare into a predicate: one byte 1 or 0 at each lane's first byte, 0 for
// inactive lanes and for the other bytes. `b` null compares with +0.
template <class T, class Op>
inline aarch64_decode_rc compare(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn, const unsigned char* b, Op op) {
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes] = {};
  soft_status st(cs);
  using fplanes::fast_fp::kChunk;
#pragma GCC unroll 3
  for (unsigned c = 0; c < kVecBytes; c += kChunk) {
#if defined(__aarch64__)
    // A chunk of active lanes: one vector compare, whose all-ones lanes keep
    // only the bit of their first byte.
    if constexpr (Op::kVector) {
      if (fplanes::fast_fp::chunk_active<T>(p + c)) {
        using fplanes::fast_fp::vload;
        const uint8x16_t one = vreinterpretq_u8_u64(vdupq_n_u64(sizeof(T) == 4 ? 0x0000000100000001ull : 1ull));
        const auto y = b ? vload<T>(b + c) : fplanes::fast_fp::vec_t<T>{};
        vst1q_u8(out + c, vandq_u8(Op::vhost(vload<T>(a + c), y), one));
        continue;
      }
    }
#endif
    for (unsigned i = c / sizeof(T); i < (c + kChunk) / sizeof(T); ++i) {
      if (!fast::active<T>(p, i)) continue;
      const T y = b ? fast::lane<T>(b, i) : T(0);
      out[i * sizeof(T)] = lane(st, op, fast::lane<T>(a, i), y) ? 1 : 0;
    }
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

}  // namespace fpfast
