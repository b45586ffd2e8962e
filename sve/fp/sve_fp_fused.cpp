// Fused multiply-add in its eight predicated forms, the indexed forms, and the
// complex add and multiply-add. Every lane is one fused operation rounded once;
// a negated operand has its sign flipped before the operation, so a negated
// NaN operand comes out with its sign inverted and no product is ever rounded.

#include <cstring>

#include "decode_decls.h"
#include "sve/fp/fp_fused_lanes.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"

namespace {

using fpx::neg_if;

// Which operand is the addend and which operands are negated.
//   Accumulating forms (FMLA...): d = addend, x = factor 1, y = factor 2.
//   Multiplicand forms (FMAD...): d = factor 1, x = factor 2, y = addend.
struct FusedForm {
  bool mad;
  bool neg_addend;
  bool neg_factor;
};
constexpr FusedForm kFMLA{false, false, false}, kFMLS{false, false, true}, kFNMLA{false, true, true},
    kFNMLS{false, true, false}, kFMAD{true, false, false}, kFMSB{true, false, true}, kFNMAD{true, true, true},
    kFNMSB{true, true, false};

template <typename T, typename MulAdd>
inline T fused_lane(const FusedForm& f, T d, T x, T y, MulAdd muladd) {
  const T addend = f.mad ? y : d;
  const T f1 = f.mad ? d : x;
  const T f2 = f.mad ? x : y;
  return muladd(neg_if(f.neg_addend, addend), neg_if(f.neg_factor, f1), f2);
}

// ---- generic road ------------------------------------------------------------

template <typename T>
VecV fused_vvvm(const FusedForm& f, const VecV& d, const PredV& p, const VecV& x, const VecV& y, CpuContext* c) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T dv = generic::lane<T>(d, i);
    T out = dv;
    if (generic::active<T>(p, i))
      out = fused_lane<T>(f, dv, generic::lane<T>(x, i), generic::lane<T>(y, i), [c](T a, T b, T m) {
        return fplanes::gen::call(c, [&](FPSCR& s) { return FPMulAdd<T>(a, b, m, s); });
      });
    generic::set_lane<T>(r, i, out);
  }
  return r;
}

// Lanes per 128-bit segment, less one: the index picks within each segment.
template <typename T>
constexpr unsigned seg_mask = 16 / sizeof(T) - 1;

template <typename T>
VecV fused_indexed(bool negate, const VecV& zn, const VecV& zm, const VecV& zda, uint64_t index, CpuContext* c) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T a = generic::lane<T>(zda, i);
    const T f1 = neg_if(negate, generic::lane<T>(zn, i));
    const T f2 = generic::lane<T>(zm, (i & ~seg_mask<T>) + unsigned(index));
    generic::set_lane<T>(r, i, fplanes::gen::call(c, [&](FPSCR& s) { return FPMulAdd<T>(a, f1, f2, s); }));
  }
  return r;
}

// The two fused operations of a complex pair under rotation `rot`:
// the real lane takes factor 1 from the real (even rotation) or imaginary part
// of Zn, and the matching part of Zm, negated for rotations 1 and 2; the
// imaginary lane uses the same part of Zn with the other part of Zm, negated
// for rotations 2 and 3.
struct CmlaPlan {
  bool n_imag;   // factor 1 is Zn[i] rather than Zn[r]
  bool neg_re;   // real lane: negate its Zm factor
  bool neg_im;   // imaginary lane: negate its Zm factor
};
constexpr CmlaPlan cmla_plan(unsigned rot) {
  return CmlaPlan{(rot & 1) != 0, rot == 1 || rot == 2, rot == 2 || rot == 3};
}

