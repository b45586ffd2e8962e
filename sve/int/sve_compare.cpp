// Integer compares to a predicate, with flags: vectors, immediates and wide
// (64-bit) second operands.
//
// Every form is zeroing: an inactive lane gives a false bit. The result is
// built in a temporary, the flags are taken from it and the governing
// predicate as it was before, and only then is the destination written, so
// Pd may be Pg.

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/int_lanes.h"
#include "sve/int/vec_loop.h"
#include "sve/predicate/pred_flags.h"

namespace {

struct eq_op { template <typename A, typename B> auto operator()(A a, B b) const { return a == b; } };
struct ne_op { template <typename A, typename B> auto operator()(A a, B b) const { return a != b; } };
struct gt_op { template <typename A, typename B> auto operator()(A a, B b) const { return a > b; } };
struct ge_op { template <typename A, typename B> auto operator()(A a, B b) const { return a >= b; } };
struct lt_op { template <typename A, typename B> auto operator()(A a, B b) const { return a < b; } };
struct le_op { template <typename A, typename B> auto operator()(A a, B b) const { return a <= b; } };

// The fast road: the lanes of Zn (as T, which carries the sign) against
// those of `b`, under Pg; flags by sve_ptest at T's stride. A compare of two
// host vectors gives all ones in a true lane, and the governing predicate read
// at the lane's width has bit 0 set in an active one: their AND, masked to
// bit 0, is the result read the same way.
template <typename T, typename Op>
__attribute__((always_inline)) inline aarch64_decode_rc compare(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg,
                                                                aarch64_z_reg zn, const fast::Quads<T>& b, Op op) {
  const fast::Quads<T> a = fast::load_q<T>(cs->z[zn.number]);
  const unsigned char* g = cs->p[pg.number];
  const fast::Quads<T> active = fast::load_q<T>(g);
  fast::Quads<T> r;
  for (int k = 0; k < 3; ++k) r.q[k] = (fast::Quad<T>)op(a.q[k], b.q[k]) & active.q[k] & 1;
  unsigned char out[kVecBytes];
  fast::store_q<T>(out, r);
  sve_ptest<T>(cs, reinterpret_cast<const char*>(g), reinterpret_cast<const char*>(out));
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Vector against vector at the destination's element size; `Signed` picks the
// lane type's sign.
template <bool Signed, typename Op>
aarch64_decode_rc compare_zz(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm, Op op) {
  return fast::by_size(pd.size, [&](auto lane) {
    using T = std::conditional_t<Signed, std::make_signed_t<decltype(lane)>, decltype(lane)>;
    return compare<T>(cs, pd, pg, zn, fast::load_q<T>(cs->z[zm.number]), op);
  });
}

// Vector against an immediate: a signed value in -16..15 or an unsigned one in
// 0..127, compared with the lane at its own sign.
template <bool Signed, typename Imm, typename Op>
aarch64_decode_rc compare_zi(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn, Imm imm, Op op) {
  return fast::by_size(pd.size, [&](auto lane) {
    using T = std::conditional_t<Signed, std::make_signed_t<decltype(lane)>, decltype(lane)>;
    // Every immediate fits the narrowest lane, so the compare is at the lane's width.
    return compare<T>(cs, pd, pg, zn, fast::splat_q<T>(static_cast<T>(imm)), op);
  });
}

// The generic road: lane i of `a` against second(i), each lane's lowest
// predicate bit set when it holds, then PredSetNZCV at the lane's width.
template <typename T, typename Second, typename Op>
PredV compare_generic(const PredV& g, const VecV& a, CpuContext* c, Second second, Op op) {
  PredV r{};
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i)
    if (generic::active<T>(g, i) && op(generic::lane<T>(a, i), second(i)))
      r.w[i * sizeof(T) / 64] |= uint64_t{1} << (i * sizeof(T) % 64);
  PredSetNZCV(g, r, 8 * sizeof(T), c);
  return r;
}

// Wide: the lane, extended to 64 bits with its sign, against the 64-bit
// element of `b` that covers it.
template <typename T, typename Op>
PredV compare_wide(const PredV& g, const VecV& a, const VecV& b, CpuContext* c, Op op) {
  using W = std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>;
  return compare_generic<T>(g, a, c, [&b](unsigned i) { return generic::lane<W>(b, i * sizeof(T) / 8); },
                            [op](T x, W y) { return op(static_cast<W>(x), y); });
}

}  // namespace

