// Floating-point reductions to a scalar. Addition is not associative, so the
// order of combination is fixed: a pairwise tree over the register padded with
// the identity to a power of two (the same shape on both roads, since a NaN
// payload or the sign of a zero can depend on it), or, for FADDA, strictly from
// the lowest element upward.

#include <cstring>
#include <type_traits>

#include "decode_decls.h"
#include "sve/fp/fp_fused_lanes.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"

namespace {

// Room for the padded work array at any vector length up to 2048 bits.
constexpr unsigned kMaxLanes = kVecVBytes / 2;

constexpr unsigned pow2_at_least(unsigned n) {
  unsigned p = 1;
  while (p < n) p *= 2;
  return p;
}

// Pairwise tree, lower element first, on work[0..p).
template <typename T, typename Op>
inline T tree(T* work, unsigned p, Op op) {
  for (; p > 1; p /= 2)
    for (unsigned i = 0; i < p / 2; ++i) work[i] = op(work[2 * i], work[2 * i + 1]);
  return work[0];
}

template <typename T> constexpr T neg_inf() { return T(fplib::fmt_infinity<T>() | fplib::fmt_sign<T>()); }
template <typename T> constexpr T pos_inf() { return fplib::fmt_infinity<T>(); }
template <typename T> constexpr T dnan() { return fplib::fmt_default_nan<T>(); }

template <typename T, typename Lib>
uint64_t reduce_tree(const PredV& pg, const VecV& v, CpuContext* c, T identity, Lib libop) {
  T work[kMaxLanes];
  const unsigned n = generic::lane_count<T>(c);
  const unsigned p = pow2_at_least(n);
  for (unsigned i = 0; i < p; ++i)
    work[i] = (i < n && generic::active<T>(pg, i)) ? generic::lane<T>(v, i) : identity;
  return tree<T>(work, p, [&](T a, T b) { return fplanes::gen::call(c, [&](FPSCR& s) { return libop(a, b, s); }); });
}

template <typename T>
uint64_t add_ordered(const PredV& pg, uint64_t start, const VecV& v, CpuContext* c) {
  T acc = T(start);
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    if (!generic::active<T>(pg, i)) continue;
    const T e = generic::lane<T>(v, i);
    acc = fplanes::gen::call(c, [&](FPSCR& s) { return FPAdd<T>(acc, e, s); });
  }
  return acc;
}

#if defined(__aarch64__)
// FADDA at single and double precision on an AArch64 host: the host's own
// FADD is the architecture's FPAdd, so the lanes go through it in the same
// order, under the context's control word (rounding, FZ, DN; no trap
// enabled), and the flags it raises join the context's status. Much cheaper
// than the library when the host is itself emulated. The host's FPCR and
// FPSR are as they were afterwards.
template <typename T>
uint64_t add_ordered_host(const PredV& pg, uint64_t start, const VecV& v, CpuContext* c) {
  constexpr uint64_t kControl = 0x07C80000u;   // AHP, DN, FZ, RMode, FZ16
  uint64_t fpcr;
  __asm__ volatile("mrs %0, fpcr" : "=r"(fpcr));
  const uint32_t fpsr = host_fpsr_read();
  const uint64_t want = c->fpcr & kControl;
  if (fpcr != want) __asm__ volatile("msr fpcr, %0" : : "r"(want));
  host_fpsr_write(0);
  auto acc = fplanes::to_host<T>(static_cast<T>(start));
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i)
    if (generic::active<T>(pg, i)) acc = fplanes::op_add::host(acc, fplanes::to_host<T>(generic::lane<T>(v, i)));
  const uint32_t flags = host_fpsr_read();
  host_fpsr_write(fpsr);
  if (fpcr != want) __asm__ volatile("msr fpcr, %0" : : "r"(fpcr));
  c->fpsr |= flags & fplanes::kFlagBits;
  return fplanes::from_host<T>(acc);
}
#endif

