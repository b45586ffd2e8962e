// The floating-point library against the reference processor's own scalar
// (and, where there is no scalar form, SVE) floating-point instructions:
// every row runs one instruction and the matching library call on the same
// operands under the same FPCR, and compares the result and the FPSR flags.
//
//   fplib_check [--cases N] [--seed S] [--exhaustive] [--rows SUBSTR] [--quiet]
//
// --exhaustive adds every 16-bit input of the one-operand half rows under
// every rounding mode with FZ16 and DN on and off (and AHP where a
// conversion reads it), and every second operand of the two-operand half
// rows against 64 random first ones.
//
// Runs on AArch64 only (qemu-aarch64 -cpu max,sve-max-vq=3).
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "sve/lib/fp_lib.h"

namespace {

typedef unsigned short H;
typedef unsigned int S;
typedef unsigned long D;
typedef uint64_t (*Fn)(uint64_t a, uint64_t b, uint64_t c, uint32_t fpcr, uint32_t* fpsr);

// Operand kinds: floating point of a format, or integers of a width.
enum Kind : char { K_H = 'h', K_S = 's', K_D = 'd', K_I16 = 'i', K_W = 'w', K_X = 'x', K_NONE = '-' };

struct Row {
  const char* name;
  Kind in[3];
  uint64_t out_mask;
  Fn hw;
  Fn lib;
};

// ---- the instruction side ----------------------------------------------------
// The operands go to x1-x3 and d1-d3 alike; the body leaves its result in x9.
#define HW_ASM(BODY)                                                                                   \
  uint64_t r_, sr_;                                                                                    \
  asm volatile(                                                                                        \
      "msr fpcr, %x[cr]\n\tmsr fpsr, xzr\n\t"                                                          \
      "mov x1, %x[a]\n\tmov x2, %x[b]\n\tmov x3, %x[c]\n\t"                                            \
      "fmov d1, x1\n\tfmov d2, x2\n\tfmov d3, x3\n\t" BODY                                             \
      "\n\tmrs %x[sr], fpsr\n\tmsr fpcr, xzr\n\tmov %x[r], x9"                                         \
      : [r] "=&r"(r_), [sr] "=&r"(sr_)                                                                 \
      : [a] "r"(a), [b] "r"(b), [c] "r"(c), [cr] "r"(uint64_t(fpcr))                                   \
      : "x1", "x2", "x3", "x9", "v0", "v1", "v2", "v3", "p0", "cc", "memory");                               \
  *fpsr = uint32_t(sr_);                                                                               \
  return r_;

// ---- the library side --------------------------------------------------------
#define LIB_CALL(T, EXPR)                                                                              \
  FPSCR f = fpcr;                                                                                      \
  FPRounding rm = FPRounding((fpcr >> 22) & 3);                                                        \
  T A = T(a), B = T(b), C = T(c);                                                                      \
  (void)A, (void)B, (void)C, (void)rm;                                                                 \
  uint64_t r_ = uint64_t(EXPR);                                                                        \
  *fpsr = f & 0x9f;                                                                                    \
  return r_;

#define ROW(NAME, K0, K1, K2, MASK, BODY, T, EXPR)                                                     \
  Row {                                                                                                \
    NAME, {K0, K1, K2}, MASK,                                                                          \
        [](uint64_t a, uint64_t b, uint64_t c, uint32_t fpcr, uint32_t* fpsr) -> uint64_t {            \
          HW_ASM(BODY)                                                                                 \
        },                                                                                             \
        [](uint64_t a, uint64_t b, uint64_t c, uint32_t fpcr, uint32_t* fpsr) -> uint64_t {            \
          (void)a, (void)b, (void)c;                                                                   \
          LIB_CALL(T, EXPR)                                                                            \
        }                                                                                              \
  }

#define FR "\n\tfmov x9, d0"
#define M_h 0xffffull
#define M_s 0xffffffffull
#define M_d ~0ull
#define T_h H
#define T_s S
#define T_d D
#define K_h K_H
#define K_s K_S
#define K_d K_D

// One row per precision P (h, s, d).
#define UN(NAME, INSN, P, EXPR) ROW(NAME " " #P, K_##P, K_NONE, K_NONE, M_##P, INSN " " #P "0, " #P "1" FR, T_##P, EXPR)
#define BIN(NAME, INSN, P, EXPR) \
  ROW(NAME " " #P, K_##P, K_##P, K_NONE, M_##P, INSN " " #P "0, " #P "1, " #P "2" FR, T_##P, EXPR)
#define TER(NAME, INSN, P, EXPR) \
  ROW(NAME " " #P, K_##P, K_##P, K_##P, M_##P, INSN " " #P "0, " #P "1, " #P "2, " #P "3" FR, T_##P, EXPR)
#define NZCV_CMP(NAME, INSN, P, EXPR) \
  ROW(NAME " " #P, K_##P, K_##P, K_NONE, 0xf0000000ull, INSN " " #P "1, " #P "2\n\tmrs x9, nzcv", T_##P, EXPR)

// Conversions between formats: S source, D destination.
#define CVT(S_, D_) \
  ROW("FCVT " #S_ ">" #D_, K_##S_, K_NONE, K_NONE, M_##D_, "fcvt " #D_ "0, " #S_ "1" FR, T_##S_, \
      (FPConvert<T_##S_, T_##D_>(A, rm, f)))

// Float to integer, with rounding letter L (n, p, m, z, a) and its mode.
#define TOINT(L, RMODE, P, G, DT, BITS)                                                                      \
  ROW("FCVT" #L "S " #P ">" #G, K_##P, K_NONE, K_NONE, M_##BITS, "fcvt" #L "s " #G "9, " #P "1", T_##P,      \
      (fplibFPToFixed<T_##P, DT>(A, 0, false, RMODE, f))),                                                   \
      ROW("FCVT" #L "U " #P ">" #G, K_##P, K_NONE, K_NONE, M_##BITS, "fcvt" #L "u " #G "9, " #P "1", T_##P, \
          (fplibFPToFixed<T_##P, DT>(A, 0, true, RMODE, f)))
#define M_w 0xffffffffull
#define M_x ~0ull
#define TOINT_ALL(L, RMODE)                                                                                 \
  TOINT(L, RMODE, h, w, S, w), TOINT(L, RMODE, s, w, S, w), TOINT(L, RMODE, d, w, S, w),                    \
      TOINT(L, RMODE, h, x, D, x), TOINT(L, RMODE, s, x, D, x), TOINT(L, RMODE, d, x, D, x)

// Fixed point with fraction bits.
#define TOFIX(P, G, DT, BITS, FB)                                                                                \
  ROW("FCVTZS#" #FB " " #P ">" #G, K_##P, K_NONE, K_NONE, M_##BITS, "fcvtzs " #G "9, " #P "1, #" #FB, T_##P,     \
      (fplibFPToFixed<T_##P, DT>(A, FB, false, FPRounding_ZERO, f))),                                            \
      ROW("FCVTZU#" #FB " " #P ">" #G, K_##P, K_NONE, K_NONE, M_##BITS, "fcvtzu " #G "9, " #P "1, #" #FB, T_##P, \
          (fplibFPToFixed<T_##P, DT>(A, FB, true, FPRounding_ZERO, f)))

#define SEXT_w(v) uint64_t(int64_t(int32_t(uint32_t(v))))
#define ZEXT_w(v) uint64_t(uint32_t(v))
#define SEXT_x(v) uint64_t(v)
#define ZEXT_x(v) uint64_t(v)
#define K_w K_W
#define K_x K_X
#define FROMINT(G, P)                                                                                  \
  ROW("SCVTF " #G ">" #P, K_##G, K_NONE, K_NONE, M_##P, "scvtf " #P "0, " #G "1" FR, T_##P,                   \
      (fplibFixedToFP<T_##P>(SEXT_##G(a), 0, false, rm, f))),                                                 \
      ROW("UCVTF " #G ">" #P, K_##G, K_NONE, K_NONE, M_##P, "ucvtf " #P "0, " #G "1" FR, T_##P,               \
          (fplibFixedToFP<T_##P>(ZEXT_##G(a), 0, true, rm, f)))
#define FROMFIX(G, P, FB)                                                                                     \
  ROW("SCVTF#" #FB " " #G ">" #P, K_##G, K_NONE, K_NONE, M_##P, "scvtf " #P "0, " #G "1, #" #FB FR, T_##P,    \
      (fplibFixedToFP<T_##P>(SEXT_##G(a), FB, false, rm, f))),                                                \
      ROW("UCVTF#" #FB " " #G ">" #P, K_##G, K_NONE, K_NONE, M_##P, "ucvtf " #P "0, " #G "1, #" #FB FR, T_##P, \
          (fplibFixedToFP<T_##P>(ZEXT_##G(a), FB, true, rm, f)))

// SVE forms, lane 0 of z0 (the other lanes hold zeros and raise nothing).
#define SVE(BODY) ".arch_extension sve\n\t" BODY FR
#define SZ_h "h"
#define SZ_s "s"
#define SZ_d "d"
#define FTMAD(P, I) \
  ROW("FTMAD#" #I " " #P, K_##P, K_##P, K_NONE, M_##P, SVE("ftmad z1." SZ_##P ", z1." SZ_##P ", z2." SZ_##P ", #" #I "\n\tmov z0.d, z1.d"), T_##P, (FPTRIMADD<T_##P>(I, A, B, f)))
#define FTMAD_ALL(P) FTMAD(P, 0), FTMAD(P, 1), FTMAD(P, 2), FTMAD(P, 3), FTMAD(P, 4), FTMAD(P, 5), FTMAD(P, 6), FTMAD(P, 7)

#define EACH(M, ...) M(__VA_ARGS__, h), M(__VA_ARGS__, s), M(__VA_ARGS__, d)
#define UN3(NAME, INSN, EXPR) UN(NAME, INSN, h, EXPR), UN(NAME, INSN, s, EXPR), UN(NAME, INSN, d, EXPR)
#define BIN3(NAME, INSN, EXPR) BIN(NAME, INSN, h, EXPR), BIN(NAME, INSN, s, EXPR), BIN(NAME, INSN, d, EXPR)
#define TER3(NAME, INSN, EXPR) TER(NAME, INSN, h, EXPR), TER(NAME, INSN, s, EXPR), TER(NAME, INSN, d, EXPR)
#define CMP3(NAME, INSN, EXPR) \
  NZCV_CMP(NAME, INSN, h, EXPR), NZCV_CMP(NAME, INSN, s, EXPR), NZCV_CMP(NAME, INSN, d, EXPR)
#define SVE3(NAME, BODY, EXPR)                                                                       \
  ROW(NAME " h", K_H, K_H, K_NONE, M_h, SVE(BODY("h")), H, EXPR),                                    \
      ROW(NAME " s", K_S, K_S, K_NONE, M_s, SVE(BODY("s")), S, EXPR),                                \
      ROW(NAME " d", K_D, K_D, K_NONE, M_d, SVE(BODY("d")), D, EXPR)
#define TSMUL_BODY(Z) "ftsmul z0." Z ", z1." Z ", z2." Z
#define TSSEL_BODY(Z) "ftssel z0." Z ", z1." Z ", z2." Z
#define EXPA_BODY(Z) "fexpa z0." Z ", z1." Z

template <class T> T all_ones_if(bool b) { return b ? T(~T(0)) : T(0); }
template <class T> T fabs_lib(T x) { return T(x & ~fplib::fmt_sign<T>()); }
const std::vector<Row>& rows() {
  static const std::vector<Row> table = {
      BIN3("FADD", "fadd", (FPAdd(A, B, f))),
      BIN3("FSUB", "fsub", (FPSub(A, B, f))),
      BIN3("FMUL", "fmul", (FPMul(A, B, f))),
      BIN3("FNMUL", "fnmul", (FPNeg(FPMul(A, B, f)))),
      BIN3("FMULX", "fmulx", (FPMulX(A, B, f))),
      BIN3("FDIV", "fdiv", (FPDiv(A, B, f))),
      BIN3("FMAX", "fmax", (FPMax(A, B, f))),
      BIN3("FMIN", "fmin", (FPMin(A, B, f))),
      BIN3("FMAXNM", "fmaxnm", (FPMaxNum(A, B, f))),
      BIN3("FMINNM", "fminnm", (FPMinNum(A, B, f))),
      BIN3("FABD", "fabd", (fabs_lib(FPSub(A, B, f)))),
      BIN3("FRECPS", "frecps", (FPRecipStepFused(A, B, f))),
      BIN3("FRSQRTS", "frsqrts", (FPRSqrtStepFused(A, B, f))),
      BIN3("FCMEQ", "fcmeq", (all_ones_if<decltype(A)>(FPCompareEQ(A, B, f)))),
      BIN3("FCMGE", "fcmge", (all_ones_if<decltype(A)>(FPCompareGE(A, B, f)))),
      BIN3("FCMGT", "fcmgt", (all_ones_if<decltype(A)>(FPCompareGT(A, B, f)))),
      CMP3("FCMP", "fcmp", (uint64_t(FPCompare(A, B, false, f)) << 28)),
      CMP3("FCMPE", "fcmpe", (uint64_t(FPCompare(A, B, true, f)) << 28)),
      TER3("FMADD", "fmadd", (FPMulAdd(C, A, B, f))),
      TER3("FMSUB", "fmsub", (FPMulAdd(C, FPNeg(A), B, f))),
      TER3("FNMADD", "fnmadd", (FPMulAdd(FPNeg(C), FPNeg(A), B, f))),
      TER3("FNMSUB", "fnmsub", (FPMulAdd(FPNeg(C), A, B, f))),
      UN3("FSQRT", "fsqrt", (FPSqrt(A, f))),
      UN3("FNEG", "fneg", (FPNeg(A))),
      UN3("FABS", "fabs", (fabs_lib(A))),
      UN3("FRINTN", "frintn", (FPRoundInt(A, FPRounding_TIEEVEN, false, f))),
      UN3("FRINTP", "frintp", (FPRoundInt(A, FPRounding_POSINF, false, f))),
      UN3("FRINTM", "frintm", (FPRoundInt(A, FPRounding_NEGINF, false, f))),
      UN3("FRINTZ", "frintz", (FPRoundInt(A, FPRounding_ZERO, false, f))),
      UN3("FRINTA", "frinta", (FPRoundInt(A, FPRounding_TIEAWAY, false, f))),
      UN3("FRINTX", "frintx", (FPRoundInt(A, rm, true, f))),
      UN3("FRINTI", "frinti", (FPRoundInt(A, rm, false, f))),
      UN3("FRECPE", "frecpe", (FPRecipEstimate(A, f))),
      UN3("FRSQRTE", "frsqrte", (FPRSqrtEstimate(A, f))),
      UN3("FRECPX", "frecpx", (FPRecpX(A, f))),
      CVT(h, s), CVT(h, d), CVT(s, h), CVT(s, d), CVT(d, h), CVT(d, s),
      TOINT_ALL(z, FPRounding_ZERO), TOINT_ALL(n, FPRounding_TIEEVEN), TOINT_ALL(p, FPRounding_POSINF),
      TOINT_ALL(m, FPRounding_NEGINF), TOINT_ALL(a, FPRounding_TIEAWAY),
      TOFIX(h, w, S, w, 7), TOFIX(s, w, S, w, 19), TOFIX(d, w, S, w, 32), TOFIX(h, x, D, x, 40),
      TOFIX(s, x, D, x, 1), TOFIX(d, x, D, x, 64),
      ROW("FCVTZS h>h", K_H, K_NONE, K_NONE, M_h, "fcvtzs h0, h1" FR, H,
          (fplibFPToFixed<H, H>(A, 0, false, FPRounding_ZERO, f))),
      ROW("FCVTZU h>h", K_H, K_NONE, K_NONE, M_h, "fcvtzu h0, h1" FR, H,
          (fplibFPToFixed<H, H>(A, 0, true, FPRounding_ZERO, f))),
      ROW("SCVTF i>h", K_I16, K_NONE, K_NONE, M_h, "scvtf h0, h1" FR, H,
          (fplibFixedToFP<H>(uint64_t(int64_t(int16_t(A))), 0, false, rm, f))),
      ROW("UCVTF i>h", K_I16, K_NONE, K_NONE, M_h, "ucvtf h0, h1" FR, H,
          (fplibFixedToFP<H>(uint64_t(A), 0, true, rm, f))),
      FROMINT(w, h), FROMINT(w, s), FROMINT(w, d), FROMINT(x, h), FROMINT(x, s), FROMINT(x, d),
      FROMFIX(w, h, 3), FROMFIX(w, s, 17), FROMFIX(x, d, 60), FROMFIX(x, h, 64),
      ROW("URECPE w", K_W, K_NONE, K_NONE, M_w, "urecpe v0.2s, v1.2s" FR, S, (UnsignedRecipEstimate(A, 0))),
      ROW("URSQRTE w", K_W, K_NONE, K_NONE, M_w, "ursqrte v0.2s, v1.2s" FR, S, (UnsignedRSqrtEstimate(A, 0))),
      FTMAD_ALL(h), FTMAD_ALL(s), FTMAD_ALL(d),
      SVE3("FTSMUL", TSMUL_BODY, (FPTRISMUL(A, B, f))),
      SVE3("FTSSEL", TSSEL_BODY, (fplib::fp_trig_select(A, B))),
      ROW("FSCALE h", K_H, K_I16, K_NONE, M_h, SVE("ptrue p0.h\n\tfscale z1.h, p0/m, z1.h, z2.h\n\tmov z0.d, z1.d"), H,
          (FPScale16(A, short(B), f))),
      ROW("FSCALE s", K_S, K_W, K_NONE, M_s, SVE("ptrue p0.s\n\tfscale z1.s, p0/m, z1.s, z2.s\n\tmov z0.d, z1.d"), S,
          (FPScale32(A, int(B), f))),
      ROW("FSCALE d", K_D, K_X, K_NONE, M_d, SVE("ptrue p0.d\n\tfscale z1.d, p0/m, z1.d, z2.d\n\tmov z0.d, z1.d"), D,
          (FPScale64(A, long(B), f))),
      ROW("FCVTXN d>s", K_D, K_NONE, K_NONE, M_s, "fcvtxn s0, d1" FR, D, (FPConvert<D, S>(A, FPRounding_ODD, f))),
      ROW("FEXPA h", K_H, K_NONE, K_NONE, M_h, SVE("fexpa z0.h, z1.h"), H, (FPEXPA(A))),
      ROW("FEXPA s", K_S, K_NONE, K_NONE, M_s, SVE("fexpa z0.s, z1.s"), S, (FPEXPA(A))),
      ROW("FEXPA d", K_D, K_NONE, K_NONE, M_d, SVE("fexpa z0.d, z1.d"), D, (FPEXPA(A))),
  };
  return table;
}

// ---- operands ---------------------------------------------------------------
struct Rng {
  uint64_t s;
  uint64_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  }
  uint64_t below(uint64_t n) { return next() % n; }
};

struct FmtInfo {
  int w, e, f;
};
FmtInfo info(Kind k) {
  switch (k) {
    case K_H: return {16, 5, 10};
    case K_S: return {32, 8, 23};
    default: return {64, 11, 52};
  }
}

// The low bits of a fraction, below a random cut, made into a tie, a near
// tie, or zeros: the cases where rounding decides.
uint64_t patterned(Rng& g, uint64_t frac, int fbits) {
  int p = int(g.below(uint64_t(fbits) + 1));
  if (!p) return frac;
  uint64_t low = p >= 64 ? ~0ull : (uint64_t(1) << p) - 1, half = uint64_t(1) << (p - 1);
  static const int n = 5;
  uint64_t pats[n] = {0, half, half - 1, half | 1, low};
  return (frac & ~low) | (pats[g.below(n)] & low);
}

uint64_t make_fp(Kind k, int sgn, uint64_t exp, uint64_t frac) {
  FmtInfo fi = info(k);
  return (uint64_t(sgn) << (fi.w - 1)) | (exp << fi.f) | (frac & ((uint64_t(1) << fi.f) - 1));
}

uint64_t gen_fp(Rng& g, Kind k) {
  FmtInfo fi = info(k);
  uint64_t emax = (uint64_t(1) << fi.e) - 1, bias = emax >> 1;
  uint64_t fmask = (uint64_t(1) << fi.f) - 1;
  int sgn = int(g.below(2));
  uint64_t frac = g.next() & fmask;
  if (g.below(2)) frac = patterned(g, frac, fi.f);
  uint64_t exp;
  switch (g.below(16)) {
    case 0: return g.next() & (fi.w == 64 ? ~0ull : (uint64_t(1) << fi.w) - 1);
    case 1:
      switch (g.below(10)) {
        case 0: return make_fp(k, sgn, 0, 0);
        case 1: return make_fp(k, sgn, emax, 0);
        case 2: return make_fp(k, sgn, emax - 1, fmask);
        case 3: return make_fp(k, sgn, 1, 0);
        case 4: return make_fp(k, sgn, 0, 1);
        case 5: return make_fp(k, sgn, 0, fmask);
        case 6: return make_fp(k, sgn, bias, 0);
        case 7: return make_fp(k, sgn, emax, (frac | (fmask + 1) >> 1));      // quiet NaN
        case 8: return make_fp(k, sgn, emax, (frac & (fmask >> 1)) | 1);      // signalling NaN
        default: return make_fp(k, 0, emax, (fmask + 1) >> 1);                // default NaN
      }
    case 2:
    case 3: exp = 0; break;
    case 4: exp = emax - 1 - g.below(4); break;
    case 5: exp = 1 + g.below(4); break;
    case 6: exp = bias - 2 + g.below(6); break;
    case 7: exp = bias + g.below(70); break;
    default: exp = g.below(emax); break;
  }
  if (exp >= emax) exp = emax - 1;
  return make_fp(k, sgn, exp, frac);
}

uint64_t gen_int(Rng& g, int bits) {
  uint64_t mask = bits == 64 ? ~0ull : (uint64_t(1) << bits) - 1;
  uint64_t v;
  switch (g.below(6)) {
    case 0: v = g.below(2) ? g.below(64) - 32 : g.below(8400) - 4200; break;
    case 1: v = (uint64_t(1) << g.below(uint64_t(bits))) + g.below(5) - 2; break;
    case 2: v = uint64_t(0) - (uint64_t(1) << g.below(uint64_t(bits))) + g.below(5) - 2; break;
    case 3: v = g.next() >> g.below(64); break;
    default: v = g.next(); break;
  }
  if (g.below(2)) v = patterned(g, v, bits);
  return v & mask;
}

uint64_t gen(Rng& g, Kind k) {
  switch (k) {
    case K_I16: return gen_int(g, 16);
    case K_W: return gen_int(g, 32);
    case K_X: return gen_int(g, 64);
    case K_NONE: return g.next();
    default: return gen_fp(g, k);
  }
}

// A second operand close to the first: an exponent near it (cancellation
// and alignment), one that puts a product or quotient at the edges of the
// range, or nearly the same value.
uint64_t gen_related(Rng& g, Kind k, uint64_t a) {
  FmtInfo fi = info(k);
  int64_t emax = (int64_t(1) << fi.e) - 1, bias = emax >> 1;
  int64_t ea = int64_t((a >> fi.f) & uint64_t(emax));
  uint64_t frac = patterned(g, g.next(), fi.f);
  int sgn = int(g.below(2));
  int64_t e;
  switch (g.below(4)) {
    case 0: e = ea + int64_t(g.below(7)) - 3; break;
    case 1: e = ea + (g.below(2) ? 1 : -1) * int64_t(fi.f + g.below(4)); break;
    case 2: {
      static const int64_t targets[] = {1, 0, -1, -2};
      int64_t t = g.below(2) ? emax - 1 + targets[g.below(4)] : targets[g.below(4)] - int64_t(g.below(uint64_t(fi.f) + 2));
      e = g.below(2) ? t - ea + bias : ea - t + bias;  // product or quotient near t
      break;
    }
    default: return a ^ (g.below(8)) ^ (g.below(2) ? uint64_t(1) << (fi.w - 1) : 0);
  }
  if (e < 0) e = 0;
  if (e >= emax) e = emax - 1;
  return make_fp(k, sgn, uint64_t(e), frac);
}

uint32_t gen_fpcr(Rng& g) {
  uint32_t cr = uint32_t(g.below(4)) << 22;
  if (g.below(2)) cr |= 1u << 24;  // FZ
  if (g.below(3) == 0) cr |= 1u << 25;  // DN
  if (g.below(2)) cr |= 1u << 19;  // FZ16
  if (g.below(4) == 0) cr |= 1u << 26;  // AHP
  return cr;
}

// ---- comparison, departures and figures ----------------------------------------------------
struct Figures {
  uint64_t run = 0, equal = 0, excused = 0, shown = 0;
};

bool half_denormal(uint64_t x) { return !(x & 0x7c00) && (x & 0x3ff); }

// The departures the reference can show, each excused only when it is the
// whole difference.
//
// 1. A half-precision denormal input flushed under FZ16 raises no IDC here;
//    a reference that raises it differs in that bit alone.
// 2. An integer to half conversion rounds with the given mode, FZ and DN
//    but without FZ16, so a tiny half result is kept where the reference
//    flushes it to a signed zero with UFC alone (also one that rounds up
//    to the smallest normal: the flush looks at the unrounded value).
bool excused(const Row& row, const uint64_t op[3], uint32_t fpcr, uint64_t lr, uint32_t lf, uint64_t hr,
             uint32_t hf) {
  if (!(fpcr & (1u << 19))) return false;
  if (lr == hr && hf == (lf | 0x80) && !(lf & 0x80)) {
    for (int i = 0; i < 3; ++i)
      if (row.in[i] == K_H && half_denormal(op[i])) return true;
  }
  bool int_to_half = (row.in[0] == K_W || row.in[0] == K_X || row.in[0] == K_I16) && row.out_mask == 0xffff;
  if (int_to_half && (lr & 0x7fff) <= 0x400 && hr == (lr & 0x8000) && hf == ((lf & ~0x18u) | 0x8)) return true;
  return false;
}

bool run_case(const Row& row, uint64_t a, uint64_t b, uint64_t c, uint32_t fpcr, Figures& fig, bool quiet) {
  uint32_t lf, hf;
  uint64_t lr = row.lib(a, b, c, fpcr, &lf) & row.out_mask;
  uint64_t hr = row.hw(a, b, c, fpcr, &hf) & row.out_mask;
  hf &= 0x9f;
  ++fig.run;
  if (lr == hr && lf == hf) {
    ++fig.equal;
    return true;
  }
  const uint64_t op[3] = {a, b, c};
  if (excused(row, op, fpcr, lr, lf, hr, hf)) {
    ++fig.excused;
    return true;
  }
  if (!quiet && fig.shown < 8) {
    ++fig.shown;
    printf("DIFF %-14s a=%#" PRIx64 " b=%#" PRIx64 " c=%#" PRIx64 " fpcr=%#x: lib %#" PRIx64 " fpsr %#x, ref %#" PRIx64
           " fpsr %#x\n",
           row.name, a, b, c, fpcr, lr, lf, hr, hf);
  }
  return false;
}

bool is_fp(Kind k) { return k == K_H || k == K_S || k == K_D; }

}  // namespace

int main(int argc, char** argv) {
  uint64_t cases = 2000, seed = uint64_t(time(nullptr));
  bool exhaustive = false, quiet = false;
  const char* filter = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--cases") && i + 1 < argc) cases = strtoull(argv[++i], nullptr, 0);
    else if (!strcmp(argv[i], "--seed") && i + 1 < argc) seed = strtoull(argv[++i], nullptr, 0);
    else if (!strcmp(argv[i], "--exhaustive")) exhaustive = true;
    else if (!strcmp(argv[i], "--rows") && i + 1 < argc) filter = argv[++i];
    else if (!strcmp(argv[i], "--quiet")) quiet = true;
    else {
      fprintf(stderr, "usage: %s [--cases N] [--seed S] [--exhaustive] [--rows SUBSTR] [--quiet]\n", argv[0]);
      return 2;
    }
  }
  printf("fplib check: seed %" PRIu64 ", %" PRIu64 " random cases per row%s\n", seed, cases,
         exhaustive ? ", every 16-bit input of the one-operand rows, every second half operand" : "");
  printf("%-16s %10s %10s %8s %8s\n", "row", "run", "equal", "excused", "differ");
  uint64_t total = 0, bad = 0, rows_bad = 0, n_rows = 0;
  for (const Row& row : rows()) {
    if (filter && !strstr(row.name, filter)) continue;
    ++n_rows;
    Figures fig;
    Rng g{seed * 0x9e3779b97f4a7c15ull + std::hash<std::string>()(row.name) + 1};
    bool one_op_16 = row.in[1] == K_NONE && (row.in[0] == K_H || row.in[0] == K_I16);
    if (exhaustive && one_op_16) {
      // every rounding mode, FZ16 and DN on and off; AHP on and off where
      // a conversion reads it
      bool ahp_matters = !strncmp(row.name, "FCVT ", 5);
      for (uint32_t combo = 0; combo < (ahp_matters ? 32u : 16u); ++combo) {
        uint32_t cr = ((combo & 3) << 22) | ((combo >> 2 & 1) << 19) | ((combo >> 3 & 1) << 25) |
                      ((combo >> 4 & 1) << 26);
        for (uint64_t x = 0; x < 0x10000; ++x) run_case(row, x, 0, 0, cr, fig, quiet);
      }
    }
    if (exhaustive && row.in[0] == K_H && row.in[1] == K_H && row.in[2] == K_NONE) {
      // every second operand against a sample of first ones
      for (int i = 0; i < 64; ++i) {
        uint64_t a = gen(g, K_H);
        for (uint64_t x = 0; x < 0x10000; ++x) run_case(row, a, x, 0, gen_fpcr(g), fig, quiet);
      }
    }
    for (uint64_t i = 0; i < cases; ++i) {
      uint64_t a = gen(g, row.in[0]);
      uint64_t b = row.in[1] == K_NONE ? 0 : (is_fp(row.in[1]) && row.in[1] == row.in[0] && g.below(2))
                                                   ? gen_related(g, row.in[1], a)
                                                   : gen(g, row.in[1]);
      uint64_t c = row.in[2] == K_NONE ? 0 : gen(g, row.in[2]);
      if (row.in[2] != K_NONE && g.below(3) == 0) {
        // an addend that nearly cancels the product
        Kind k = row.in[2];
        FPSCR f = 3u << 22;
        uint64_t p = k == K_H ? FPMul<H>(H(a), H(b), f) : k == K_S ? FPMul<S>(S(a), S(b), f) : FPMul<D>(a, b, f);
        c = (p ^ (uint64_t(1) << (info(k).w - 1)) ^ g.below(4)) & (info(k).w == 64 ? ~0ull : (uint64_t(1) << info(k).w) - 1);
      }
      run_case(row, a, b, c, gen_fpcr(g), fig, quiet);
    }
    uint64_t differ = fig.run - fig.equal - fig.excused;
    total += fig.run;
    bad += differ;
    rows_bad += differ != 0;
    printf("%-16s %10" PRIu64 " %10" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n", row.name, fig.run, fig.equal, fig.excused,
           differ);
  }
  printf("fplib check: %" PRIu64 " rows, %" PRIu64 " cases, %" PRIu64 " differ in %" PRIu64 " rows (seed %" PRIu64 ")\n",
         n_rows, total, bad, rows_bad, seed);
  printf("%" PRIu64 " passed, %" PRIu64 " failed\n", n_rows - rows_bad, rows_bad);
  return bad ? 1 : 0;
}