extern "C" {

#define QUERN_CMP_ZZ(NAME, SIGNED, OP)                                                                              \
  aarch64_decode_rc sve_##NAME##_ppzz(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn,      \
                                      aarch64_z_reg zm) {                                                       \
    return compare_zz<SIGNED>(cs, pd, pg, zn, zm, OP{});                                                        \
  }
QUERN_CMP_ZZ(cmpeq, true, eq_op)
QUERN_CMP_ZZ(cmpne, true, ne_op)
QUERN_CMP_ZZ(cmpge, true, ge_op)
QUERN_CMP_ZZ(cmpgt, true, gt_op)
QUERN_CMP_ZZ(cmphs, false, ge_op)
QUERN_CMP_ZZ(cmphi, false, gt_op)
#undef QUERN_CMP_ZZ

#define QUERN_CMP_ZI(NAME, SIGNED, IMM, OP)                                                                         \
  aarch64_decode_rc sve_##NAME##_ppzi(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_z_reg zn,      \
                                      IMM imm) {                                                                \
    return compare_zi<SIGNED>(cs, pd, pg, zn, imm, OP{});                                                       \
  }
QUERN_CMP_ZI(cmpeq, true, int, eq_op)
QUERN_CMP_ZI(cmpne, true, int, ne_op)
QUERN_CMP_ZI(cmpgt, true, int, gt_op)
QUERN_CMP_ZI(cmple, true, int, le_op)
QUERN_CMP_ZI(cmplt, true, int, lt_op)
QUERN_CMP_ZI(cmphi, false, unsigned int, gt_op)
QUERN_CMP_ZI(cmplo, false, unsigned int, lt_op)
#undef QUERN_CMP_ZI

// Generic immediate forms: Vec<S|U><bits>CmpFlg<GE|LE>VIZ.
#define QUERN_CMP_VI(TY, T, IMM, COND, OP)                                                                  \
  PredV Vec##TY##CmpFlg##COND##VIZ(PredV g, VecV a, IMM imm, CpuContext* c) {                           \
    using W = std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>;                               \
    return compare_generic<T>(g, a, c, [imm](unsigned) { return static_cast<W>(imm); }, OP{});          \
  }
// Wide forms: Vec<S|U><bits>CmpFlg<cond>VWZ.
#define QUERN_CMP_VW(TY, T, COND, OP)                                                                       \
  PredV Vec##TY##CmpFlg##COND##VWZ(PredV g, VecV a, VecV b, CpuContext* c) {                            \
    return compare_wide<T>(g, a, b, c, OP{});                                                           \
  }
#define QUERN_CMP_SIZE(BITS)                                                                                \
  QUERN_CMP_VI(S##BITS, int##BITS##_t, int64_t, GE, ge_op)                                                  \
  QUERN_CMP_VI(U##BITS, uint##BITS##_t, uint64_t, GE, ge_op)                                                \
  QUERN_CMP_VI(U##BITS, uint##BITS##_t, uint64_t, LE, le_op)
#define QUERN_CMP_WIDE(BITS)                                                                                \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, EQ, eq_op)                                                           \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, NE, ne_op)                                                           \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, GE, ge_op)                                                           \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, GT, gt_op)                                                           \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, LT, lt_op)                                                           \
  QUERN_CMP_VW(S##BITS, int##BITS##_t, LE, le_op)                                                           \
  QUERN_CMP_VW(U##BITS, uint##BITS##_t, GE, ge_op)                                                          \
  QUERN_CMP_VW(U##BITS, uint##BITS##_t, GT, gt_op)                                                          \
  QUERN_CMP_VW(U##BITS, uint##BITS##_t, LT, lt_op)                                                          \
  QUERN_CMP_VW(U##BITS, uint##BITS##_t, LE, le_op)

QUERN_CMP_SIZE(8)
QUERN_CMP_SIZE(16)
QUERN_CMP_SIZE(32)
QUERN_CMP_SIZE(64)
QUERN_CMP_WIDE(8)
QUERN_CMP_WIDE(16)
QUERN_CMP_WIDE(32)
#undef QUERN_CMP_WIDE
#undef QUERN_CMP_SIZE
#undef QUERN_CMP_VW
#undef QUERN_CMP_VI

}  // extern "C"
