// Software floating point for half, single and double precision: the shared
// core. Operands and results are raw bit patterns (unsigned short, unsigned
// int, unsigned long); nothing here touches the host's floating-point unit,
// so every host gives the same results and flags.
//
// Shape of every routine: compute the mode word once, unpack the operands
// (flushing denormal inputs), handle NaNs and the special values, compute
// the exact result in a wide integer with a sticky bit, and hand it to the
// one rounding core of the format. Flags collect in a local int and reach
// the caller's FPSCR once, at the end (fp_set_flags).
#pragma once

#include <cstdint>

// The control and status word: the architecture's FPCR control fields and
// FPSR cumulative flags at their own bit positions.
typedef uint32_t FPSCR;

enum FPRounding {
  FPRounding_TIEEVEN = 0,
  FPRounding_POSINF = 1,
  FPRounding_NEGINF = 2,
  FPRounding_ZERO = 3,
  FPRounding_TIEAWAY = 4,  // rounding to an integer only
  FPRounding_ODD = 5,      // half and single rounding core only
};

// Flag values, in the flag word and in FPSCR alike.
enum : int {
  FPLIB_IOC = 1,
  FPLIB_DZC = 2,
  FPLIB_OFC = 4,
  FPLIB_UFC = 8,
  FPLIB_IXC = 16,
  FPLIB_IDC = 128,
};

// Bits of the mode word.
enum : int {
  FPLIB_RM = 3,
  FPLIB_FZ = 4,
  FPLIB_DN = 8,
  FPLIB_AHP = 16,
  FPLIB_FZ16 = 32,
};

