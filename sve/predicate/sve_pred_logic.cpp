// Predicate logic (AND, BIC, EOR, ORR, NOR, NAND, ORN and their flag-setting
// forms), SEL, PFALSE, PTRUE, PTRUES, CNTP and the first-fault register.
//
// The fast handlers work on whole predicate bytes, eight at a time; the
// flag-setting forms, NAND and ORN go down the generic road on packed bits.

#include "decode_decls.h"
#include "sve/lib/int_helpers.h"
#include "sve/predicate/pred_flags.h"
#include "sve/predicate/pred_lanes.h"

extern "C" aarch64_decode_rc sve_not_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn);

namespace {

using pred::word;
using pred::set_word;

// Byte-wise operations on eight predicate bytes at once. Active bytes take
// op(Pn, Pm) on whole bytes; inactive ones are 0 when zeroing (qualifier 5,
// which every adapter passes) and keep the old Pd otherwise.
template <typename Op>
aarch64_decode_rc logic_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm, Op op) {
  const bool zeroing = pg.size == kPZero;
  unsigned char out[kVecBytes];
  for (unsigned k = 0; k < pred::kWords; ++k) {
    const uint64_t g = pred::active_bytes(word(cs->p[pg.number], k));
    const uint64_t keep = zeroing ? 0 : word(cs->p[pd.number], k) & ~g;
    set_word(out, k, (op(word(cs->p[pn.number], k), word(cs->p[pm.number], k)) & g) | keep);
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

struct and_op { uint64_t operator()(uint64_t n, uint64_t m) const { return n & m; } };
struct bic_op { uint64_t operator()(uint64_t n, uint64_t m) const { return n & ~m; } };
struct eor_op { uint64_t operator()(uint64_t n, uint64_t m) const { return n ^ m; } };
struct orr_op { uint64_t operator()(uint64_t n, uint64_t m) const { return n | m; } };
struct nor_op { uint64_t operator()(uint64_t n, uint64_t m) const { return pred::zero_bytes(n | m); } };
struct not_op { uint64_t operator()(uint64_t n, uint64_t) const { return ~n & pred::kByteOnes; } };

// The same operations on packed bits, for the generic road.
struct nand_op { uint64_t operator()(uint64_t n, uint64_t m) const { return ~(n & m); } };
struct orn_op { uint64_t operator()(uint64_t n, uint64_t m) const { return n | ~m; } };
struct nor_bits_op { uint64_t operator()(uint64_t n, uint64_t m) const { return ~(n | m); } };

// Pd = op(Pn, Pm) under Pg, zero elsewhere and beyond the vector length.
template <typename Op>
PredV logic_packed(const PredV& g, const PredV& n, const PredV& m, const CpuContext* c, Op op) {
  const PredV in = pred::vl_mask(c);
  PredV r{};
  for (unsigned k = 0; k < kPredVWords; ++k) r.w[k] = op(n.w[k], m.w[k]) & g.w[k] & in.w[k];
  return r;
}

template <typename Op>
PredV logic_flags(const PredV& g, const PredV& n, const PredV& m, CpuContext* c, Op op) {
  const PredV r = logic_packed(g, n, m, c, op);
  PredSetNZCV(g, r, 8, c);
  return r;
}

}  // namespace

extern "C" {

aarch64_decode_rc sve_and_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return logic_pppp(cs, pd, pg, pn, pm, and_op{});
}
aarch64_decode_rc sve_bic_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return logic_pppp(cs, pd, pg, pn, pm, bic_op{});
}
aarch64_decode_rc sve_eor_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return logic_pppp(cs, pd, pg, pn, pm, eor_op{});
}
aarch64_decode_rc sve_orr_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return logic_pppp(cs, pd, pg, pn, pm, orr_op{});
}
aarch64_decode_rc sve_nor_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  return logic_pppp(cs, pd, pg, pn, pm, nor_op{});
}
// NOT is EOR with an all-true operand in the encoding; this handler has no row.
aarch64_decode_rc sve_not_ppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn) {
  return logic_pppp(cs, pd, pg, pn, pn, not_op{});
}

