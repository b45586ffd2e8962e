// MUL, the multiply-accumulate forms MLA, MLS, MAD, MSB, SMULH and UMULH, the
// divisions SDIV, UDIV, SDIVR, UDIVR, the dot products SDOT and UDOT, and ADR.
//
// Products are modular at the lane width, so one signed instance serves both
// signs. Division never traps: a divisor of 0 gives 0, and the most negative
// value divided by -1 gives itself.

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"
#include "sve/lib/int_helpers.h"

namespace {

using int2::mul_mod;

struct mul_op {
  template <typename T> T operator()(T a, T b) const { return mul_mod(a, b); }
};
// op(old destination, X, Y) of the four accumulating forms. MLA and MLS are
// called with X = Zn, Y = Zm; MAD and MSB with X = Zm, Y = Za.
struct mla_op {
  template <typename T> T operator()(T da, T n, T m) const { return static_cast<T>(da + mul_mod(n, m)); }
};
struct mls_op {
  template <typename T> T operator()(T da, T n, T m) const { return static_cast<T>(da - mul_mod(n, m)); }
};
struct mad_op {
  template <typename T> T operator()(T dn, T m, T a) const { return static_cast<T>(a + mul_mod(dn, m)); }
};
struct msb_op {
  template <typename T> T operator()(T dn, T m, T a) const { return static_cast<T>(a - mul_mod(dn, m)); }
};

// The high half of the double-width product, signed or unsigned by the lane type.
struct mulh_op {
  template <typename T> T operator()(T a, T b) const {
    constexpr int n = static_cast<int>(int2::kBits<T>);
    constexpr int is_unsigned = std::is_signed_v<T> ? 0 : 1;
    using U = std::make_unsigned_t<T>;
    const s128 x = Int(static_cast<U>(a), n, is_unsigned), y = Int(static_cast<U>(b), n, is_unsigned);
    // The low 128 bits of the product are enough: the high lane half lies below them.
    const u128 product = static_cast<u128>(x) * static_cast<u128>(y);
    return static_cast<T>(bits(ShiftRightInt(static_cast<s128>(product), n)));
  }
};

template <typename T>
T divide(T n, T d) {
  if (d == 0) return 0;
  if constexpr (std::is_signed_v<T>) {
    using U = std::make_unsigned_t<T>;
    if (d == -1) return static_cast<T>(U(0) - static_cast<U>(n));
  }
  return static_cast<T>(n / d);
}
struct div_op {
  template <typename T> T operator()(T a, T b) const { return divide(a, b); }
};
struct divr_op {
  template <typename T> T operator()(T a, T b) const { return divide(b, a); }
};

// Division exists for words and doublewords only: code 3 is 64-bit, any other 32-bit.
template <typename T32, typename T64, typename Op>
aarch64_decode_rc div_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, Op op) {
  if (zdn.in_size == 3) return fast::binary_zpz<T64>(cs, zdn, pg, zm, op);
  return fast::binary_zpz<T32>(cs, zdn, pg, zm, op);
}

// Dot product: four narrow factors per result lane, summed with the accumulator
// at 64 bits and cut to the lane. `N` is the factor type, `group` gives the lane
// of the second vector whose four factors a result lane uses.
template <typename T, typename N, typename Group>
VecV dot(const VecV& a, const VecV& b, const VecV& acc, const CpuContext* c, Group group) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const unsigned g = group(i);
    uint64_t sum = static_cast<uint64_t>(generic::lane<T>(acc, i));
    for (unsigned j = 0; j < 4; ++j) {
      const int64_t x = generic::lane<N>(a, 4 * i + j);
      const int64_t y = generic::lane<N>(b, 4 * g + j);
      sum += static_cast<uint64_t>(x) * static_cast<uint64_t>(y);
    }
    generic::set_lane<T>(r, i, static_cast<T>(sum));
  }
  return r;
}

// Offset of an ADR lane: `Ext` picks the low word of the 64-bit lane, signed or unsigned.
template <typename T, typename Ext>
VecV lea(const VecV& a, const VecV& b, const CpuContext* c, unsigned factor) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const uint64_t off = static_cast<uint64_t>(static_cast<Ext>(generic::lane<T>(b, i)));
    generic::set_lane<T>(r, i, static_cast<T>(generic::lane<T>(a, i) + off * factor));
  }
  return r;
}

}  // namespace

