// One instance of every library template per format, and the host-double
// helpers of the unsigned estimates.
#include <cmath>
#include <cstring>

#include "sve/lib/fp_lib.h"

typedef unsigned short H;
typedef unsigned int S;
typedef unsigned long D;

namespace fplib {

#define FPLIB_EACH(X) X(H) X(S) X(D)

#define FPLIB_INSTANCES(T)                                                  \
  template T FPAdd<T>(T, T, FPSCR&);                                        \
  template T FPSub<T>(T, T, FPSCR&);                                        \
  template T FPMul<T>(T, T, FPSCR&);                                        \
  template T FPMulX<T>(T, T, FPSCR&);                                       \
  template T FPDiv<T>(T, T, FPSCR&);                                        \
  template T FPMulAdd<T>(T, T, T, FPSCR&);                                  \
  template T fp_muladd<T>(T, T, T, int, int, int&);                         \
  template T FPSqrt<T>(T, FPSCR&);                                          \
  template T FPMin<T>(T, T, FPSCR&);                                        \
  template T FPMax<T>(T, T, FPSCR&);                                        \
  template T FPMinNum<T>(T, T, FPSCR&);                                     \
  template T FPMaxNum<T>(T, T, FPSCR&);                                     \
  template bool FPCompareEQ<T>(T, T, FPSCR&);                               \
  template bool FPCompareGE<T>(T, T, FPSCR&);                               \
  template bool FPCompareGT<T>(T, T, FPSCR&);                               \
  template bool FPCompareUN<T>(T, T, FPSCR&);                               \
  template int FPCompare<T>(T, T, bool, FPSCR&);                            \
  template T fp_process<T>(T, FPSCR&);                                      \
  template T fplibFixedToFP<T>(uint64_t, int, bool, FPRounding, FPSCR&);    \
  template T FPRoundInt<T>(T, FPRounding, bool, FPSCR&);                    \
  template T fp_scale<T>(T, long, FPSCR&);                                  \
  template T FPRecipEstimate<T>(T, FPSCR&);                                 \
  template T FPRSqrtEstimate<T>(T, FPSCR&);                                 \
  template T FPRecpX<T>(T, FPSCR&);                                         \
  template T FPRecipStepFused<T>(T, T, FPSCR&);                             \
  template T FPRSqrtStepFused<T>(T, T, FPSCR&);                             \
  template T FPTRIMADD<T>(unsigned long, T, T, FPSCR&);                     \
  template T FPTRISMUL<T>(T, T, FPSCR&);                                    \
  template T FPEXPA<T>(T);                                                  \
  template T fp_round_full<T>(int, int, T, int, int, int&);
FPLIB_EACH(FPLIB_INSTANCES)

#define FPLIB_CONVERT_FROM(S_)                                              \
  template H FPConvert<S_, H>(S_, FPRounding, FPSCR&);                      \
  template S FPConvert<S_, S>(S_, FPRounding, FPSCR&);                      \
  template D FPConvert<S_, D>(S_, FPRounding, FPSCR&);                      \
  template S fplibFPToFixed<S_, S>(S_, int, bool, FPRounding, FPSCR&);      \
  template D fplibFPToFixed<S_, D>(S_, int, bool, FPRounding, FPSCR&);
FPLIB_EACH(FPLIB_CONVERT_FROM)
template H fplibFPToFixed<H, H>(H, int, bool, FPRounding, FPSCR&);

}  // namespace fplib

static double bits_to_double(uint64_t b) {
  double d;
  std::memcpy(&d, &b, sizeof d);
  return d;
}
static uint64_t double_to_bits(double d) {
  uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

double recip_estimate(double x) {
  double a = std::trunc(x * 512.0);
  double r = 1.0 / ((a + 0.5) / 512.0);
  double s = std::trunc(r * 256.0 + 0.5);
  return s / 256.0;
}

double recip_sqrt_estimate(double x) {
  double v;
  if (x < 0.5) {
    v = (std::trunc(x * 512.0) + 0.5) / 512.0;
  } else {
    v = (std::trunc(x * 256.0) + 0.5) / 256.0;
  }
  return std::trunc(1.0 / std::sqrt(v) * 256.0 + 0.5) / 256.0;
}

static unsigned int estimate_word(double r) { return unsigned((double_to_bits(r) >> 21) & 0x7fffffff) | 0x80000000u; }

unsigned int UnsignedRecipEstimate(unsigned int op, int) {
  if (!(op & 0x80000000u)) return 0xffffffffu;
  return estimate_word(recip_estimate(bits_to_double((uint64_t(op & 0x7fffffff) << 21) | 0x3fe0000000000000)));
}

unsigned int UnsignedRSqrtEstimate(unsigned int op, int) {
  if (!(op & 0xc0000000u)) return 0xffffffffu;
  uint64_t bits = (op & 0x80000000u) ? (uint64_t(op & 0x7fffffff) << 21) | 0x3fe0000000000000
                                     : (uint64_t(op & 0x3fffffff) << 22) | 0x3fd0000000000000;
  return estimate_word(recip_sqrt_estimate(bits_to_double(bits)));
}
