// The integer reductions UADDV, SADDV, ANDV, ORV, EORV, SMAXV, UMAXV, SMINV,
// UMINV: the active lanes folded into one scalar in the low end of a SIMD&FP
// register, the rest of the register cleared. No active lane gives the start
// value of the operation.

#include <limits>
#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"

namespace {

// The sums fold into 64 bits whatever the lane width; the others stay at the
// lane width and come out zero-extended (also for the signed minimum and maximum).
struct add_fold {
  template <typename T> static uint64_t start() { return 0; }
  template <typename T> static uint64_t fold(uint64_t acc, T x) {
    return acc + static_cast<uint64_t>(static_cast<std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>>(x));
  }
};
struct and_fold {
  template <typename T> static T start() { return static_cast<T>(~T(0)); }
  template <typename T> static T fold(T acc, T x) { return static_cast<T>(acc & x); }
};
struct or_fold {
  template <typename T> static T start() { return T(0); }
  template <typename T> static T fold(T acc, T x) { return static_cast<T>(acc | x); }
};
struct xor_fold {
  template <typename T> static T start() { return T(0); }
  template <typename T> static T fold(T acc, T x) { return static_cast<T>(acc ^ x); }
};
struct max_fold {
  template <typename T> static T start() { return std::numeric_limits<T>::min(); }
  template <typename T> static T fold(T acc, T x) { return x > acc ? x : acc; }
};
struct min_fold {
  template <typename T> static T start() { return std::numeric_limits<T>::max(); }
  template <typename T> static T fold(T acc, T x) { return x < acc ? x : acc; }
};

template <typename T>
uint64_t zext(T v) { return static_cast<std::make_unsigned_t<T>>(v); }
inline uint64_t zext(uint64_t v) { return v; }

// One loop per lane type; `T` is signed for the signed folds.
template <typename T, typename Fold>
aarch64_decode_rc reduce_fast(cpu_state* cs, unsigned vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  const unsigned char* a = cs->z[zn.number];
  const unsigned char* p = cs->p[pg.number];
  auto acc = Fold::template start<T>();
  for (unsigned i = 0; i < fast::lanes<T>; ++i)
    if (fast::active<T>(p, i)) acc = Fold::template fold<T>(acc, fast::lane<T>(a, i));
  int2::put_scalar(cs, vd, zext(acc));
  return AARCH64_DECODE_OK;
}

template <typename Fold, bool Signed>
aarch64_decode_rc reduce_by_size(cpu_state* cs, unsigned vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast::by_size(zn.size, [&](auto lane) {
    using U = decltype(lane);
    using T = std::conditional_t<Signed, std::make_signed_t<U>, U>;
    return reduce_fast<T, Fold>(cs, vd, pg, zn);
  });
}

}  // namespace

extern "C" {

#define QUERN_REDUCE_FAST(NAME, FOLD, SIGNED)                                            \
  aarch64_decode_rc sve_##NAME##_vpz(cpu_state* cs, unsigned int vd, aarch64_p_reg pg, aarch64_z_reg zn) { \
    return reduce_by_size<FOLD, SIGNED>(cs, vd, pg, zn);                                  \
  }
QUERN_REDUCE_FAST(uaddv, add_fold, false)
QUERN_REDUCE_FAST(andv, and_fold, false)
QUERN_REDUCE_FAST(orv, or_fold, false)
QUERN_REDUCE_FAST(eorv, xor_fold, false)
QUERN_REDUCE_FAST(smaxv, max_fold, true)
QUERN_REDUCE_FAST(umaxv, max_fold, false)
QUERN_REDUCE_FAST(sminv, min_fold, true)
QUERN_REDUCE_FAST(uminv, min_fold, false)
#undef QUERN_REDUCE_FAST

// SADDV: lanes sign-extended into a 64-bit sum; the adapter writes the 64 bits.
#define QUERN_SADDV(T, TY)                                                  \
  uint64_t Vec##TY##AddReduceV(PredV p, VecV a, CpuContext* c) {            \
    uint64_t acc = 0;                                                       \
    const unsigned n = generic::lane_count<T>(c);                           \
    for (unsigned i = 0; i < n; ++i)                                        \
      if (generic::active<T>(p, i)) acc = add_fold::fold<T>(acc, generic::lane<T>(a, i)); \
    return acc;                                                             \
  }
QUERN_SADDV(int8_t, S8)
QUERN_SADDV(int16_t, S16)
QUERN_SADDV(int32_t, S32)
#undef QUERN_SADDV

}  // extern "C"