extern "C" {

// ---- fast road ------------------------------------------------------------------

aarch64_decode_rc sve_mul_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, mul_op{}); });
}
// The immediate is sign-extended from 8 bits; converted to 64 bits it stays so.
aarch64_decode_rc sve_mul_zi(cpu_state* cs, aarch64_z_reg zdn, int imm) {
  const uint64_t wide = static_cast<uint64_t>(static_cast<int64_t>(imm));
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zi<decltype(lane)>(cs, zdn, wide, mul_op{}); });
}
aarch64_decode_rc sve_mla_zpzz(cpu_state* cs, aarch64_z_reg zda, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zda.in_size, [&](auto lane) { return int2::ternary_zpzz<decltype(lane)>(cs, zda, pg, zn, zm, mla_op{}); });
}
aarch64_decode_rc sve_mls_zpzz(cpu_state* cs, aarch64_z_reg zda, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zda.in_size, [&](auto lane) { return int2::ternary_zpzz<decltype(lane)>(cs, zda, pg, zn, zm, mls_op{}); });
}
aarch64_decode_rc sve_mad_zpzz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, aarch64_z_reg za) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return int2::ternary_zpzz<decltype(lane)>(cs, zdn, pg, zm, za, mad_op{}); });
}
aarch64_decode_rc sve_msb_zpzz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm, aarch64_z_reg za) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return int2::ternary_zpzz<decltype(lane)>(cs, zdn, pg, zm, za, msb_op{}); });
}
aarch64_decode_rc sve_sdiv_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return div_zpz<int32_t, int64_t>(cs, zdn, pg, zm, div_op{});
}
aarch64_decode_rc sve_udiv_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return div_zpz<uint32_t, uint64_t>(cs, zdn, pg, zm, div_op{});
}
aarch64_decode_rc sve_sdivr_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return div_zpz<int32_t, int64_t>(cs, zdn, pg, zm, divr_op{});
}
aarch64_decode_rc sve_udivr_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return div_zpz<uint32_t, uint64_t>(cs, zdn, pg, zm, divr_op{});
}

// ADR with packed offsets: Zd = Zn + (Zm << shift). The shift (bits 11..10) and
// the lane size (bit 22: doublewords, else words) come from the word itself.
aarch64_decode_rc sve_adr_scaled_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  const unsigned shift = (cs->encoding >> 10) & 3u;
  auto run = [&](auto lane) {
    using T = decltype(lane);
    const unsigned char* a = cs->z[zn.number];
    const unsigned char* b = cs->z[zm.number];
    unsigned char out[kVecBytes];
    for (unsigned i = 0; i < fast::lanes<T>; ++i)
      fast::set_lane<T>(out, i, static_cast<T>(fast::lane<T>(a, i) + (fast::lane<T>(b, i) << shift)));
    std::memcpy(cs->z[zd.number], out, kVecBytes);
    return AARCH64_DECODE_OK;
  };
  return (cs->encoding >> 22) & 1u ? run(uint64_t{}) : run(uint32_t{});
}

// ---- generic road ----------------------------------------------------------------

#define QUERN_MULH(T, TY) \
  VecV Vec##TY##MulHVVM(VecV a, PredV p, VecV b, CpuContext* c) { return generic::binary_vvm<T>(a, p, b, c, mulh_op{}); }
QUERN_MULH(int8_t, S8)
QUERN_MULH(int16_t, S16)
QUERN_MULH(int32_t, S32)
QUERN_MULH(int64_t, S64)
QUERN_MULH(uint8_t, U8)
QUERN_MULH(uint16_t, U16)
QUERN_MULH(uint32_t, U32)
QUERN_MULH(uint64_t, U64)
#undef QUERN_MULH

// Indexed: every result lane of a 128-bit segment takes the same group of the
// segment, (i & ~3) + index for words, (i & ~1) + index for doublewords.
#define QUERN_DOT(T, N, TY, SEG)                                                                  \
  VecV Vec##TY##DotVVVX(VecV a, VecV b, VecV acc, CpuContext* c) {                                \
    return dot<T, N>(a, b, acc, c, [](unsigned i) { return i; });                                 \
  }                                                                                               \
  VecV Vec##TY##DotVVVIX(VecV a, VecV b, VecV acc, uint64_t index, CpuContext* c) {               \
    return dot<T, N>(a, b, acc, c, [index](unsigned i) { return (i & ~(SEG - 1u)) + unsigned(index); }); \
  }
QUERN_DOT(uint32_t, int8_t, S32, 4)
QUERN_DOT(uint32_t, uint8_t, U32, 4)
QUERN_DOT(uint64_t, int16_t, S64, 2)
QUERN_DOT(uint64_t, uint16_t, U64, 2)
#undef QUERN_DOT

#define QUERN_LEA(F)                                                                                            \
  VecV VecU32LEA##F##VV(VecV a, VecV b, CpuContext* c) { return lea<uint32_t, uint32_t>(a, b, c, F); }          \
  VecV VecU64LEA##F##XVV(VecV a, VecV b, CpuContext* c) { return lea<uint64_t, int32_t>(a, b, c, F); }          \
  VecV VecU64LEA##F##YVV(VecV a, VecV b, CpuContext* c) { return lea<uint64_t, uint32_t>(a, b, c, F); }
QUERN_LEA(1)
QUERN_LEA(2)
QUERN_LEA(4)
QUERN_LEA(8)
#undef QUERN_LEA

}  // extern "C"