// Pd = Pg ? Pn : Pm, byte by byte; no flags.
aarch64_decode_rc sve_sel_pppp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg, aarch64_p_reg pn, aarch64_p_reg pm) {
  unsigned char out[kVecBytes];
  for (unsigned k = 0; k < pred::kWords; ++k) {
    const uint64_t g = pred::active_bytes(word(cs->p[pg.number], k));
    set_word(out, k, (word(cs->p[pn.number], k) & g) | (word(cs->p[pm.number], k) & ~g));
  }
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_pfalse_p(cpu_state* cs, aarch64_p_reg pd) {
  std::memset(cs->p[pd.number], 0, kVecBytes);
  return AARCH64_DECODE_OK;
}

// The first VecTrueILength(pattern, lanes) lanes set, as values of the lane's
// width: the other predicate bytes of every lane are cleared.
aarch64_decode_rc sve_ptrue_pi(cpu_state* cs, aarch64_p_reg pd, unsigned int pattern) {
  const unsigned e = pd.size == kPH ? 2 : pd.size == kPS ? 4 : pd.size == kPD ? 8 : 1;
  const int count = VecTrueILength(static_cast<int>(pattern & 31), static_cast<int>(kVecBytes / e));
  unsigned char out[kVecBytes] = {};
  for (int i = 0; i < count; ++i) out[i * e] = 1;
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// Xd = the number of lanes active in both Pg and Pn, at Pn's element size.
aarch64_decode_rc sve_cntp_rpp(cpu_state* cs, aarch64_i_reg xd, aarch64_p_reg pg, aarch64_p_reg pn) {
  const uint64_t lanes = lane_bytes_of(pn.size);
  write_x(cs, xd, static_cast<uint64_t>(__builtin_popcountll(pred_bits(cs->p[pg.number], lanes) & pred_bits(cs->p[pn.number], lanes))));
  return AARCH64_DECODE_OK;
}

// Generic routines of the flag-setting forms and of NAND and ORN.
#define QUERN_PRED_LOGIC(NAME, OP)                                                  \
  PredV VecP##NAME##FlgPPZ(PredV g, PredV n, PredV m, CpuContext* c) {              \
    return logic_flags(g, n, m, c, OP{});                                           \
  }
QUERN_PRED_LOGIC(And, and_op)
QUERN_PRED_LOGIC(Bic, bic_op)
QUERN_PRED_LOGIC(Xor, eor_op)
QUERN_PRED_LOGIC(Or, orr_op)
QUERN_PRED_LOGIC(Nor, nor_bits_op)
QUERN_PRED_LOGIC(Nand, nand_op)
QUERN_PRED_LOGIC(OrN, orn_op)
#undef QUERN_PRED_LOGIC

PredV VecPNandPPZ(PredV g, PredV n, PredV m, CpuContext* c) { return logic_packed(g, n, m, c, nand_op{}); }
PredV VecPOrNPPZ(PredV g, PredV n, PredV m, CpuContext* c) { return logic_packed(g, n, m, c, orn_op{}); }

// PTRUES: the lanes of PTRUE at the context's vector length, with flags that
// test the result under itself.
#define QUERN_PTRUES(BITS)                                                        \
  PredV VecP##BITS##TrueFlgI(uint64_t pattern, CpuContext* c) {                  \
    constexpr unsigned e = BITS / 8;                                             \
    const int lanes = static_cast<int>(pred::vl_bytes(c) / e);                   \
    const int count = VecTrueILength(static_cast<int>(pattern & 31), lanes);     \
    PredV r{};                                                                   \
    for (int i = 0; i < count; ++i) pred::set_bit(r, static_cast<unsigned>(i) * e, true); \
    PredSetNZCV(r, r, BITS, c);                                                  \
    return r;                                                                    \
  }
QUERN_PTRUES(8)
QUERN_PTRUES(16)
QUERN_PTRUES(32)
QUERN_PTRUES(64)
#undef QUERN_PTRUES

// ---- the first-fault register ---------------------------------------------
// SETFFR sets every bit (no fault recorded). WRFFR copies its operand as it
// stands, whether or not it is a run of set bits from bit 0.

aarch64_decode_rc sve_setffr(cpu_state* cs) {
  std::memset(cs->ffr, 1, kVecBytes);
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_rdffr_p(cpu_state* cs, aarch64_p_reg pd) {
  std::memcpy(cs->p[pd.number], cs->ffr, kVecBytes);
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_rdffr_pp(cpu_state* cs, aarch64_p_reg pd, aarch64_p_reg pg) {
  unsigned char out[kVecBytes];
  for (unsigned k = 0; k < pred::kWords; ++k) set_word(out, k, word(cs->ffr, k) & word(cs->p[pg.number], k));
  std::memcpy(cs->p[pd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}
aarch64_decode_rc sve_wrffr_p(cpu_state* cs, aarch64_p_reg pn) {
  std::memcpy(cs->ffr, cs->p[pn.number], kVecBytes);
  return AARCH64_DECODE_OK;
}
PredV VecPActualFlgP(PredV g, CpuContext* c) {
  const PredV in = pred::vl_mask(c);
  PredV r{};
  for (unsigned k = 0; k < kPredVWords; ++k) r.w[k] = c->ffr.w[k] & g.w[k] & in.w[k];
  PredSetNZCV(g, r, 8, c);
  return r;
}

}  // extern "C"
