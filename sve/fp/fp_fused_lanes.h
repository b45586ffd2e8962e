// Additions to the FP lane machinery for the fused, complex and reduction
// families: the host's fused multiply-add (three operands), one lane of it or
// of a two-operand operation on the fast road, and the sign flip that comes
// before a fused operation on both roads.
#pragma once

#include <cstdint>

#include "sve/fp/fp_lanes.h"

namespace fpx {

using fplanes::fast_fp::soft_status;

// FPMulAdd(addend, a, b): one rounding. On the host, FMADD d, a, b, addend.
struct op_fmadd {
  template <class T> static T lib(T addend, T a, T b, FPSCR& f) { return fplib::FPMulAdd<T>(addend, a, b, f); }
#if defined(__aarch64__)
  static float host(float addend, float a, float b) {
    float r;
    __asm__ volatile("fmadd %s0, %s1, %s2, %s3" : "=w"(r) : "w"(a), "w"(b), "w"(addend));
    return r;
  }
  static double host(double addend, double a, double b) {
    double r;
    __asm__ volatile("fmadd %d0, %d1, %d2, %d3" : "=w"(r) : "w"(a), "w"(b), "w"(addend));
    return r;
  }
  // FMLA: the accumulator is the addend, as FMADD's last operand.
  static float32x4_t vhost(float32x4_t addend, float32x4_t a, float32x4_t b) {
    __asm__ volatile("fmla %0.4s, %1.4s, %2.4s" : "+w"(addend) : "w"(a), "w"(b));
    return addend;
  }
  static float64x2_t vhost(float64x2_t addend, float64x2_t a, float64x2_t b) {
    __asm__ volatile("fmla %0.2d, %1.2d, %2.2d" : "+w"(addend) : "w"(a), "w"(b));
    return addend;
  }
#endif
};

// One fast-road lane of a three-operand operation.
template <class T, class Op>
inline T lane_op3(Op, T x, T y, T z, soft_status& st) {
  using namespace fplanes;
  if constexpr (fast_fp::kHostFP) {
    (void)st;
#if defined(__aarch64__)
    return from_host<T>(Op::host(to_host(x), to_host(y), to_host(z)));
#else
    return x;
#endif
  } else {
    return static_cast<T>(Op::template lib<T>(x, y, z, st.fpscr));
  }
}

// Sign flip: the same on both roads, it never raises a flag.
template <typename T>
constexpr T neg(T x) {
  return T(x ^ (T(1) << (sizeof(T) * 8 - 1)));
}
template <typename T>
constexpr T neg_if(bool b, T x) {
  return b ? neg(x) : x;
}

#if defined(__aarch64__)
// The sign flip of a whole chunk, as an integer EOR: no floating-point
// instruction, so nothing depends on FPCR (FNEG under AH would keep a NaN's sign).
template <typename V>
inline V vneg_if(bool b, V x) {
  if (!b) return x;
  const uint64x2_t sign = sizeof(x[0]) == 4 ? vdupq_n_u64(0x8000000080000000ull) : vdupq_n_u64(0x8000000000000000ull);
  __asm__("eor %0.16b, %0.16b, %1.16b" : "+w"(x) : "w"(sign));
  return x;
}
#endif

}  // namespace fpx
