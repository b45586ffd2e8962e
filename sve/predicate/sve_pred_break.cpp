// Breaks (BRKA, BRKB, BRKN, BRKPA, BRKPB and their flag-setting forms), PNEXT
// and PFIRST.
//
// Fast handlers build the result in a 48-byte scratch area and copy it to the
// destination at the end, so that the destination may be any source.

#include <type_traits>

#include "decode_decls.h"
#include "sve/predicate/pred_flags.h"
#include "sve/predicate/pred_lanes.h"

extern "C" {
aarch64_decode_rc sve_brkn(cpu_state* cs, aarch64_p_reg pdm, aarch64_p_reg pg, aarch64_p_reg pn, bool set_flags);
aarch64_decode_rc sve_brkpb(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm,
                            bool set_flags);
}

namespace {

const char* as_chars(const unsigned char* p) { return reinterpret_cast<const char*>(p); }

// The last byte lane with bit 0 set, -1 if none.
int last_active_byte(const unsigned char* p) {
  const uint64_t bits = pred_bits(p);
  return bits ? 63 - __builtin_clzll(bits) : -1;
}

// BRKA (after = true) keeps the lane of the first true Pn active; BRKB does not.
// Inactive lanes are 0 when zeroing and keep the old Pd when merging.
// On the 48 lanes as bits: the active lanes below the first active true Pn
// (up to it, for BRKA), then back to bytes eight lanes at a time.
aarch64_decode_rc brk_ab(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, bool after) {
  const unsigned char* d = cs->p[pd.number];
  const uint64_t g = pred_bits(cs->p[pg.number]), stop = g & pred_bits(cs->p[pn.number]);
  const uint64_t below = stop ? (stop & (0 - stop)) - 1 : ~uint64_t(0);   // the lanes before the first stop
  const uint64_t keep = g & (after ? below | (stop & (0 - stop)) : below);
  const bool zeroing = pg.size == kPZero;
  unsigned char out[kVecBytes];
#pragma GCC unroll 6
  for (unsigned k = 0; k < pred::kWords; ++k) {
    const uint64_t kept = pred_detail::kSpread.v[(keep >> (8 * k)) & 0xFFu];
    const uint64_t inactive = ~(pred_detail::kSpread.v[(g >> (8 * k)) & 0xFFu] * 0xFF);
    pred::set_word(out, k, zeroing ? kept : kept | (pred::word(d, k) & inactive));
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// BRKA and BRKB at zeroing, on packed predicates: the active lanes up to the
// first true `stop`, that lane included (after) or not.
PredV brk_ab_packed(const PredV& g, const PredV& stop, const CpuContext* c, bool after) {
  PredV r{};
  bool running = true;
  const unsigned bytes = pred::vl_bytes(c);
  for (unsigned i = 0; i < bytes; ++i) {
    if (!pred::get_bit(g, i)) continue;
    if (!after) running = running && !pred::get_bit(stop, i);
    pred::set_bit(r, i, running);
    if (after) running = running && !pred::get_bit(stop, i);
  }
  return r;
}

// BRKPA and BRKPB: all false unless Pn is true at the last lane active in Pg;
// then the break of Pm.
PredV brk_prev_packed(const PredV& g, const PredV& n, const PredV& m, const CpuContext* c, bool after) {
  int last = -1;
  for (unsigned i = 0, bytes = pred::vl_bytes(c); i < bytes; ++i)
    if (pred::get_bit(g, i)) last = static_cast<int>(i);
  if (last < 0 || !pred::get_bit(n, static_cast<unsigned>(last))) return PredV{};
  return brk_ab_packed(g, m, c, after);
}

// PNEXT at lanes of E bytes: the first lane active in Pg above the last lane
// active in Pdn, alone.
template <unsigned E>
aarch64_decode_rc pnext(cpu_state* cs, aarch64_p_reg pdn, aarch64_p_reg pg) {
  constexpr uint64_t lanes = kLaneBytes<E>;
  const unsigned char* g = cs->p[pg.number];
  const uint64_t dn = pred_bits(cs->p[pdn.number], lanes);
  const unsigned start = dn ? 64 - __builtin_clzll(dn) : 0;   // byte after the last active lane
  const uint64_t above = start >= 64 ? 0 : pred_bits(g, lanes) & (~0ull << start);
  unsigned char out[kVecBytes] = {};
  if (above) out[__builtin_ctzll(above)] = 1;
  using T = std::conditional_t<E == 1, unsigned char,
            std::conditional_t<E == 2, unsigned short, std::conditional_t<E == 4, unsigned int, unsigned long>>>;
  sve_ptest<T>(cs, as_chars(g), as_chars(out));
  std::memcpy(cs->p[pdn.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

}  // namespace

extern "C" {

aarch64_decode_rc sve_brka_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn) {
  return brk_ab(cs, pd, pg, pn, true);
}
aarch64_decode_rc sve_brkb_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn) {
  return brk_ab(cs, pd, pg, pn, false);
}

// BRKN: Pdm stays as it is when Pn is true at the last lane active in Pg, and
// is cleared otherwise. BRKNS takes its flags from Pdm alone, as a test under
// an all-true predicate at byte lanes.
aarch64_decode_rc sve_brkn(cpu_state* cs, aarch64_p_reg pdm, aarch64_p_reg pg, aarch64_p_reg pn, bool set_flags) {
  const int last = last_active_byte(cs->p[pg.number]);
  if (last < 0 || !(cs->p[pn.number][last] & 1)) std::memset(cs->p[pdm.number], 0, kVecBytes);
  if (set_flags) set_nzcv(cs, nzcv_of_bits((uint64_t{1} << kVecBytes) - 1, pred_bits(cs->p[pdm.number])));
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_brkn_ppp(cpu_state* cs, aarch64_p_reg pdm, aarch64_p_reg pg, aarch64_p_reg pn) {
  return sve_brkn(cs, pdm, pg, pn, false);
}
aarch64_decode_rc sve_brkns_ppp(cpu_state* cs, aarch64_p_reg pdm, aarch64_p_reg pg, aarch64_p_reg pn) {
  return sve_brkn(cs, pdm, pg, pn, true);
}

// BRKPB: the flags, when set, come from Pg and the result, before the copy.
aarch64_decode_rc sve_brkpb(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm,
                            bool set_flags) {
  const unsigned char* g = cs->p[pg.number];
  const unsigned char* m = cs->p[pm.number];
  unsigned char out[kVecBytes] = {};
  const int last = last_active_byte(g);
  if (last >= 0 && (cs->p[pn.number][last] & 1)) {
    for (unsigned i = 0; i < kVecBytes; ++i) {
      if (!(g[i] & 1)) continue;
      if (m[i] & 1) break;
      out[i] = 1;
    }
  }
  if (set_flags) sve_ptest<signed char>(cs, as_chars(g), as_chars(out));
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_brkpb_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return sve_brkpb(cs, pd, pg, pn, pm, false);
}
aarch64_decode_rc sve_brkpbs_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return sve_brkpb(cs, pd, pg, pn, pm, true);
}

aarch64_decode_rc sve_pnext_pp(cpu_state* cs, aarch64_p_reg pdn, aarch64_p_reg pg) {
  switch (pdn.out_size) {
    case kPH: return pnext<2>(cs, pdn, pg);
    case kPS: return pnext<4>(cs, pdn, pg);
    case kPD: return pnext<8>(cs, pdn, pg);
    default: return pnext<1>(cs, pdn, pg);
  }
}

// Generic road.
PredV VecPBreakAFlgPZ(PredV g, PredV n, CpuContext* c) {
  const PredV r = brk_ab_packed(g, n, c, true);
  PredSetNZCV(g, r, 8, c);
  return r;
}
PredV VecPBreakBFlgPZ(PredV g, PredV n, CpuContext* c) {
  const PredV r = brk_ab_packed(g, n, c, false);
  PredSetNZCV(g, r, 8, c);
  return r;
}
PredV VecPBreakPrevAPZ(PredV g, PredV n, PredV m, CpuContext* c) { return brk_prev_packed(g, n, m, c, true); }
PredV VecPBreakPrevAFlgPZ(PredV g, PredV n, PredV m, CpuContext* c) {
  const PredV r = brk_prev_packed(g, n, m, c, true);
  PredSetNZCV(g, r, 8, c);
  return r;
}

// PFIRST: Pdn with the first lane active in Pg set; every other lane kept.
PredV VecPSetFirstActiveP(PredV g, PredV dn, CpuContext* c) {
  PredV r = dn;
  const int first = FindFirstActive(g, 8, c);
  if (first >= 0) pred::set_bit(r, static_cast<unsigned>(first), true);
  PredSetNZCV(g, r, 8, c);
  return r;
}

}  // extern "C"
