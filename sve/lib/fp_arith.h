// Software floating point: the basic operations, one template per operation
// over the raw operand type. Each unpacks its operands first (so IDC from a
// flushed input is always reported), then takes NaNs, then the special
// values, then computes exactly and rounds once.
#pragma once

#include "sve/lib/fp_core.h"

namespace fplib {

// x * 2^(kx - bias) + y * 2^(ky - bias), each given as a sign and a
// magnitude below 2^(bits(U) - 2), aligned with a sticky bit and rounded
// once, the exponent raised by `scale` first. An exact zero sum is +0, or
// -0 when rounding towards minus infinity. Raises the rounding flags.
template <class T, class U>
inline T fp_add_terms(int sx, int kx, U x, int sy, int ky, U y, int scale, int mode, int& flags) {
  if (!y) {
    // x alone
  } else if (!x) {
    x = y;
    y = 0;
    kx = ky;
    sx = sy;
  } else if (kx > ky) {
    y = shift_right_sticky(y, kx - ky);
  } else if (ky > kx) {
    x = shift_right_sticky(x, ky - kx);
    kx = ky;
  }
  int sgn = sx;
  if (sx == sy) {
    x += y;
  } else if (x >= y) {
    x -= y;
  } else {
    x = y - x;
    sgn = sy;
  }
  if (!x) return fp_zero<T>((mode & FPLIB_RM) == FPRounding_NEGINF);
  return fp_round_wide<T>(sgn, kx + bits_of<U>() - 1 + scale, x, mode & FPLIB_RM, mode, flags);
}

// Sum of two unpacked finite values (not both zero of one sign), rounded,
// with three guard bits below each mantissa.
template <class T>
inline T fp_add_core(int as, int ae, T am, int bs, int be, T bm, int mode, int& flags) {
  typedef typename Fmt<T>::Calc C;
  constexpr int F = Fmt<T>::F;
  return fp_add_terms<T, C>(as, ae - F - 3, C(C(am) << 3), bs, be - F - 3, C(C(bm) << 3), 0, mode, flags);
}

// a + b, or a - b with `negate_b`. IOC for inf - inf; rounding flags.
template <class T> __attribute__((noinline)) T fp_add_sub_any(T a, T b, bool negate_b, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  T r = fp_process_NaNs(a, b, mode, flags);
  if (!r) {
    B.sgn ^= int(negate_b);
    bool ainf = A.inf(), binf = B.inf();
    if (ainf && binf && A.sgn != B.sgn) {
      flags |= FPLIB_IOC;
      r = fp_default_nan<T>();
    } else if (ainf) {
      r = fp_infinity<T>(A.sgn);
    } else if (binf) {
      r = fp_infinity<T>(B.sgn);
    } else if (!A.mnt && !B.mnt && A.sgn == B.sgn) {
      r = fp_zero<T>(A.sgn);
    } else {
      r = fp_add_core<T>(A.sgn, A.exp, A.mnt, B.sgn, B.exp, B.mnt, mode, flags);
    }
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// Two normal operands inline; anything else out of line.
template <class T> inline T fp_add_sub(T a, T b, bool negate_b, FPSCR& fpscr) {
  if (__builtin_expect(!fp_is_normal(a) || !fp_is_normal(b), 0)) return fp_add_sub_any(a, b, negate_b, fpscr);
  int mode = fp_mode_word(fpscr), flags = 0;
  T r = fp_add_core<T>(fp_sign_of(a), fp_exp_of(a), fp_mnt_of_normal(a), fp_sign_of(b) ^ int(negate_b), fp_exp_of(b),
                       fp_mnt_of_normal(b), mode, flags);
  fp_set_flags(flags, fpscr);
  return r;
}

template <class T> T FPAdd(T a, T b, FPSCR& fpscr) { return fp_add_sub(a, b, false, fpscr); }
template <class T> T FPSub(T a, T b, FPSCR& fpscr) { return fp_add_sub(a, b, true, fpscr); }

// Product of two nonzero finite values, rounded.
template <class T>
inline T fp_mul_core(int sgn, int ae, T am, int be, T bm, int mode, int& flags) {
  typedef typename Fmt<T>::Wide U;
  constexpr int F = Fmt<T>::F, BIAS = Fmt<T>::BIAS;
  U p = U(am) * U(bm);
  return fp_round_wide<T>(sgn, ae + be - BIAS - 2 * F + bits_of<U>() - 1, p, mode & FPLIB_RM, mode, flags);
}

// a * b. IOC for inf * 0; rounding flags. With `mulx`, inf * 0 is 2.0
// signed, without a flag.
template <class T> __attribute__((noinline)) T fp_mul_any(T a, T b, bool mulx, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  T r = fp_process_NaNs(a, b, mode, flags);
  if (!r) {
    bool ainf = A.inf(), binf = B.inf();
    int sgn = A.sgn ^ B.sgn;
    if ((ainf && !B.mnt) || (binf && !A.mnt)) {
      if (mulx) {
        r = fp_two<T>(sgn);
      } else {
        flags |= FPLIB_IOC;
        r = fp_default_nan<T>();
      }
    } else if (ainf || binf) {
      r = fp_infinity<T>(sgn);
    } else if (!A.mnt || !B.mnt) {
      r = fp_zero<T>(sgn);
    } else {
      r = fp_mul_core<T>(sgn, A.exp, A.mnt, B.exp, B.mnt, mode, flags);
    }
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// Two normal operands inline; anything else out of line.
template <class T> inline T fp_mul(T a, T b, bool mulx, FPSCR& fpscr) {
  if (__builtin_expect(!fp_is_normal(a) || !fp_is_normal(b), 0)) return fp_mul_any(a, b, mulx, fpscr);
  int mode = fp_mode_word(fpscr), flags = 0;
  T r = fp_mul_core<T>(fp_sign_of(a) ^ fp_sign_of(b), fp_exp_of(a), fp_mnt_of_normal(a), fp_exp_of(b),
                       fp_mnt_of_normal(b), mode, flags);
  fp_set_flags(flags, fpscr);
  return r;
}

template <class T> T FPMul(T a, T b, FPSCR& fpscr) { return fp_mul(a, b, false, fpscr); }
template <class T> T FPMulX(T a, T b, FPSCR& fpscr) { return fp_mul(a, b, true, fpscr); }

// addend + op1 * op2 with one rounding, the exponent raised by `scale`
// before rounding. Raises IOC for inf * 0 (also beside a quiet NaN addend)
// and for inf - inf, and the rounding flags.
template <class T> T fp_muladd(T c, T a, T b, int scale, int mode, int& flags) {
  typedef typename Fmt<T>::Wide U;
  constexpr int F = Fmt<T>::F, BIAS = Fmt<T>::BIAS, UW = bits_of<U>();
  int as, ae, bs, be, cs, ce;
  T am, bm, cm;
  fp_unpack(cs, ce, cm, c, mode, flags);
  fp_unpack(as, ae, am, a, mode, flags);
  fp_unpack(bs, be, bm, b, mode, flags);
  T r = fp_process_NaNs3(c, a, b, mode, flags);
  bool ainf = fp_is_infinite<T>(ae, am), binf = fp_is_infinite<T>(be, bm);
  bool inf_times_zero = (ainf && !bm) || (binf && !am);
  if (fp_is_qnan(c) && inf_times_zero) {
    flags |= FPLIB_IOC;
    return fp_default_nan<T>();
  }
  if (r) return r;
  bool cinf = fp_is_infinite<T>(ce, cm);
  int ps = as ^ bs;
  if (inf_times_zero || (cinf && (ainf || binf) && cs != ps)) {
    flags |= FPLIB_IOC;
    return fp_default_nan<T>();
  }
  if (cinf) return fp_infinity<T>(cs);
  if (ainf || binf) return fp_infinity<T>(ps);
  if (!cm && (!am || !bm) && cs == ps) return fp_zero<T>(cs);

  // Both terms below 2^(UW - 2), so that the sum has room for its carry.
  constexpr int sa = UW - 3 - F, sp = UW - 4 - 2 * F;
  return fp_add_terms<T, U>(cs, ce - F - sa, U(cm) << sa, ps, ae + be - BIAS - 2 * F - sp, (U(am) * U(bm)) << sp,
                            scale, mode, flags);
}

template <class T> T FPMulAdd(T addend, T a, T b, FPSCR& fpscr) {
  int flags = 0;
  T r = fp_muladd<T>(addend, a, b, 0, fp_mode_word(fpscr), flags);
  fp_set_flags(flags, fpscr);
  return r;
}

// a / b. IOC for 0/0 and inf/inf, DZC for finite/0; rounding flags.
template <class T> T FPDiv(T a, T b, FPSCR& fpscr) {
  typedef typename Fmt<T>::Wide U;
  constexpr int BIAS = Fmt<T>::BIAS, UW = bits_of<U>();
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  T r = fp_process_NaNs(a, b, mode, flags);
  if (!r) {
    bool ainf = A.inf(), binf = B.inf();
    int sgn = A.sgn ^ B.sgn;
    if ((ainf && binf) || (!A.mnt && !B.mnt)) {
      flags |= FPLIB_IOC;
      r = fp_default_nan<T>();
    } else if (ainf || !B.mnt) {
      if (!ainf) flags |= FPLIB_DZC;
      r = fp_infinity<T>(sgn);
    } else if (!A.mnt || binf) {
      r = fp_zero<T>(sgn);
    } else {
      // Both mantissas normalised to the top of T; the dividend raised to
      // the top of the wide word gives a quotient of more than F + 3 bits.
      fp_normalise(A.mnt, A.exp);
      fp_normalise(B.mnt, B.exp);
      // Both now have their top bit at W-1; a/b in (1/2, 2).
      U n = U(A.mnt) << (UW - bits_of<T>());
      U d = U(B.mnt);
      U q = n / d;
      q |= U(q * d != n);
      r = fp_round_wide<T>(sgn, A.exp - B.exp - (UW - bits_of<T>()) + BIAS + UW - 1, q, mode & FPLIB_RM, mode,
                           flags);
    }
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// floor(sqrt(t) * 32) for t = 256 .. 1023: a first guess of a root, good
// to nine bits, from the top ten bits of its square.
struct SqrtSeed {
  uint16_t v[768];
  constexpr SqrtSeed() : v() {
    for (unsigned t = 256; t < 1024; ++t) {
      unsigned r = 0;
      while ((r + 1) * (r + 1) <= t * 1024) ++r;
      v[t - 256] = uint16_t(r);
    }
  }
};
constexpr SqrtSeed sqrt_seed{};

// Integer square root of n (top bit at bits(U) - 1 or - 2), rounded down;
// `exact` tells whether n was a perfect square. A table seed and Newton
// steps, each doubling the bits: three for a 128-bit word, two below.
template <class U> inline U isqrt(U n, bool& exact) {
  constexpr int UW = bits_of<U>();
  // The seed + 2 is above the root, and from above the steps never fall
  // below it; the root itself is below 2^(UW/2).
  U x = U(sqrt_seed.v[unsigned(n >> (UW - 10)) - 256] + 2) << (UW / 2 - 10);
  for (int i = 0; i < (UW > 64 ? 3 : 2); ++i) x = (x + n / x) >> 1;
  if (x >> (UW / 2)) x = (U(1) << (UW / 2)) - 1;
  while (x * x > n) --x;
  exact = x * x == n;
  return x;
}

// Square root. IOC for a negative operand other than -0; rounding flags.
template <class T> T FPSqrt(T a, FPSCR& fpscr) {
  typedef typename Fmt<T>::Wide U;
  constexpr int F = Fmt<T>::F, BIAS = Fmt<T>::BIAS, W = Fmt<T>::W, UW = bits_of<U>();
  return fp_unary(a, fpscr, [&](FpOp<T>& A, int mode, int& flags) -> T {
    T r;
    if (!A.mnt) {
      r = fp_zero<T>(A.sgn);
    } else if (A.sgn) {
      flags |= FPLIB_IOC;
      r = fp_default_nan<T>();
    } else if (A.inf()) {
      r = a;
    } else {
      // value = A.mnt * 2^(A.exp - bias - F), also once normalised; take an even
      // power of two out so that the root of the wide word has its top bit
      // at W - 1.
      fp_normalise(A.mnt, A.exp);
      int k = UW - W - 1;  // top bit of the wide word at UW - 2 ...
      int p = A.exp - BIAS - F - k;
      if (p & 1) {  // ... or at UW - 1
        ++k;
        --p;
      }
      U n = U(A.mnt) << k;
      bool exact;
      T root = T(isqrt(n, exact));
      // value = root * 2^(p/2), root's top bit at W - 1
      int e = p / 2 + BIAS + W - 1;
      r = fp_round<T>(0, e, T(T(root << 1) | T(!exact)), mode & FPLIB_RM, mode, flags);
    }
    return r;
  });
}

// The chosen operand repacked from its unpacked fields: a flushed denormal
// comes back as a signed zero.
template <class T> inline T fp_repack(int s, int e, T m) {
  return fp_pack<T>(s, (m & fmt_hidden<T>()) ? e : 0, m);
}

// Maximum (`max`) or minimum; NaNs as for add (IOC for a signalling one).
template <class T> inline T fp_minmax(T a, T b, bool max, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  T r = fp_process_NaNs(a, b, mode, flags);
  if (!r) {
    bool take_a = max ? (A.sgn != B.sgn ? bool(B.sgn) : bool(A.sgn ^ (a > b))) : (A.sgn != B.sgn ? bool(A.sgn) : bool(A.sgn ^ (a < b)));
    r = take_a ? fp_repack<T>(A.sgn, A.exp, A.mnt) : fp_repack<T>(B.sgn, B.exp, B.mnt);
  }
  fp_set_flags(flags, fpscr);
  return r;
}

template <class T> T FPMax(T a, T b, FPSCR& fpscr) { return fp_minmax(a, b, true, fpscr); }
template <class T> T FPMin(T a, T b, FPSCR& fpscr) { return fp_minmax(a, b, false, fpscr); }

// A lone quiet NaN loses against any number: it becomes the infinity that
// the other operand beats.
template <class T> inline void fp_minmax_num(T& a, T& b, bool max) {
  bool aq = fp_is_qnan(a), bq = fp_is_qnan(b);
  T loser = fp_infinity<T>(max ? 1 : 0);
  if (aq && !bq) a = loser;
  if (bq && !aq) b = loser;
}

template <class T> T FPMaxNum(T a, T b, FPSCR& fpscr) {
  fp_minmax_num(a, b, true);
  return FPMax(a, b, fpscr);
}
template <class T> T FPMinNum(T a, T b, FPSCR& fpscr) {
  fp_minmax_num(a, b, false);
  return FPMin(a, b, fpscr);
}

template <class T> inline T FPAbs(T a) { return T(a & ~fmt_sign<T>()); }
template <class T> inline T FPNeg(T a) { return T(a ^ fmt_sign<T>()); }

// Compares: IOC for a signalling NaN (EQ, UN) or any NaN (GE, GT); IDC
// from flushed inputs.
enum FpCmpKind { FP_CMP_EQ, FP_CMP_GE, FP_CMP_GT, FP_CMP_UN };

template <class T> inline bool fp_compare(T a, T b, FpCmpKind kind, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  bool r;
  if (fp_is_nan(a) || fp_is_nan(b)) {
    if (kind == FP_CMP_GE || kind == FP_CMP_GT || fp_is_snan(a) || fp_is_snan(b)) flags |= FPLIB_IOC;
    r = kind == FP_CMP_UN;
  } else if (kind == FP_CMP_UN) {
    r = false;
  } else if (kind == FP_CMP_EQ) {
    r = a == b || (!A.mnt && !B.mnt);
  } else if (!A.mnt && !B.mnt) {
    r = kind == FP_CMP_GE;
  } else if (A.sgn != B.sgn) {
    r = B.sgn;
  } else if (A.exp != B.exp) {
    r = A.sgn ^ (A.exp > B.exp);
  } else if (A.mnt != B.mnt) {
    r = A.sgn ^ (A.mnt > B.mnt);
  } else {
    r = kind == FP_CMP_GE;
  }
  fp_set_flags(flags, fpscr);
  return r;
}

template <class T> bool FPCompareEQ(T a, T b, FPSCR& fpscr) { return fp_compare(a, b, FP_CMP_EQ, fpscr); }
template <class T> bool FPCompareGE(T a, T b, FPSCR& fpscr) { return fp_compare(a, b, FP_CMP_GE, fpscr); }
template <class T> bool FPCompareGT(T a, T b, FPSCR& fpscr) { return fp_compare(a, b, FP_CMP_GT, fpscr); }
template <class T> bool FPCompareUN(T a, T b, FPSCR& fpscr) { return fp_compare(a, b, FP_CMP_UN, fpscr); }

// The NZCV nibble of FCMP: 3 unordered, 6 equal, 8 less, 2 greater. IOC
// for a signalling NaN, or any NaN with `signal_nans` (FCMPE).
template <class T> int FPCompare(T a, T b, bool signal_nans, FPSCR& fpscr) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(a, mode, flags), B = fp_unpacked(b, mode, flags);
  int r;
  if (fp_is_nan(a) || fp_is_nan(b)) {
    if (signal_nans || fp_is_snan(a) || fp_is_snan(b)) flags |= FPLIB_IOC;
    r = 3;
  } else if (a == b || (!A.mnt && !B.mnt)) {
    r = 6;
  } else if (A.sgn != B.sgn) {
    r = A.sgn ? 8 : 2;
  } else {
    bool mag_less = A.exp != B.exp ? A.exp < B.exp : A.mnt < B.mnt;
    r = (mag_less ^ bool(A.sgn)) ? 8 : 2;
  }
  fp_set_flags(flags, fpscr);
  return r;
}

// The identity with the format's flush and rounding applied.
template <class T> T fp_process(T a, FPSCR& fpscr) {
  return fp_unary(a, fpscr, [&](FpOp<T>& A, int mode, int& flags) -> T {
    T r;
    if (A.inf() || !A.mnt) {
      r = fp_pack<T>(A.sgn, A.mnt ? A.exp : 0, 0);
    } else {
      r = fp_round_wide<T>(A.sgn, A.exp - Fmt<T>::F + Fmt<T>::W - 1, A.mnt, mode & FPLIB_RM, mode, flags);
    }
    return r;
  });
}

}  // namespace fplib

using fplib::FPAbs;
using fplib::FPAdd;
using fplib::FPCompare;
using fplib::FPCompareEQ;
using fplib::FPCompareGE;
using fplib::FPCompareGT;
using fplib::FPCompareUN;
using fplib::FPDiv;
using fplib::FPMax;
using fplib::FPMaxNum;
using fplib::FPMin;
using fplib::FPMinNum;
using fplib::FPMul;
using fplib::FPMulAdd;
using fplib::FPMulX;
using fplib::FPNeg;
using fplib::FPSqrt;
using fplib::FPSub;

inline unsigned short fp16_muladd(unsigned short c, unsigned short a, unsigned short b, int scale, int mode,
                                  int* flags) {
  return fplib::fp_muladd<unsigned short>(c, a, b, scale, mode, *flags);
}
inline unsigned int fp32_muladd(unsigned int c, unsigned int a, unsigned int b, int scale, int mode, int* flags) {
  return fplib::fp_muladd<unsigned int>(c, a, b, scale, mode, *flags);
}
inline unsigned long fp64_muladd(unsigned long c, unsigned long a, unsigned long b, int scale, int mode,
                                 int* flags) {
  return fplib::fp_muladd<unsigned long>(c, a, b, scale, mode, *flags);
}
inline unsigned short FPProcess16(unsigned short a, FPSCR& fpscr) { return fplib::fp_process(a, fpscr); }
inline unsigned int FPProcess32(unsigned int a, FPSCR& fpscr) { return fplib::fp_process(a, fpscr); }
inline unsigned long FPProcess64(unsigned long a, FPSCR& fpscr) { return fplib::fp_process(a, fpscr); }
