// The predicate permutes: ZIP1, ZIP2, UZP1, UZP2, TRN1, TRN2, REV, PUNPKLO,
// PUNPKHI. An element of a wider size moves all its predicate bits (bytes, in
// the byte-per-bit form) as a whole. ZIP1, ZIP2 and UZP1 share their movers
// with the Z-register forms.

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"

namespace {

element_size size_of(aarch64_p_reg pd) {
  const int32_t s = pd.size;
  return s == 1 || s == 2 || s == 3 ? static_cast<element_size>(s) : kElem8;
}

// The mover writes a temporary, copied to Pd last: Pd may be a source.
aarch64_decode_rc shuffle_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm,
                              void (*mover)(char*, char*, char*, element_size)) {
  char out[kVecBytes];
  mover(out, reinterpret_cast<char*>(cs->p[pn.number]), reinterpret_cast<char*>(cs->p[pm.number]), size_of(pd));
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Packed predicates: the `width` bits of an element starting at bit `at`.
uint64_t get_bits(const PredV& p, unsigned at, unsigned width) {
  uint64_t v = 0;
  for (unsigned b = 0; b < width; ++b) v |= uint64_t(pred_bit(p, at + b)) << b;
  return v;
}
void set_bits(PredV& p, unsigned at, unsigned width, uint64_t v) {
  for (unsigned b = 0; b < width; ++b) {
    const unsigned bit = at + b;
    const uint64_t m = uint64_t(1) << (bit % 64);
    p.w[bit / 64] = (v >> b) & 1u ? p.w[bit / 64] | m : p.w[bit / 64] & ~m;
  }
}

// result element j = pick(j) of (a ++ b), elements of sizeof(T) predicate bits.
template <typename T, typename Pick>
PredV permute(const PredV& a, const PredV& b, const CpuContext* c, Pick pick) {
  PredV r{};
  const unsigned n = generic::lane_count<T>(c);
  constexpr unsigned w = sizeof(T);
  for (unsigned j = 0; j < n; ++j) {
    const unsigned s = pick(j, n);
    const uint64_t v = s < n ? get_bits(a, s * w, w) : get_bits(b, (s - n) * w, w);
    set_bits(r, j * w, w, v);
  }
  return r;
}

// UZP2: element 2j + 1 of the concatenation. TRN1, TRN2: pairs from the even
// or odd element of each source.
template <typename T>
PredV uzp2(const PredV& a, const PredV& b, const CpuContext* c) {
  return permute<T>(a, b, c, [](unsigned j, unsigned) { return 2 * j + 1; });
}
template <typename T, unsigned Odd>
PredV trn(const PredV& a, const PredV& b, const CpuContext* c) {
  return permute<T>(a, b, c, [](unsigned j, unsigned n) { return (j & ~1u) + Odd + (j & 1u ? n : 0); });
}

}  // namespace

extern "C" {

aarch64_decode_rc sve_zip1_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm) {
  return shuffle_ppp(cs, pd, pn, pm, sve_zip1);
}
aarch64_decode_rc sve_zip2_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm) {
  return shuffle_ppp(cs, pd, pn, pm, sve_zip2);
}
aarch64_decode_rc sve_uzp1_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm) {
  return shuffle_ppp(cs, pd, pn, pm, sve_uzp1);
}

// TRN1 on bytes, each value reduced to bit 0. No row leads here: the TRN1 rows
// take the generic road.
aarch64_decode_rc sve_trn1_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, aarch64_p_reg pm) {
  unsigned char out[kVecBytes];
  for (unsigned k = 0; k < kVecBytes / 2; ++k) {
    out[2 * k] = cs->p[pn.number][2 * k] & 1u;
    out[2 * k + 1] = cs->p[pm.number][2 * k] & 1u;
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// REV: whole elements reversed, the bytes inside an element left in order.
aarch64_decode_rc sve_rev_pp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn) {
  const unsigned size = static_cast<unsigned>(size_of(pd));
  const unsigned lanes = kVecBytes >> size, bytes = 1u << size;
  unsigned char out[kVecBytes];
  for (unsigned b = 0; b < kVecBytes; ++b) out[b] = cs->p[pn.number][(lanes - 1 - b / bytes) * bytes + b % bytes];
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// PUNPKLO, PUNPKHI: each byte element of a half becomes a halfword element,
// its second predicate bit clear.
static aarch64_decode_rc punpk(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn, unsigned first) {
  unsigned char out[kVecBytes];
  for (unsigned i = 0; i < kVecBytes / 2; ++i) {
    out[2 * i] = cs->p[pn.number][first + i] & 1u;
    out[2 * i + 1] = 0;
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_punpklo_pp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn) { return punpk(cs, pd, pn, 0); }
aarch64_decode_rc sve_punpkhi_pp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pn) {
  return punpk(cs, pd, pn, kVecBytes / 2);
}

#define QUERN_PRED_PERMUTE(T, TY)                                                                    \
  PredV Vec##TY##Uzp2PP(PredV a, PredV b, CpuContext* c) { return uzp2<T>(a, b, c); }                \
  PredV Vec##TY##Trn1PP(PredV a, PredV b, CpuContext* c) { return trn<T, 0>(a, b, c); }              \
  PredV Vec##TY##Trn2PP(PredV a, PredV b, CpuContext* c) { return trn<T, 1>(a, b, c); }
QUERN_PRED_PERMUTE(uint8_t, P8)
QUERN_PRED_PERMUTE(uint16_t, P16)
QUERN_PRED_PERMUTE(uint32_t, P32)
QUERN_PRED_PERMUTE(uint64_t, P64)
#undef QUERN_PRED_PERMUTE

}  // extern "C"
