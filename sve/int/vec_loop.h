// The element loop of the generic routines, written for any vector length up
// to 2048 bits: the lane count comes from CpuContext::vl.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/cpu_state.h"

namespace generic {

template <typename T>
inline unsigned lane_count(const CpuContext* c) {
  return ctx_vl(c) * 8 / sizeof(T);
}

template <typename T>
inline T lane(const VecV& v, unsigned i) {
  T x;
  std::memcpy(&x, v.b + i * sizeof(T), sizeof(T));
  return x;
}

template <typename T>
inline void set_lane(VecV& v, unsigned i, T x) {
  std::memcpy(v.b + i * sizeof(T), &x, sizeof(T));
}

// Active when the predicate bit of the lane's lowest byte is set.
template <typename T>
inline bool active(const PredV& p, unsigned i) {
  return pred_bit(p, i * sizeof(T));
}

// Merging: active lanes get op(a, b), inactive ones keep a. Bytes at and above
// lane n of the result are left as they are; adapters never read them.
template <typename T, typename Op>
inline VecV binary_vvm(const VecV& a, const PredV& p, const VecV& b, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = lane<T>(a, i);
    set_lane<T>(r, i, active<T>(p, i) ? static_cast<T>(op(x, lane<T>(b, i))) : x);
  }
  return r;
}

template <typename T, typename Op>
inline VecV binary_vvx(const VecV& a, const VecV& b, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) set_lane<T>(r, i, static_cast<T>(op(lane<T>(a, i), lane<T>(b, i))));
  return r;
}

template <typename T, typename Op>
inline VecV binary_vix(const VecV& a, uint64_t imm, const CpuContext* c, Op op) {
  VecV r;
  const unsigned n = lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) set_lane<T>(r, i, static_cast<T>(op(lane<T>(a, i), static_cast<T>(imm))));
  return r;
}

}  // namespace generic