namespace fplib {

typedef unsigned __int128 u128;

// The three formats. `Calc` is the word the rounding core works in, `Wide`
// holds an exact product of two mantissas.
template <class T> struct Fmt;
template <> struct Fmt<unsigned short> {
  static constexpr int W = 16, E = 5, F = 10, BIAS = 15;
  typedef uint32_t Calc;
  typedef uint32_t Wide;
  static constexpr int FZ_BIT = FPLIB_FZ16;
  static constexpr bool FZ_IDC = false;  // a flushed half input raises nothing
};
template <> struct Fmt<unsigned int> {
  static constexpr int W = 32, E = 8, F = 23, BIAS = 127;
  typedef uint32_t Calc;
  typedef uint64_t Wide;
  static constexpr int FZ_BIT = FPLIB_FZ;
  static constexpr bool FZ_IDC = true;
};
template <> struct Fmt<unsigned long> {
  static constexpr int W = 64, E = 11, F = 52, BIAS = 1023;
  typedef uint64_t Calc;
  typedef u128 Wide;
  static constexpr int FZ_BIT = FPLIB_FZ;
  static constexpr bool FZ_IDC = true;
};

template <class T> constexpr int fmt_emax() { return (1 << Fmt<T>::E) - 1; }
template <class T> constexpr T fmt_sign() { return T(T(1) << (Fmt<T>::W - 1)); }
template <class T> constexpr T fmt_frac_mask() { return T((T(1) << Fmt<T>::F) - 1); }
template <class T> constexpr T fmt_hidden() { return T(T(1) << Fmt<T>::F); }
template <class T> constexpr T fmt_quiet() { return T(T(1) << (Fmt<T>::F - 1)); }
template <class T> constexpr T fmt_infinity() { return T(T(fmt_emax<T>()) << Fmt<T>::F); }
template <class T> constexpr T fmt_max_normal() { return T(fmt_infinity<T>() - 1); }
template <class T> constexpr T fmt_default_nan() { return T(fmt_infinity<T>() | fmt_quiet<T>()); }

template <class T> inline T fp_pack(int sgn, int exp, T frac) {
  return T((T(sgn) << (Fmt<T>::W - 1)) | (T(exp) << Fmt<T>::F) | (frac & fmt_frac_mask<T>()));
}
template <class T> inline T fp_zero(int sgn) { return fp_pack<T>(sgn, 0, 0); }
template <class T> inline T fp_infinity(int sgn) { return fp_pack<T>(sgn, fmt_emax<T>(), 0); }
template <class T> inline T fp_max_normal(int sgn) { return fp_pack<T>(sgn, fmt_emax<T>() - 1, T(~T(0))); }
template <class T> inline T fp_default_nan() { return fmt_default_nan<T>(); }
template <class T> inline T fp_two(int sgn) { return fp_pack<T>(sgn, Fmt<T>::BIAS + 1, 0); }
template <class T> inline T fp_one(int sgn) { return fp_pack<T>(sgn, Fmt<T>::BIAS, 0); }

// Classification on raw bits (no flush applies to NaNs and infinities).
template <class T> inline bool fp_is_nan(T x) { return T(x & ~fmt_sign<T>()) > fmt_infinity<T>(); }
template <class T> inline bool fp_is_snan(T x) { return fp_is_nan(x) && !(x & fmt_quiet<T>()); }
template <class T> inline bool fp_is_qnan(T x) { return fp_is_nan(x) && (x & fmt_quiet<T>()); }

// Normal numbers, neither zero, denormal, infinite nor NaN: the fast paths'
// test, after which no flush or special case applies.
template <class T> inline bool fp_is_normal(T x) {
  return unsigned(int((x >> Fmt<T>::F) & T(fmt_emax<T>())) - 1) < unsigned(fmt_emax<T>() - 1);
}
template <class T> inline int fp_sign_of(T x) { return int(x >> (Fmt<T>::W - 1)); }
template <class T> inline int fp_exp_of(T x) { return int((x >> Fmt<T>::F) & T(fmt_emax<T>())); }
template <class T> inline T fp_mnt_of_normal(T x) { return T((x & fmt_frac_mask<T>()) | fmt_hidden<T>()); }

// Tests on unpacked fields.
template <class T> inline bool fp_is_zero(int /*exp*/, T mnt) { return mnt == 0; }
template <class T> inline bool fp_is_infinite(int exp, T mnt) {
  return exp == fmt_emax<T>() && !(mnt & fmt_frac_mask<T>());
}

inline int fp_mode_word(FPSCR fpscr) {
  return int((fpscr >> 22) & 15) | int(((fpscr >> 19) & 1) << 5);
}

inline void fp_set_flags(int flags, FPSCR& fpscr) { fpscr |= FPSCR(flags & 0x9f); }

inline int clz(uint32_t x) { return __builtin_clz(x); }
inline int clz(unsigned long x) { return __builtin_clzl(x); }
inline int clz(unsigned short x) { return __builtin_clz(x) - 16; }
inline int clz(u128 x) {
  uint64_t hi = uint64_t(x >> 64);
  return hi ? __builtin_clzll(hi) : 64 + __builtin_clzll(uint64_t(x));
}
template <class U> constexpr int bits_of() { return int(sizeof(U) * 8); }

// Shift left until the top bit is set, counting the shift off the exponent.
template <class U> inline void fp_normalise(U& mnt, int& exp) {
  if (!mnt) return;
  int s = clz(mnt);
  mnt = U(mnt << s);
  exp -= s;
}

// Shift right, or-ing whatever falls out into bit 0.
template <class U> inline U shift_right_sticky(U x, int n) {
  if (n <= 0) return x;
  if (n >= bits_of<U>()) return U(x != 0);
  return U((x >> n) | U((x & ((U(1) << n) - 1)) != 0));
}

// The top W+1 bits of a normalised wide word, the top one dropped: the
// left-justified fraction the rounding core takes, with the rest as sticky.
template <class T, class U> inline T fold(U x) {
  constexpr int drop = bits_of<U>() - Fmt<T>::W - 1;
  if constexpr (drop <= 0) {
    return T(x << 1);
  } else {
    return T(T(x >> drop) | T((x & ((U(1) << drop) - 1)) != 0));
  }
}

template <class T> inline void fp_unpack(int& sgn, int& exp, T& mnt, T x, int mode, int& flags) {
  constexpr int F = Fmt<T>::F;
  sgn = int(x >> (Fmt<T>::W - 1));
  exp = int((x >> F) & T(fmt_emax<T>()));
  mnt = T(x & fmt_frac_mask<T>());
  if (exp) {
    mnt = T(mnt | fmt_hidden<T>());
  } else {
    exp = 1;
    if ((mode & Fmt<T>::FZ_BIT) && mnt) {
      mnt = 0;
      if (Fmt<T>::FZ_IDC) flags |= FPLIB_IDC;
    }
  }
}

// An operand unpacked: value = mnt * 2^(exp - bias - F).
template <class T> struct FpOp {
  int sgn, exp;
  T mnt;
  bool inf() const { return fp_is_infinite<T>(exp, mnt); }
};
template <class T> inline FpOp<T> fp_unpacked(T x, int mode, int& flags) {
  FpOp<T> o;
  fp_unpack(o.sgn, o.exp, o.mnt, x, mode, flags);
  return o;
}

template <class T> inline T fp_process_NaN(T a, int mode, int& flags) {
  if (!(a & fmt_quiet<T>())) {
    flags |= FPLIB_IOC;
    a = T(a | fmt_quiet<T>());
  }
  return (mode & FPLIB_DN) ? fp_default_nan<T>() : a;
}

// A one-operand operation: the mode word, the operand unpacked (and flushed),
// a NaN operand processed; `f(A, mode, flags)` gives every other result.
template <class T, class Fn> inline T fp_unary(T op, FPSCR& fpscr, Fn f) {
  int mode = fp_mode_word(fpscr), flags = 0;
  FpOp<T> A = fp_unpacked(op, mode, flags);
  const T r = fp_is_nan(op) ? fp_process_NaN(op, mode, flags) : f(A, mode, flags);
  fp_set_flags(flags, fpscr);
  return r;
}

// The NaN a two-operand routine returns, or 0 if neither is a NaN:
// signalling before quiet, then the earlier operand.
template <class T> inline T fp_process_NaNs(T a, T b, int mode, int& flags) {
  if (__builtin_expect(!fp_is_nan(a) && !fp_is_nan(b), 1)) return 0;
  if (fp_is_snan(a)) return fp_process_NaN(a, mode, flags);
  if (fp_is_snan(b)) return fp_process_NaN(b, mode, flags);
  if (fp_is_nan(a)) return fp_process_NaN(a, mode, flags);
  return fp_process_NaN(b, mode, flags);
}

template <class T> inline T fp_process_NaNs3(T a, T b, T c, int mode, int& flags) {
  if (__builtin_expect(!fp_is_nan(a) && !fp_is_nan(b) && !fp_is_nan(c), 1)) return 0;
  if (fp_is_snan(a)) return fp_process_NaN(a, mode, flags);
  if (fp_is_snan(b)) return fp_process_NaN(b, mode, flags);
  if (fp_is_snan(c)) return fp_process_NaN(c, mode, flags);
  if (fp_is_nan(a)) return fp_process_NaN(a, mode, flags);
  if (fp_is_nan(b)) return fp_process_NaN(b, mode, flags);
  return fp_process_NaN(c, mode, flags);
}

// The rounding core. `mnt` is the fraction left-justified (hidden bit
// already shifted out), anything beyond the word folded into bit 0; the
// value is 1.mnt * 2^(exp - bias). Raises UFC (only for an inexact tiny
// result, or a flushed one), OFC, IXC, and IOC for an AHP overflow.
template <class T> __attribute__((noinline)) T fp_round_full(int sgn, int exp, T mnt, int rm, int mode, int& flags) {
  typedef Fmt<T> Fm;
  typedef typename Fm::Calc C;
  constexpr int F = Fm::F, E = Fm::E, CW = bits_of<C>();
  const bool ahp = Fm::W == 16 && (mode & FPLIB_AHP);

  if ((mode & Fm::FZ_BIT) && exp < 1) {
    flags |= FPLIB_UFC;
    return fp_zero<T>(sgn);
  }
  // Hidden bit at F+2, then the fraction, a guard bit and a sticky bit.
  C m = C(C(4) << F) | C(C(mnt) >> (E - 1)) | C((mnt & ((T(1) << (E - 1)) - 1)) != 0);
  int bexp;
  C imnt;
  int error;
  if (exp > 0) {
    bexp = exp;
    imnt = m >> 2;
    error = int(m & 3);
  } else {
    bexp = 0;
    int s1 = 1 - exp;
    imnt = (s1 + 2 >= CW) ? 0 : m >> (s1 + 2);
    if (s1 >= CW) {
      error = 1;
    } else {
      error = int((m >> s1) & 3) | int((m & ((C(1) << s1) - 1)) != 0);
    }
  }
  if (bexp == 0 && error) flags |= FPLIB_UFC;

  bool up = false;
  switch (rm) {
    case FPRounding_TIEEVEN: up = error == 3 || (error == 2 && (imnt & 1)); break;
    case FPRounding_POSINF: up = error && !sgn; break;
    case FPRounding_NEGINF: up = error && sgn; break;
    default: break;
  }
  if (up) {
    ++imnt;
    if (imnt == (C(1) << F)) bexp = 1;
    if (imnt == (C(2) << F)) {
      ++bexp;
      imnt >>= 1;
    }
  }
  if (Fm::W != 64 && rm == FPRounding_ODD && error) imnt |= 1;

  if (ahp) {
    if (bexp > 31) {
      flags |= FPLIB_IOC;
      return T(fp_zero<T>(sgn) | 0x7fff);
    }
  } else if (bexp >= fmt_emax<T>()) {
    flags |= FPLIB_OFC | FPLIB_IXC;
    bool inf = rm == FPRounding_TIEEVEN || (rm == FPRounding_POSINF && !sgn) ||
               (rm == FPRounding_NEGINF && sgn);
    return inf ? fp_infinity<T>(sgn) : fp_max_normal<T>(sgn);
  }
  if (error) flags |= FPLIB_IXC;
  return fp_pack<T>(sgn, bexp, T(imnt));
}

// The common case inline: a normal result that cannot overflow, in one of
// the four modes of the control word; the rest goes to fp_round_full.
template <class T> inline T fp_round(int sgn, int exp, T mnt, int rm, int mode, int& flags) {
  constexpr int F = Fmt<T>::F, E = Fmt<T>::E;
  if (__builtin_expect(unsigned(exp - 1) < unsigned(fmt_emax<T>() - 2) && unsigned(rm) < 4, 1)) {
    typedef typename Fmt<T>::Calc C;
    // The fraction is the top F bits, then the guard bit, then sticky.
    C imnt = C(C(1) << F) | C(C(mnt) >> (E + 1));
    int error = int((mnt >> E) & 1) << 1 | int((mnt & ((T(1) << E) - 1)) != 0);
    // Up by one: ties-to-even above half or at half on an odd mantissa;
    // towards an infinity (+inf positive, -inf negative) on any error.
    bool directed_up = (0x24 >> (rm * 2 + sgn)) & 1;
    C inc = rm == FPRounding_TIEEVEN ? C((error >> 1) & ((error | int(imnt)) & 1)) : C(directed_up && error);
    flags |= error ? FPLIB_IXC : 0;
    // The increment carries into the exponent field by itself.
    return T(fmt_sign<T>() * T(sgn) | T((C(exp - 1) << F) + imnt + inc));
  }
  return fp_round_full<T>(sgn, exp, mnt, rm, mode, flags);
}

// Round a normalised wide word: value = x * 2^(exp - bias - (bits(U) - 1)),
// i.e. `exp` is the biased exponent of the word's top bit.
template <class T, class U> inline T fp_round_wide(int sgn, int exp, U x, int rm, int mode, int& flags) {
  fp_normalise(x, exp);
  return fp_round<T>(sgn, exp, fold<T>(x), rm, mode, flags);
}

}  // namespace fplib

