// WHILELT, WHILELO, WHILELS (fast) and WHILELE (generic): a loop-control
// predicate from two general registers.
//
// Lane e is active while the counter a + e, stepping by one per lane, still
// satisfies the comparison with b; once a lane fails all higher lanes are
// inactive. The counter wraps at the register width, as the architecture's
// does: LT and LO fail when it reaches b, before any wrap, and LE and LS fail
// when it passes b, which it cannot when b is the top of its range, so then
// every lane is active. That makes the active run a closed form, computed
// here at the register width for both roads.

#include <limits>
#include <type_traits>

#include "decode_decls.h"
#include "sve/predicate/pred_flags.h"
#include "sve/predicate/pred_lanes.h"
#include "sve/predicate/pred_while.h"

namespace {

// Number of leading active lanes among `lanes`, for the register type R
// (int32_t, uint32_t, int64_t, uint64_t) and a comparison with or without
// equality.
template <typename R, bool or_equal>
uint64_t while_count(uint64_t a_reg, uint64_t b_reg, uint64_t lanes) {
  using U = std::make_unsigned_t<R>;
  const R a = static_cast<R>(static_cast<U>(a_reg));
  const R b = static_cast<R>(static_cast<U>(b_reg));
  if (or_equal && b == std::numeric_limits<R>::max()) return lanes;
  if (or_equal ? !(a <= b) : !(a < b)) return 0;
  // b - a fits in U since a <= b; LE and LS take one lane more.
  const uint64_t d = static_cast<U>(static_cast<U>(b) - static_cast<U>(a));
  const uint64_t run = or_equal ? d + 1 : d;   // d + 1 cannot wrap: b is below the top
  return run < lanes ? run : lanes;
}

// Lanes 0..count-1 of E bytes set to 1, every other predicate byte 0, then the
// flags as PTEST with an all-true governing predicate: N = lane 0 active,
// Z = none active, C = the top lane inactive.
// The predicate is a 48-byte window into a register's worth of lanes followed
// by a register's worth of zeros, so that it is one copy whatever the count.
template <unsigned E>
struct run_pattern {
  unsigned char bytes[2 * kVecBytes] = {};
  constexpr run_pattern() {
    for (unsigned i = 0; i < kVecBytes; i += E) bytes[i] = 1;
  }
};

template <unsigned E>
aarch64_decode_rc write_run(cpu_state* cs, aarch64_p_reg pd, uint64_t count) {
  constexpr unsigned lanes = kVecBytes / E;
  static constexpr run_pattern<E> kPattern{};
  std::memcpy(cs->p[pd.number], kPattern.bytes + kVecBytes - count * E, kVecBytes);
  set_nzcv(cs, count == 0 ? kFlagZ | kFlagC : count == lanes ? kFlagN : kFlagN | kFlagC);
  return AARCH64_DECODE_OK;
}

// W or X view (the first source's size), then the element size.
template <typename R32, typename R64, bool or_equal>
aarch64_decode_rc while_prr(cpu_state* cs, aarch64_p_reg pd, aarch64_i_reg rn, aarch64_i_reg rm) {
  const uint64_t a = read_x(cs, rn), b = read_x(cs, rm);
  const auto count = [&](uint64_t lanes) {
    return rn.size == kRX ? while_count<R64, or_equal>(a, b, lanes) : while_count<R32, or_equal>(a, b, lanes);
  };
  switch (pd.size) {
    case kPH: return write_run<2>(cs, pd, count(24));
    case kPS: return write_run<4>(cs, pd, count(12));
    case kPD: return write_run<8>(cs, pd, count(6));
    default: return write_run<1>(cs, pd, count(48));
  }
}

// The generic routine: lanes from the vector length, each element's group of
// predicate bits cleared and its lowest bit set for the active run, flags
// against an all-true mask.
template <typename R, bool or_equal, unsigned E>
PredV while_ss(uint64_t a, uint64_t b, CpuContext* c) {
  const unsigned bytes = pred::vl_bytes(c);
  const uint64_t count = while_count<R, or_equal>(a, b, bytes / E);
  PredV r{};
  for (unsigned e = 0; e < count; ++e) pred::set_bit(r, e * E, true);
  PredSetNZCV(pred::vl_mask(c), r, 8 * E, c);
  return r;
}

}  // namespace

extern "C" {

aarch64_decode_rc sve_whilelt_prr(cpu_state* cs, aarch64_p_reg pd, aarch64_i_reg rn, aarch64_i_reg rm) {
  return while_prr<int32_t, int64_t, false>(cs, pd, rn, rm);
}
aarch64_decode_rc sve_whilelo_prr(cpu_state* cs, aarch64_p_reg pd, aarch64_i_reg rn, aarch64_i_reg rm) {
  return while_prr<uint32_t, uint64_t, false>(cs, pd, rn, rm);
}
aarch64_decode_rc sve_whilels_prr(cpu_state* cs, aarch64_p_reg pd, aarch64_i_reg rn, aarch64_i_reg rm) {
  return while_prr<uint32_t, uint64_t, true>(cs, pd, rn, rm);
}

// Vec<S|U><esize>While<4|8><LT|LE>SS. Only the signed LE forms have rows of
// their own; the others are the generic twins of the fast handlers.
#define QUERN_WHILE(TY, BITS, CMP, EQ, R32, R64)                                 \
  PredV Vec##TY##BITS##While4##CMP##SS(uint64_t a, uint64_t b, CpuContext* c) {  \
    return while_ss<R32, EQ, BITS / 8>(a, b, c);                                 \
  }                                                                              \
  PredV Vec##TY##BITS##While8##CMP##SS(uint64_t a, uint64_t b, CpuContext* c) {  \
    return while_ss<R64, EQ, BITS / 8>(a, b, c);                                 \
  }
#define QUERN_WHILE_ALL(BITS)                                                    \
  QUERN_WHILE(S, BITS, LT, false, int32_t, int64_t)                              \
  QUERN_WHILE(S, BITS, LE, true, int32_t, int64_t)                               \
  QUERN_WHILE(U, BITS, LT, false, uint32_t, uint64_t)                            \
  QUERN_WHILE(U, BITS, LE, true, uint32_t, uint64_t)
QUERN_WHILE_ALL(8)
QUERN_WHILE_ALL(16)
QUERN_WHILE_ALL(32)
QUERN_WHILE_ALL(64)
#undef QUERN_WHILE_ALL
#undef QUERN_WHILE

}  // extern "C"
