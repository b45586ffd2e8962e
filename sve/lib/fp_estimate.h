// Software floating point: reciprocal and reciprocal square root estimates
// and their Newton steps, and the trigonometric and exponential
// accelerators with their tables.
#pragma once

#include "sve/lib/fp_arith.h"

namespace fplib {

extern const uint8_t recip_sqrt_estimate[256];
extern const uint16_t fexpa_table16[32];
extern const uint32_t fexpa_table32[64];
extern const uint64_t fexpa_table64[64];
extern const uint16_t trig_coeff16[16];
extern const uint32_t trig_coeff32[16];
extern const uint64_t trig_coeff64[16];

inline unsigned short trig_coeff(unsigned short, unsigned i) { return trig_coeff16[i]; }
inline unsigned int trig_coeff(unsigned int, unsigned i) { return trig_coeff32[i]; }
inline unsigned long trig_coeff(unsigned long, unsigned i) { return trig_coeff64[i]; }
inline unsigned short expa_fraction(unsigned short, unsigned i) { return fexpa_table16[i]; }
inline unsigned int expa_fraction(unsigned int, unsigned i) { return fexpa_table32[i]; }
inline unsigned long expa_fraction(unsigned long, unsigned i) { return fexpa_table64[i]; }

// Mantissa normalised to the top of the word, exponent moved with it (a
// normal number keeps its exponent, a denormal goes below 1).
template <class T> inline void fp_estimate_normalise(T& mnt, int& exp) {
  exp += Fmt<T>::E;
  fp_normalise(mnt, exp);
}

// Reciprocal estimate, 8 bits. DZC for zero, OFC and IXC for an operand
// whose reciprocal overflows, UFC for one flushed under FZ/FZ16; no IXC
// otherwise.
template <class T> T FPRecipEstimate(T op, FPSCR& fpscr) {
  constexpr int W = Fmt<T>::W, E = Fmt<T>::E, F = Fmt<T>::F, BIAS = Fmt<T>::BIAS;
  return fp_unary(op, fpscr, [&](FpOp<T>& A, int mode, int& flags) -> T {
    T r;
    if (A.inf()) {
      r = fp_zero<T>(A.sgn);
    } else if (!A.mnt) {
      flags |= FPLIB_DZC;
      r = fp_infinity<T>(A.sgn);
    } else if (!((op >> (F - 2)) & ((T(1) << (E + 2)) - 1))) {
      flags |= FPLIB_OFC | FPLIB_IXC;
      int rm = mode & FPLIB_RM;
      bool inf = rm == FPRounding_TIEEVEN || (rm == FPRounding_POSINF && !A.sgn) || (rm == FPRounding_NEGINF && A.sgn);
      r = inf ? fp_infinity<T>(A.sgn) : fp_max_normal<T>(A.sgn);
    } else if ((mode & Fmt<T>::FZ_BIT) && A.exp >= 2 * BIAS - 1) {
      flags |= FPLIB_UFC;
      r = fp_zero<T>(A.sgn);
    } else {
      fp_estimate_normalise(A.mnt, A.exp);
      int rexp = 2 * BIAS - 1 - A.exp;
      uint64_t frac = ((uint64_t(1) << 19) / (uint64_t(A.mnt >> (W - 10)) | 1) + 1) >> 1;
      frac <<= F - 8;
      if (rexp == 0) {
        frac >>= 1;
      } else if (rexp == -1) {
        frac >>= 2;
        rexp = 0;
      }
      r = fp_pack<T>(A.sgn, rexp, T(frac));
    }
    return r;
  });
}

// Reciprocal square root estimate, 8 bits. DZC for zero, IOC for a
// negative operand.
template <class T> T FPRSqrtEstimate(T op, FPSCR& fpscr) {
  constexpr int W = Fmt<T>::W, F = Fmt<T>::F, BIAS = Fmt<T>::BIAS;
  return fp_unary(op, fpscr, [&](FpOp<T>& A, int, int& flags) -> T {
    T r;
    if (!A.mnt) {
      flags |= FPLIB_DZC;
      r = fp_infinity<T>(A.sgn);
    } else if (A.sgn) {
      flags |= FPLIB_IOC;
      r = fp_default_nan<T>();
    } else if (A.inf()) {
      r = fp_zero<T>(0);
    } else {
      fp_estimate_normalise(A.mnt, A.exp);
      unsigned idx = unsigned((A.mnt >> (W - 8)) & 127) | ((A.exp & 1) ? 0 : 128);
      int rexp = (3 * BIAS - 1 - A.exp) >> 1;
      r = fp_pack<T>(0, rexp, T(T(recip_sqrt_estimate[idx]) << (F - 8)));
    }
    return r;
  });
}

// Exponent reciprocal: exponent field inverted, fraction cleared; zeros and
// denormals give the largest exponent below infinity. IDC for a flushed
// single or double denormal.
template <class T> T FPRecpX(T op, FPSCR& fpscr) {
  constexpr int F = Fmt<T>::F;
  return fp_unary(op, fpscr, [&](FpOp<T>& A, int, int&) -> T {
    const int field = int((op >> F) & T(fmt_emax<T>()));
    return fp_pack<T>(A.sgn, field ? (~field & fmt_emax<T>()) : fmt_emax<T>() - 1, 0);
  });
}

// Fused Newton steps: `base` - op1 * op2 with the exponent raised by
// `scale`; infinity times zero gives `inf_zero`. Flags of the fused
// multiply-add.
template <class T> inline T fp_step_fused(T op1, T op2, T base, int scale, T inf_zero, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  op1 = FPNeg(op1);
  FpOp<T> A = fp_unpacked(op1, mode, flags), B = fp_unpacked(op2, mode, flags);
  T r = fp_process_NaNs(op1, op2, mode, flags);
  if (!r) {
    bool ainf = A.inf(), binf = B.inf();
    if ((ainf && !B.mnt) || (binf && !A.mnt)) {
      r = inf_zero;
    } else if (ainf || binf) {
      r = fp_infinity<T>(A.sgn ^ B.sgn);
    } else {
      r = fp_muladd<T>(base, op1, op2, scale, mode, flags);
    }
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// 2 - op1 * op2
template <class T> T FPRecipStepFused(T op1, T op2, FPSCR& fpscr) {
  return fp_step_fused<T>(op1, op2, fp_two<T>(0), 0, fp_two<T>(0), fpscr);
}

// (3 - op1 * op2) / 2
template <class T> T FPRSqrtStepFused(T op1, T op2, FPSCR& fpscr) {
  constexpr int F = Fmt<T>::F;
  T three = fp_pack<T>(0, Fmt<T>::BIAS + 1, T(T(1) << (F - 1)));
  T one_half = fp_pack<T>(0, Fmt<T>::BIAS, T(T(1) << (F - 1)));
  return fp_step_fused<T>(op1, op2, three, -1, one_half, fpscr);
}

// One step of the sine/cosine polynomial: coeff[index] + op1 * |op2|, the
// cosine row when op2 is negative. Flags of FPMulAdd.
template <class T> T FPTRIMADD(unsigned long index, T op1, T op2, FPSCR& fpscr) {
  if (op2 & fmt_sign<T>()) index += 8;
  return FPMulAdd<T>(trig_coeff(T(0), unsigned(index & 15)), op1, FPAbs(op2), fpscr);
}

// op1 squared, its sign from bit 0 of op2 (a NaN keeps its own). Flags of
// FPMul.
template <class T> T FPTRISMUL(T op1, T op2, FPSCR& fpscr) {
  T r = FPMul<T>(op1, op1, fpscr);
  if (!fp_is_nan(r)) r = T((r & ~fmt_sign<T>()) | ((op2 & 1) ? fmt_sign<T>() : T(0)));
  return r;
}

// The FTSSEL rule, for the vector routine: 1.0 (negative with bit 1 of
// op2) when bit 0 of op2 is set, else op1 with its sign inverted by bit 1.
template <class T> inline T fp_trig_select(T op1, T op2) {
  T flip = (op2 & 2) ? fmt_sign<T>() : T(0);
  return T(((op2 & 1) ? fp_one<T>(0) : op1) ^ flip);
}

// 2^(fraction) from a table, the exponent field taken from the operand.
template <class T> T FPEXPA(T op) {
  constexpr int IB = Fmt<T>::W == 16 ? 5 : 6;
  T exp = T((op >> IB) & T(fmt_emax<T>()));
  return fp_pack<T>(0, int(exp), expa_fraction(T(0), unsigned(op & ((1u << IB) - 1))));
}

}  // namespace fplib

using fplib::FPEXPA;
using fplib::FPRecipEstimate;
using fplib::FPRecipStepFused;
using fplib::FPRecpX;
using fplib::FPRSqrtEstimate;
using fplib::FPRSqrtStepFused;
using fplib::FPTRIMADD;
using fplib::FPTRISMUL;

// The AdvSIMD unsigned estimates, on 32-bit fixed-point words; written with
// host doubles.
double recip_estimate(double x);
double recip_sqrt_estimate(double x);
unsigned int UnsignedRecipEstimate(unsigned int op, int);
unsigned int UnsignedRSqrtEstimate(unsigned int op, int);