// The rounding core, unpacking, NaN selection and normalising under their
// per-format names.
inline unsigned short fp16_round_(int sgn, int exp, unsigned short mnt, int rm, int mode, int* flags) {
  return fplib::fp_round<unsigned short>(sgn, exp, mnt, rm, mode, *flags);
}
inline unsigned int fp32_round_(int sgn, int exp, unsigned int mnt, int rm, int mode, int* flags) {
  return fplib::fp_round<unsigned int>(sgn, exp, mnt, rm, mode, *flags);
}
inline unsigned long fp64_round_(int sgn, int exp, unsigned long mnt, int rm, int mode, int* flags) {
  return fplib::fp_round<unsigned long>(sgn, exp, mnt, rm, mode, *flags);
}
#define FPLIB_NAMED(P, T)                                                                   \
  inline void fp##P##_unpack(int* sgn, int* exp, T* mnt, T x, int mode, int* flags) {       \
    fplib::fp_unpack<T>(*sgn, *exp, *mnt, x, mode, *flags);                                 \
  }                                                                                         \
  inline T fp##P##_process_NaN(T a, int mode, int* flags) {                                 \
    return fplib::fp_process_NaN<T>(a, mode, *flags);                                       \
  }                                                                                         \
  inline T fp##P##_process_NaNs(T a, T b, int mode, int* flags) {                           \
    return fplib::fp_process_NaNs<T>(a, b, mode, *flags);                                   \
  }                                                                                         \
  inline T fp##P##_process_NaNs3(T a, T b, T c, int mode, int* flags) {                     \
    return fplib::fp_process_NaNs3<T>(a, b, c, mode, *flags);                               \
  }                                                                                         \
  inline void fp##P##_normalise(T* mnt, int* exp) { fplib::fp_normalise<T>(*mnt, *exp); }
FPLIB_NAMED(16, unsigned short)
FPLIB_NAMED(32, unsigned int)
FPLIB_NAMED(64, unsigned long)
#undef FPLIB_NAMED
inline void fp128_normalise(uint64_t* hi, uint64_t* lo, int* exp) {
  fplib::u128 x = (fplib::u128(*hi) << 64) | *lo;
  fplib::fp_normalise(x, *exp);
  *hi = uint64_t(x >> 64);
  *lo = uint64_t(x);
}