// FADDA: the host's FADD where it is the architecture's, the library elsewhere.
template <typename T>
uint64_t fadda(const PredV& pg, uint64_t start, const VecV& v, CpuContext* c) {
#if defined(__aarch64__)
  if constexpr (sizeof(T) > 2) return add_ordered_host<T>(pg, start, v, c);
#endif
  return add_ordered<T>(pg, start, v, c);
}

// The fast FMAXNMV / FMINNMV: active lanes into a work area with the default
// NaN elsewhere, then the same tree with the host's instruction.
template <typename T, bool Max>
aarch64_decode_rc minmaxnm_v(cpu_state* cs, unsigned vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  constexpr unsigned n = fast::lanes<T>;
  constexpr unsigned p = pow2_at_least(n);
  const unsigned char* src = cs->z[zn.number];
  const unsigned char* pr = cs->p[pg.number];
  T work[p];
  for (unsigned i = 0; i < p; ++i)
    work[i] = (i < n && fast::active<T>(pr, i)) ? fast::lane<T>(src, i) : dnan<T>();
  fpx::soft_status st(cs);
  using Op = std::conditional_t<Max, fplanes::op_maxnm, fplanes::op_minnm>;
  const T r = tree<T>(work, p, [&st](T a, T b) { return fplanes::fast_fp::lane_op2<T>(Op{}, a, b, st); });
  std::memset(cs->z[vd], 0, kVecBytes);
  std::memcpy(cs->z[vd], &r, sizeof(T));
  return AARCH64_DECODE_OK;
}

}  // namespace

extern "C" {

#define REDUCE_ROWS(P, T)                                                                                  \
  uint64_t Vec##P##AddReduceFV(PredV pg, VecV v, CpuContext* c) {                                         \
    return reduce_tree<T>(pg, v, c, T{}, [](T a, T b, FPSCR& s) { return FPAdd<T>(a, b, s); });          \
  }                                                                                                        \
  uint64_t Vec##P##MaxNumReduceFV(PredV pg, VecV v, CpuContext* c) {                                      \
    return reduce_tree<T>(pg, v, c, dnan<T>(), [](T a, T b, FPSCR& s) { return FPMaxNum<T>(a, b, s); });  \
  }                                                                                                        \
  uint64_t Vec##P##MinNumReduceFV(PredV pg, VecV v, CpuContext* c) {                                      \
    return reduce_tree<T>(pg, v, c, dnan<T>(), [](T a, T b, FPSCR& s) { return FPMinNum<T>(a, b, s); });  \
  }                                                                                                        \
  uint64_t Vec##P##MaxReduceFV(PredV pg, VecV v, CpuContext* c) {                                         \
    return reduce_tree<T>(pg, v, c, neg_inf<T>(), [](T a, T b, FPSCR& s) { return FPMax<T>(a, b, s); });  \
  }                                                                                                        \
  uint64_t Vec##P##MinReduceFV(PredV pg, VecV v, CpuContext* c) {                                         \
    return reduce_tree<T>(pg, v, c, pos_inf<T>(), [](T a, T b, FPSCR& s) { return FPMin<T>(a, b, s); });  \
  }                                                                                                        \
  uint64_t Vec##P##AddReduceAV(PredV pg, uint64_t start, VecV v, CpuContext* c) {                         \
    return fadda<T>(pg, start, v, c);                                                                      \
  }
REDUCE_ROWS(F16, uint16_t)
REDUCE_ROWS(F32, uint32_t)
REDUCE_ROWS(D64, uint64_t)
#undef REDUCE_ROWS

aarch64_decode_rc sve_fmaxnmv_vpz(cpu_state* cs, unsigned int vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fplanes::fast_fp::by_fp_size(zn.size, [&](auto t) { return minmaxnm_v<decltype(t), true>(cs, vd, pg, zn); });
}
aarch64_decode_rc sve_fminnmv_vpz(cpu_state* cs, unsigned int vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fplanes::fast_fp::by_fp_size(zn.size, [&](auto t) { return minmaxnm_v<decltype(t), false>(cs, vd, pg, zn); });
}

}  // extern "C"
