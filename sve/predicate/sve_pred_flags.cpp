// The predicate flag setters of both roads and the active-element searches.

#include "decode_decls.h"
#include "sve/predicate/pred_flags.h"

template <typename T>
void sve_ptest(cpu_state* cs, const char* g, const char* r) {
  constexpr uint64_t lanes = kLaneBytes<sizeof(T)>;
  const auto* gb = reinterpret_cast<const unsigned char*>(g);
  const auto* rb = reinterpret_cast<const unsigned char*>(r);
  set_nzcv(cs, nzcv_of_bits(pred_bits(gb, lanes), pred_bits(rb, lanes)));
}

template void sve_ptest<signed char>(cpu_state*, const char*, const char*);
template void sve_ptest<short>(cpu_state*, const char*, const char*);
template void sve_ptest<int>(cpu_state*, const char*, const char*);
template void sve_ptest<long>(cpu_state*, const char*, const char*);
template void sve_ptest<unsigned char>(cpu_state*, const char*, const char*);
template void sve_ptest<unsigned short>(cpu_state*, const char*, const char*);
template void sve_ptest<unsigned int>(cpu_state*, const char*, const char*);
template void sve_ptest<unsigned long>(cpu_state*, const char*, const char*);

namespace {

// The elements of a packed predicate at `esize` bits: element e owns the
// predicate bits from e * esize / 8 upward, `mask` of them.
struct Elements {
  unsigned n = 0;       // element count, limited to what a PredV holds
  unsigned step = 0;    // predicate bits per element
  uint64_t mask = 0;    // 1, 3, 15, 255 for 8, 16, 32, 64 bits

  Elements(int esize, const CpuContext* c) {
    if (esize <= 0) return;
    step = static_cast<unsigned>(esize) / 8;
    mask = ((uint64_t{1} << (step < 8 ? step : 8)) - 1) & 0xFF;
    const uint64_t count = uint64_t{ctx_vl(c)} * 64 / static_cast<unsigned>(esize);
    const uint64_t room = step ? (kPredVWords * 64 + step - 1) / step : 0;
    n = static_cast<unsigned>(count < room ? count : room);
  }
  // All the element's predicate bits (those that the PredV holds).
  uint64_t bits(const PredV& p, unsigned e) const {
    const unsigned pos = e * step;
    return (p.w[pos / 64] >> (pos % 64)) & mask;
  }
  bool lowest(const PredV& p, unsigned e) const { return bits(p, e) & 1; }
};

int first_active(const PredV& g, const Elements& el) {
  for (unsigned e = 0; e < el.n; ++e)
    if (el.lowest(g, e)) return static_cast<int>(e);
  return -1;
}
int last_active(const PredV& g, const Elements& el) {
  for (unsigned e = el.n; e-- > 0;)
    if (el.lowest(g, e)) return static_cast<int>(e);
  return -1;
}

void put(CpuContext* c, uint32_t which, uint32_t flags) { c->nzcv = (c->nzcv & ~which) | (flags & which); }

// N and C from the first and last elements active in g, when there is one.
uint32_t n_c(const PredV& r, const Elements& el, int first, int last) {
  uint32_t f = 0;
  if (first >= 0 && el.lowest(r, static_cast<unsigned>(first))) f |= kFlagN;
  if (last < 0 || el.bits(r, static_cast<unsigned>(last)) == 0) f |= kFlagC;
  return f;
}

bool any_true(const PredV& g, const PredV& r, const Elements& el) {
  for (unsigned e = 0; e < el.n; ++e)
    if (el.lowest(g, e) && el.bits(r, e)) return true;
  return false;
}

}  // namespace

void PredSetNZC(PredV mask, PredV result, int esize, CpuContext* c) {
  const Elements el(esize, c);
  if (el.n < 1 || !any_true(mask, result, el)) return put(c, kFlagN | kFlagZ | kFlagC, kFlagZ | kFlagC);
  put(c, kFlagN | kFlagZ | kFlagC, n_c(result, el, first_active(mask, el), last_active(mask, el)));
}

void PredSetNZCV(PredV mask, PredV result, int esize, CpuContext* c) {
  PredSetNZC(mask, result, esize, c);
  c->nzcv &= ~kFlagV;
}

void PredSetNC(PredV mask, PredV result, int esize, CpuContext* c) {
  const Elements el(esize, c);
  const int first = first_active(mask, el);
  if (first < 0) return;
  put(c, kFlagN | kFlagC, n_c(result, el, first, last_active(mask, el)));
}

void PredSetNCV(PredV mask, PredV result, int esize, CpuContext* c) {
  const Elements el(esize, c);
  if (el.n < 1 || !any_true(mask, result, el)) put(c, kFlagN | kFlagC, kFlagC);
  else put(c, kFlagN | kFlagC, n_c(result, el, first_active(mask, el), last_active(mask, el)));
  c->nzcv &= ~kFlagV;
}

int FindFirstActive(PredV p, int esize, CpuContext* c) { return first_active(p, Elements(esize, c)); }
int FindLastActive(PredV p, int esize, CpuContext* c) { return last_active(p, Elements(esize, c)); }

// PTEST has no element size: it tests at byte lanes.
extern "C" aarch64_decode_rc sve_ptest_pp(cpu_state* cs, aarch64_p_reg pg, aarch64_p_reg pn) {
  sve_ptest<signed char>(cs, reinterpret_cast<const char*>(cs->p[pg.number]),
                         reinterpret_cast<const char*>(cs->p[pn.number]));
  return AARCH64_DECODE_OK;
}

// The generic twin of PTEST, which no row reaches.
extern "C" void VecPTestPZ(PredV g, PredV r, CpuContext* c) { PredSetNZCV(g, r, 8, c); }
