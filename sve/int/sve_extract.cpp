// Single elements in and out: LASTA, LASTB, CLASTA, CLASTB (general-register,
// SIMD&FP and vector forms), INSR, and the loop-termination compares CTERMEQ
// and CTERMNE.
//
// `last` is the highest active lane, -1 if none. The "after" forms wrap at the
// true lane count of the register: with the top lane active they read lane 0.

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"

namespace {

// Lane `last + 1`, wrapped (LASTA), or `last` (LASTB); with no active lane
// LASTA reads lane 0 and LASTB the top lane.
template <typename T>
uint64_t last_element(const PredV& p, const VecV& a, const CpuContext* c, bool after) {
  const unsigned n = generic::lane_count<T>(c);
  const int last = int2::last_active<T>(p, c);
  unsigned i;
  if (after) i = last < 0 || static_cast<unsigned>(last) + 1 >= n ? 0 : static_cast<unsigned>(last) + 1;
  else i = last < 0 ? n - 1 : static_cast<unsigned>(last);
  return int2::zext_lane<T>(a, i);
}

// CLASTA and CLASTB to a scalar: the old value, cut to the lane width, when no
// lane is active.
template <typename T>
uint64_t cond_element(const PredV& p, uint64_t old, const VecV& a, const CpuContext* c, bool after) {
  if (int2::last_active<T>(p, c) < 0) return static_cast<std::make_unsigned_t<T>>(old);
  return last_element<T>(p, a, c, after);
}

// The vector forms broadcast the element; with no active lane Zdn stays.
template <typename T>
VecV cond_vector(const PredV& p, const VecV& old, const VecV& a, const CpuContext* c, bool after) {
  if (int2::last_active<T>(p, c) < 0) return old;
  const T v = static_cast<T>(last_element<T>(p, a, c, after));
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) generic::set_lane<T>(r, i, v);
  return r;
}

template <typename T>
VecV insert(const VecV& a, uint64_t scalar, const CpuContext* c) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i + 1 < n; ++i) generic::set_lane<T>(r, i + 1, generic::lane<T>(a, i));
  generic::set_lane<T>(r, 0, static_cast<T>(scalar));
  return r;
}

// N set and V clear when the condition holds, else N clear and V = !C; Z and C stay.
void cterm(CpuContext* c, bool term) {
  constexpr uint32_t N = 1u << 31, C = 1u << 29, V = 1u << 28;
  uint32_t f = c->nzcv & ~(N | V);
  if (term) f |= N;
  else if (!(c->nzcv & C)) f |= V;
  c->nzcv = f;
}

// Highest active lane and the element it selects, on the fast road.
template <typename T>
int fast_last(const cpu_state* cs, aarch64_p_reg pg, aarch64_z_reg zn, uint64_t* value) {
  const int last = int2::last_active<T>(cs->p[pg.number]);
  const unsigned i = last < 0 ? fast::lanes<T> - 1 : static_cast<unsigned>(last);
  *value = fast::lane<T>(cs->z[zn.number], i);
  return last;
}

}  // namespace

extern "C" {

// ---- fast road --------------------------------------------------------------------

aarch64_decode_rc sve_lastb_rpz(cpu_state* cs, aarch64_i_reg rd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast::by_size(zn.size, [&](auto lane) {
    uint64_t v;
    fast_last<decltype(lane)>(cs, pg, zn, &v);
    write_x(cs, rd, v);
    return AARCH64_DECODE_OK;
  });
}
aarch64_decode_rc sve_lastb_vpz(cpu_state* cs, unsigned int vd, aarch64_p_reg pg, aarch64_z_reg zn) {
  return fast::by_size(zn.size, [&](auto lane) {
    uint64_t v;
    fast_last<decltype(lane)>(cs, pg, zn, &v);
    int2::put_scalar(cs, vd, v);
    return AARCH64_DECODE_OK;
  });
}
// The old value is read before anything else; with no active lane it comes
// back cut to the lane width.
aarch64_decode_rc sve_clastb_rpz(cpu_state* cs, aarch64_i_reg rdn, aarch64_p_reg pg, aarch64_z_reg zn) {
  const uint64_t old = read_x(cs, rdn);
  return fast::by_size(zn.size, [&](auto lane) {
    using T = decltype(lane);
    uint64_t v;
    if (fast_last<T>(cs, pg, zn, &v) < 0) v = static_cast<T>(old);
    write_x(cs, rdn, v);
    return AARCH64_DECODE_OK;
  });
}

// ---- generic road --------------------------------------------------------------------

#define QUERN_EXTRACT_SCALAR(T, TY)                                                                                       \
  uint64_t Vec##TY##LastAV(PredV p, VecV a, CpuContext* c) { return last_element<T>(p, a, c, true); }                    \
  uint64_t Vec##TY##CondXASV(PredV p, uint64_t old, VecV a, CpuContext* c) { return cond_element<T>(p, old, a, c, true); } \
  VecV Vec##TY##InsertS(VecV a, uint64_t s, CpuContext* c) { return insert<T>(a, s, c); }
// CLASTB to a general register is fast; its SIMD&FP form and the vector forms are here.
#define QUERN_EXTRACT_SIMD(T, TY)                                                                                          \
  QUERN_EXTRACT_SCALAR(T, TY)                                                                                              \
  uint64_t Vec##TY##CondXBSV(PredV p, uint64_t old, VecV a, CpuContext* c) { return cond_element<T>(p, old, a, c, false); }
#define QUERN_EXTRACT_GENERAL(T, TY)                                                                           \
  QUERN_EXTRACT_SCALAR(T, TY)                                                                                  \
  VecV Vec##TY##VCondXAVV(PredV p, VecV o, VecV a, CpuContext* c) { return cond_vector<T>(p, o, a, c, true); }  \
  VecV Vec##TY##VCondXBVV(PredV p, VecV o, VecV a, CpuContext* c) { return cond_vector<T>(p, o, a, c, false); }

QUERN_EXTRACT_GENERAL(uint8_t, U8)
QUERN_EXTRACT_GENERAL(uint16_t, U16)
QUERN_EXTRACT_GENERAL(uint32_t, U32)
QUERN_EXTRACT_GENERAL(uint64_t, U64)
QUERN_EXTRACT_SIMD(uint8_t, B8)
QUERN_EXTRACT_SIMD(uint16_t, H16)
QUERN_EXTRACT_SIMD(uint32_t, F32)
QUERN_EXTRACT_SIMD(uint64_t, D64)
#undef QUERN_EXTRACT_SCALAR
#undef QUERN_EXTRACT_SIMD
#undef QUERN_EXTRACT_GENERAL

// The operands at the instruction's width: the low word for the 32-bit forms.
void VecU32CTermEQ(uint64_t a, uint64_t b, CpuContext* c) { cterm(c, static_cast<uint32_t>(a) == static_cast<uint32_t>(b)); }
void VecU32CTermNE(uint64_t a, uint64_t b, CpuContext* c) { cterm(c, static_cast<uint32_t>(a) != static_cast<uint32_t>(b)); }
void VecU64CTermEQ(uint64_t a, uint64_t b, CpuContext* c) { cterm(c, a == b); }
void VecU64CTermNE(uint64_t a, uint64_t b, CpuContext* c) { cterm(c, a != b); }

}  // extern "C"