// One complex pair: zda_r/zda_i addends, n_r/n_i and m_r/m_i the parts.
// act_r/act_i: whether each lane is computed (inactive lanes keep the addend).
template <typename T, typename MulAdd>
inline void cmla_pair(const CmlaPlan& pl, T zda_r, T zda_i, T n_r, T n_i, T m_r, T m_i, bool act_r, bool act_i,
                      T& out_r, T& out_i, MulAdd muladd) {
  const T f1 = pl.n_imag ? n_i : n_r;
  // Real lane: rotation 0, 2 use Zm[r]; 1, 3 use Zm[i]. Imaginary lane the other.
  const T m_re = pl.n_imag ? m_i : m_r;
  const T m_im = pl.n_imag ? m_r : m_i;
  const T f2_re = neg_if(pl.neg_re, m_re);
  const T f2_im = neg_if(pl.neg_im, m_im);
  out_r = act_r ? muladd(zda_r, f1, f2_re) : zda_r;
  out_i = act_i ? muladd(zda_i, f1, f2_im) : zda_i;
}

template <typename T>
VecV fcmla_vvvm(const VecV& zda, const PredV& p, const VecV& zn, const VecV& zm, uint64_t rot, CpuContext* c) {
  VecV r;
  const CmlaPlan pl = cmla_plan(unsigned(rot & 3));
  const unsigned n = generic::lane_count<T>(c);
  auto ma = [c](T a, T b, T m) { return fplanes::gen::call(c, [&](FPSCR& s) { return FPMulAdd<T>(a, b, m, s); }); };
  for (unsigned k = 0; k + 1 < n; k += 2) {
    T o_r, o_i;
    cmla_pair<T>(pl, generic::lane<T>(zda, k), generic::lane<T>(zda, k + 1), generic::lane<T>(zn, k),
                 generic::lane<T>(zn, k + 1), generic::lane<T>(zm, k), generic::lane<T>(zm, k + 1),
                 generic::active<T>(p, k), generic::active<T>(p, k + 1), o_r, o_i, ma);
    generic::set_lane<T>(r, k, o_r);
    generic::set_lane<T>(r, k + 1, o_i);
  }
  return r;
}

template <typename T>
VecV fcmla_indexed(const VecV& zn, const VecV& zm, const VecV& zda, uint64_t index, uint64_t rot, CpuContext* c) {
  VecV r;
  const CmlaPlan pl = cmla_plan(unsigned(rot & 3));
  const unsigned n = generic::lane_count<T>(c);
  auto ma = [c](T a, T b, T m) { return fplanes::gen::call(c, [&](FPSCR& s) { return FPMulAdd<T>(a, b, m, s); }); };
  // Pairs per 128-bit segment: 4 for half, 2 for single.
  constexpr unsigned pairs_per_seg = 8 / sizeof(T);
  for (unsigned k = 0; 2 * k + 1 < n; ++k) {
    const unsigned mr = (k / pairs_per_seg) * (2 * pairs_per_seg) + 2 * unsigned(index);
    T o_r, o_i;
    cmla_pair<T>(pl, generic::lane<T>(zda, 2 * k), generic::lane<T>(zda, 2 * k + 1), generic::lane<T>(zn, 2 * k),
                 generic::lane<T>(zn, 2 * k + 1), generic::lane<T>(zm, mr), generic::lane<T>(zm, mr + 1), true,
                 true, o_r, o_i, ma);
    generic::set_lane<T>(r, 2 * k, o_r);
    generic::set_lane<T>(r, 2 * k + 1, o_i);
  }
  return r;
}

// FCADD: rotation bit 0 is 90 degrees, 1 is 270 degrees.
template <typename T>
VecV fcadd(const VecV& zdn, const PredV& p, const VecV& zm, uint64_t rot, CpuContext* c) {
  VecV r;
  const bool r270 = (rot & 1) != 0;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned k = 0; k + 1 < n; k += 2) {
    const T d_r = generic::lane<T>(zdn, k), d_i = generic::lane<T>(zdn, k + 1);
    const T m_r = generic::lane<T>(zm, k), m_i = generic::lane<T>(zm, k + 1);
    T o_r = d_r, o_i = d_i;
    if (generic::active<T>(p, k))
      o_r = fplanes::gen::call(c, [&](FPSCR& s) { return FPAdd<T>(d_r, neg_if(!r270, m_i), s); });
    if (generic::active<T>(p, k + 1))
      o_i = fplanes::gen::call(c, [&](FPSCR& s) { return FPAdd<T>(d_i, neg_if(r270, m_r), s); });
    generic::set_lane<T>(r, k, o_r);
    generic::set_lane<T>(r, k + 1, o_i);
  }
  return r;
}

