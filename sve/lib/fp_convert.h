// Software floating point: conversions between the three formats and to
// and from integers, rounding to an integral value, and scaling by a power
// of two. Every routine takes its rounding from the `rounding` argument,
// not from the word, except FPScale.
#pragma once

#include "sve/lib/fp_core.h"

namespace fplib {

template <class S> inline bool fp_half_ahp(FPSCR fpscr) {
  return Fmt<S>::W == 16 && (fpscr & (1u << 26));
}

// Between formats. IOC for a signalling NaN, and, to the alternative half
// format, for any NaN or infinity; IDC from a flushed single or double
// input; the rounding flags of the target when narrowing. Half precision is
// never flushed, as source or as result.
template <class S, class D> D FPConvert(S op, FPRounding rounding, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  const bool ahp = fpscr & (1u << 26);
  int sgn, exp;
  S mnt;
  // A half-precision source is never flushed: FZ16 governs half-precision
  // arithmetic, not the conversions.
  fp_unpack(sgn, exp, mnt, op, mode & ~FPLIB_FZ16, flags);
  D r;
  const bool src_special = !(Fmt<S>::W == 16 && ahp) && exp == fmt_emax<S>();
  const bool dst_ahp = Fmt<D>::W == 16 && ahp;
  if (src_special && fp_is_nan(op)) {
    if (dst_ahp) {
      flags |= FPLIB_IOC;
      r = fp_zero<D>(sgn);
    } else {
      if (fp_is_snan(op)) flags |= FPLIB_IOC;
      if (mode & FPLIB_DN) {
        r = fp_default_nan<D>();
      } else {
        // The payload below the quiet bit, moved to the top of the target's.
        uint64_t payload = uint64_t(op & (fmt_quiet<S>() - 1));
        constexpr int shift = Fmt<D>::F - Fmt<S>::F;
        payload = shift >= 0 ? payload << shift : payload >> -shift;
        r = D(fp_pack<D>(sgn, fmt_emax<D>(), D(payload)) | fmt_quiet<D>());
      }
    }
  } else if (src_special) {
    if (dst_ahp) {
      flags |= FPLIB_IOC;
      r = D(fp_zero<D>(sgn) | 0x7fff);
    } else {
      r = fp_infinity<D>(sgn);
    }
  } else if (!mnt) {
    r = fp_zero<D>(sgn);
  } else {
    // value = mnt * 2^(exp - biasS - FS); a 64-bit word holds it exactly.
    int dmode = Fmt<D>::W == 16 ? int((fpscr >> 22) & 15) | (ahp ? FPLIB_AHP : 0) : mode;
    int e = exp - Fmt<S>::BIAS - Fmt<S>::F + Fmt<D>::BIAS + 63;
    r = fp_round_wide<D>(sgn, e, uint64_t(mnt), rounding, dmode, flags);
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// 1 if an integer x with rounding error `err` (0 exact, 1 below half, 2
// half, 3 above half) rounds up in magnitude, else 0.
inline uint64_t fp_int_round_up(FPRounding rounding, int err, int sgn, uint64_t x) {
  switch (rounding) {
    case FPRounding_TIEEVEN: return err == 3 || (err == 2 && (x & 1));
    case FPRounding_POSINF: return err && !sgn;
    case FPRounding_NEGINF: return err && sgn;
    case FPRounding_TIEAWAY: return uint64_t(err >> 1);
    default: return 0;
  }
}

// The integer conversion core: a mantissa at a double's position (hidden
// bit at 52) and a double-biased exponent with the fraction bits already
// added. Assigns IOC (out of range, saturated) or IXC (inexact) to `flags`.
inline uint64_t FPToFixed_64(int sgn, int exp, uint64_t mnt, bool is_unsigned, FPRounding rounding, int* flags) {
  uint64_t m = mnt << 11;
  int s = 1086 - exp;
  uint64_t x = s >= 64 ? 0 : m >> s;
  int err;
  if (exp > 1084) {
    err = 0;
  } else if (s - 2 >= 64) {
    err = m != 0;
  } else {
    err = int((m >> (s - 2)) & 3) | int((m & ((uint64_t(1) << (s - 2)) - 1)) != 0);
  }
  x += fp_int_round_up(rounding, err, sgn, x);
  if (is_unsigned ? (sgn && x) : (x > (uint64_t(1) << 63) - 1 + uint64_t(sgn))) {
    *flags = FPLIB_IOC;
    return (uint64_t(is_unsigned ? 0 : 1) << 63) - uint64_t(sgn ? 0 : 1);
  }
  if (err) *flags = FPLIB_IXC;
  return sgn ? uint64_t(0) - x : x;
}

// To a signed or unsigned integer of D's width with `fbits` fraction bits.
// IOC (alone) for a NaN, an infinity or an out-of-range value, which
// saturate (a NaN gives 0); otherwise IXC if inexact, IDC if flushed.
template <class S, class D>
D fplibFPToFixed(S op, int fbits, bool is_unsigned, FPRounding rounding, FPSCR& fpscr) {
  constexpr int W = Fmt<D>::W;
  int mode = fp_mode_word(fpscr), flags = 0;
  int sgn, exp;
  S mnt;
  fp_unpack(sgn, exp, mnt, op, mode, flags);
  uint64_t x;
  if (fp_is_nan(op)) {
    flags |= FPLIB_IOC;
    x = 0;
  } else {
    int e = exp + (1023 - Fmt<S>::BIAS) + fbits;
    uint64_t m = uint64_t(mnt) << (52 - Fmt<S>::F);
    if (fp_is_infinite<S>(exp, mnt) || e > 1086) {
      flags = FPLIB_IOC;
      x = (uint64_t(is_unsigned ? 0 : 1) << 63) - uint64_t(sgn ? 0 : 1);
      if (fp_is_infinite<S>(exp, mnt) && W < 64) {
        fp_set_flags(FPLIB_IOC, fpscr);
        return D((D(is_unsigned ? 0 : 1) << (W - 1)) - D(sgn ? 0 : 1));
      }
    } else {
      x = FPToFixed_64(sgn, e, m, is_unsigned, rounding, &flags);
    }
    if (W < 64) {
      bool out = is_unsigned ? (x >> W) != 0
                             : (int64_t(x) < -(int64_t(1) << (W - 1)) || int64_t(x) > (int64_t(1) << (W - 1)) - 1);
      if (out) {
        fp_set_flags(FPLIB_IOC, fpscr);
        return D((uint64_t(is_unsigned ? 0 : 1) << (W - 1)) - uint64_t(sgn ? 0 : 1));
      }
    }
  }
  fp_set_flags(flags, fpscr);
  return D(x);
}

// From a 64-bit integer with `fbits` fraction bits. The rounding core
// takes its mode from `rounding` (the low two bits) with FZ and DN of the
// word; a half result is never flushed. Rounding flags only.
template <class T> T fplibFixedToFP(uint64_t op, int fbits, bool is_unsigned, FPRounding rounding, FPSCR& fpscr) {
  int mode = int(rounding) | int((fpscr >> 22) & 12), flags = 0;
  int sgn = !is_unsigned && (op >> 63);
  uint64_t x = sgn ? uint64_t(0) - op : op;
  T r = x ? fp_round_wide<T>(sgn, Fmt<T>::BIAS + 63 - fbits, x, mode & 3, mode, flags) : T(0);
  fp_set_flags(flags, fpscr);
  return r;
}

// Round to an integral value in the format. IXC only with `exact` and an
// inexact result; IDC from a flushed input; NaNs as usual.
template <class T> T FPRoundInt(T op, FPRounding rounding, bool exact, FPSCR& fpscr) {
  constexpr int F = Fmt<T>::F, BIAS = Fmt<T>::BIAS, EXPINT = BIAS + F;
  return fp_unary(op, fpscr, [&](FpOp<T>& A, int, int& flags) -> T {
    T r;
    if (A.inf()) {
      r = fp_infinity<T>(A.sgn);
    } else if (!A.mnt) {
      r = fp_zero<T>(A.sgn);
    } else if (A.exp >= EXPINT) {
      r = op;
    } else {
      int s = EXPINT - A.exp;  // at least 1
      uint64_t m = A.mnt;
      uint64_t x = s >= 64 ? 0 : m >> s;
      int err = s > 64 ? 1 : int(((m >> (s - 1)) & 1) << 1) | int((m & ((uint64_t(1) << (s - 1)) - 1)) != 0);
      x += fp_int_round_up(rounding, err, A.sgn, x);
      if (!x) {
        r = fp_zero<T>(A.sgn);
      } else {
        int lz = clz(x);
        r = fp_pack<T>(A.sgn, BIAS + 63 - lz, T((x << lz) >> (63 - F)));
      }
      if (err && exact) flags |= FPLIB_IXC;
    }
    return r;
  });
}

// op * 2^n; n is clamped to a range that still takes any value to overflow
// or to zero. Flags as for add.
template <class T> T fp_scale(T op, long n, FPSCR& fpscr) {
  constexpr long lim = Fmt<T>::W == 16 ? 60 : Fmt<T>::W == 32 ? 300 : 3000;
  return fp_unary(op, fpscr, [&](FpOp<T>& A, int mode, int& flags) -> T {
    T r;
    if (!A.mnt) {
      r = fp_zero<T>(A.sgn);
    } else if (A.inf()) {
      r = fp_infinity<T>(A.sgn);
    } else {
      n = n < -lim ? -lim : n > lim ? lim : n;
      r = fp_round_wide<T>(A.sgn, A.exp + int(n) - Fmt<T>::F + Fmt<T>::W - 1, A.mnt, mode & FPLIB_RM, mode, flags);
    }
    return r;
  });
}

}  // namespace fplib

using fplib::FPConvert;
using fplib::FPRoundInt;
using fplib::FPToFixed_64;
using fplib::fplibFixedToFP;
using fplib::fplibFPToFixed;

inline unsigned short FPScale16(unsigned short op, short n, FPSCR& fpscr) { return fplib::fp_scale(op, n, fpscr); }
inline unsigned int FPScale32(unsigned int op, int n, FPSCR& fpscr) { return fplib::fp_scale(op, n, fpscr); }
inline unsigned long FPScale64(unsigned long op, long n, FPSCR& fpscr) { return fplib::fp_scale(op, n, fpscr); }