// ---- fast road -----------------------------------------------------------------

using fplanes::fast_fp::by_fp_size;

struct HostMulAdd {
  fpx::soft_status& st;
  template <typename T> T operator()(T a, T n, T m) const { return fpx::lane_op3<T>(fpx::op_fmadd{}, a, n, m, st); }
};

// (d, pg, x, y) in the order of the instruction's operands; d is the
// destination, and inactive lanes keep it.
template <typename T>
aarch64_decode_rc fused_zpzz(const FusedForm& f, cpu_state* cs, aarch64_z_reg d, aarch64_p_reg pg, aarch64_z_reg x,
                             aarch64_z_reg y) {
  const unsigned char* dv = cs->z[d.number];
  const unsigned char* xv = cs->z[x.number];
  const unsigned char* yv = cs->z[y.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  fpx::soft_status st(cs);
  const HostMulAdd ma{st};
  using fplanes::fast_fp::kChunk;
#pragma GCC unroll 3
  for (unsigned c = 0; c < kVecBytes; c += kChunk) {
#if defined(__aarch64__)
    if (fplanes::fast_fp::chunk_active<T>(p + c)) {
      using fplanes::fast_fp::vload;
      const auto dc = vload<T>(dv + c), xc = vload<T>(xv + c), yc = vload<T>(yv + c);
      const auto addend = fpx::vneg_if(f.neg_addend, f.mad ? yc : dc);
      const auto f1 = fpx::vneg_if(f.neg_factor, f.mad ? dc : xc);
      fplanes::fast_fp::vstore<T>(out + c, fpx::op_fmadd::vhost(addend, f1, f.mad ? xc : yc));
      continue;
    }
#endif
    for (unsigned i = c / sizeof(T); i < (c + kChunk) / sizeof(T); ++i) {
      const T di = fast::lane<T>(dv, i);
      fast::set_lane<T>(out, i,
                        fast::active<T>(p, i) ? fused_lane<T>(f, di, fast::lane<T>(xv, i), fast::lane<T>(yv, i), ma)
                                              : di);
    }
  }
  std::memcpy(cs->z[d.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

template <typename T, unsigned Rot>
aarch64_decode_rc fcmla_zpzz(cpu_state* cs, aarch64_z_reg zda, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm) {
  constexpr CmlaPlan pl = cmla_plan(Rot);
  const unsigned char* a = cs->z[zda.number];
  const unsigned char* nv = cs->z[zn.number];
  const unsigned char* mv = cs->z[zm.number];
  const unsigned char* p = cs->p[pg.number];
  unsigned char out[kVecBytes];
  fpx::soft_status st(cs);
  const HostMulAdd ma{st};
  for (unsigned k = 0; k < fast::lanes<T>; k += 2) {
    T o_r, o_i;
    cmla_pair<T>(pl, fast::lane<T>(a, k), fast::lane<T>(a, k + 1), fast::lane<T>(nv, k), fast::lane<T>(nv, k + 1),
                 fast::lane<T>(mv, k), fast::lane<T>(mv, k + 1), fast::active<T>(p, k), fast::active<T>(p, k + 1),
                 o_r, o_i, ma);
    fast::set_lane<T>(out, k, o_r);
    fast::set_lane<T>(out, k + 1, o_i);
  }
  std::memcpy(cs->z[zda.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

template <typename T>
aarch64_decode_rc fcmla_by_rot(cpu_state* cs, aarch64_z_reg zda, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm,
                               unsigned rot) {
  switch (rot & 3) {
    case 0: return fcmla_zpzz<T, 0>(cs, zda, pg, zn, zm);
    case 1: return fcmla_zpzz<T, 1>(cs, zda, pg, zn, zm);
    case 2: return fcmla_zpzz<T, 2>(cs, zda, pg, zn, zm);
    default: return fcmla_zpzz<T, 3>(cs, zda, pg, zn, zm);
  }
}

}  // namespace

extern "C" {

// The eight predicated forms, each at three widths on the generic road and one
// fast handler for single and double.
#define FUSED_ROWS(NAME, FORM, HANDLER)                                                                       \
  VecV VecF16##NAME##VVVM(VecV d, PredV p, VecV x, VecV y, CpuContext* c) {                                  \
    return fused_vvvm<unsigned short>(FORM, d, p, x, y, c);                                                   \
  }                                                                                                           \
  VecV VecF32##NAME##VVVM(VecV d, PredV p, VecV x, VecV y, CpuContext* c) {                                  \
    return fused_vvvm<unsigned int>(FORM, d, p, x, y, c);                                                     \
  }                                                                                                           \
  VecV VecD64##NAME##VVVM(VecV d, PredV p, VecV x, VecV y, CpuContext* c) {                                  \
    return fused_vvvm<unsigned long>(FORM, d, p, x, y, c);                                                    \
  }                                                                                                           \
  aarch64_decode_rc HANDLER(cpu_state* cs, aarch64_z_reg d, aarch64_p_reg pg, aarch64_z_reg x, aarch64_z_reg y) { \
    return by_fp_size(d.in_size, [&](auto lane) { return fused_zpzz<decltype(lane)>(FORM, cs, d, pg, x, y); });  \
  }

FUSED_ROWS(FMA, kFMLA, sve_fmla_zpzz)
FUSED_ROWS(FMS, kFMLS, sve_fmls_zpzz)
FUSED_ROWS(FNMA, kFNMLA, sve_fnmla_zpzz)
FUSED_ROWS(FNMS, kFNMLS, sve_fnmls_zpzz)
FUSED_ROWS(FMADD, kFMAD, sve_fmad_zpzz)
FUSED_ROWS(FMSUB, kFMSB, sve_fmsb_zpzz)
FUSED_ROWS(FNMADD, kFNMAD, sve_fnmad_zpzz)
FUSED_ROWS(FNMSUB, kFNMSB, sve_fnmsb_zpzz)
#undef FUSED_ROWS

#define INDEXED_ROWS(P, T)                                                                 \
  VecV Vec##P##FMAVVVIX(VecV zn, VecV zm, VecV zda, uint64_t idx, CpuContext* c) {        \
    return fused_indexed<T>(false, zn, zm, zda, idx, c);                                   \
  }                                                                                        \
  VecV Vec##P##FMSVVVIX(VecV zn, VecV zm, VecV zda, uint64_t idx, CpuContext* c) {        \
    return fused_indexed<T>(true, zn, zm, zda, idx, c);                                    \
  }                                                                                        \
  VecV Vec##P##FCMLAVVVM(VecV zda, PredV p, VecV zn, VecV zm, uint64_t rot, CpuContext* c) { \
    return fcmla_vvvm<T>(zda, p, zn, zm, rot, c);                                          \
  }                                                                                        \
  VecV Vec##P##FCADDVVM(VecV zdn, PredV p, VecV zm, uint64_t rot, CpuContext* c) {        \
    return fcadd<T>(zdn, p, zm, rot, c);                                                   \
  }
INDEXED_ROWS(F16, unsigned short)
INDEXED_ROWS(F32, unsigned int)
INDEXED_ROWS(D64, unsigned long)
#undef INDEXED_ROWS

VecV VecF16FCMLAVVVIX(VecV zn, VecV zm, VecV zda, uint64_t idx, uint64_t rot, CpuContext* c) {
  return fcmla_indexed<unsigned short>(zn, zm, zda, idx, rot, c);
}
VecV VecF32FCMLAVVVIX(VecV zn, VecV zm, VecV zda, uint64_t idx, uint64_t rot, CpuContext* c) {
  return fcmla_indexed<unsigned int>(zn, zm, zda, idx, rot, c);
}

aarch64_decode_rc sve_fcmla_zpzzr(cpu_state* cs, aarch64_z_reg zda, aarch64_p_reg pg, aarch64_z_reg zn,
                                  aarch64_z_reg zm, unsigned int rot) {
  return by_fp_size(zda.in_size, [&](auto lane) { return fcmla_by_rot<decltype(lane)>(cs, zda, pg, zn, zm, rot); });
}

}  // extern "C"
