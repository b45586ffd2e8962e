// Broadcast, copy, index and select: DUP (immediate, scalar, indexed), FDUP,
// CPY (immediate, general and SIMD&FP scalar), FCPY, INDEX, SEL and MOVPRFX.
// Nothing here computes except the INDEX ramp; FDUP and FCPY only copy the bit
// pattern that the adapter expanded.

#include <cstring>

#include "decode_decls.h"
#include "sve/int/int_lanes.h"

namespace {

// A value cut to the lane; signed immediates arrive sign-extended to 64 bits.
template <typename T>
inline T cut(uint64_t v) { return static_cast<T>(v); }

inline uint64_t sext64(int v) { return static_cast<uint64_t>(static_cast<int64_t>(v)); }

// base + i * step, modular at the lane width.
template <typename T>
inline aarch64_decode_rc index_ramp(cpu_state* cs, aarch64_z_reg zd, uint64_t base, uint64_t step) {
  unsigned char* d = cs->z[zd.number];
  for (unsigned i = 0; i < fast::lanes<T>; ++i) fast::set_lane<T>(d, i, cut<T>(base + i * step));
  return AARCH64_DECODE_OK;
}

inline aarch64_decode_rc index_any(cpu_state* cs, aarch64_z_reg zd, uint64_t base, uint64_t step) {
  return fast::by_size(zd.size, [&](auto lane) { return index_ramp<decltype(lane)>(cs, zd, base, step); });
}

}  // namespace

extern "C" {

aarch64_decode_rc sve_dup_zi(cpu_state* cs, aarch64_z_reg zd, int imm) {
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::fill<T>(cs, zd, cut<T>(sext64(imm)));
  });
}

// One fill of doublewords, the pattern repeated to 64 bits first: three fills
// at three widths are what GCC merges into a loop of library copies.
aarch64_decode_rc sve_fdup_zi(cpu_state* cs, aarch64_z_reg zd, aarch64_sve_fp_dup_imm imm) {
  uint64_t bits;
  switch (zd.size) {
    case kZH: bits = uint64_t{imm.half_bits} * 0x0001000100010001ull; break;
    case kZS: bits = uint64_t{imm.single_bits} * 0x0000000100000001ull; break;
    default: std::memcpy(&bits, &imm.double_value, sizeof bits);
  }
  return fast::fill<uint64_t>(cs, zd, bits);
}

aarch64_decode_rc sve_dup_zr(cpu_state* cs, aarch64_z_reg zd, aarch64_i_rsp_reg rn) {
  const uint64_t v = read_xsp(cs, rn);
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::fill<T>(cs, zd, cut<T>(v));
  });
}

// An index at or past the end of the register broadcasts zero. The source
// element is read before anything is written.
aarch64_decode_rc sve_dup_zzi(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, unsigned int index) {
  const unsigned esize = zd.size == kZQ ? 16u : zd.size == kZD ? 8u : zd.size == kZS ? 4u : zd.size == kZH ? 2u : 1u;
  unsigned char elem[16] = {};
  if (static_cast<uint64_t>(index) * esize < kVecBytes)
    for (unsigned b = 0; b < esize; ++b) elem[b] = cs->z[zn.number][index * esize + b];
  unsigned char out[kVecBytes];
  for (unsigned b = 0; b < kVecBytes; ++b) out[b] = elem[b & (esize - 1)];
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_cpy_zpi(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, int imm) {
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::fill_zp<T>(cs, zd, pg, cut<T>(sext64(imm)), pg.size == kPZero);
  });
}

aarch64_decode_rc sve_cpy_zpr(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_i_rsp_reg rn) {
  const uint64_t v = read_xsp(cs, rn);
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::fill_zp<T>(cs, zd, pg, cut<T>(v), false);
  });
}

aarch64_decode_rc sve_cpy_zpv(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, unsigned int vn) {
  const uint64_t v = fast::lane<uint64_t>(cs->z[vn & 31], 0);
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::fill_zp<T>(cs, zd, pg, cut<T>(v), false);
  });
}

// INDEX: general registers are read whole and cut to the lane with the rest.
aarch64_decode_rc sve_index_zii(cpu_state* cs, aarch64_z_reg zd, int base, int step) {
  return index_any(cs, zd, sext64(base), sext64(step));
}
aarch64_decode_rc sve_index_zir(cpu_state* cs, aarch64_z_reg zd, int base, aarch64_i_reg step) {
  return index_any(cs, zd, sext64(base), read_x(cs, step));
}
aarch64_decode_rc sve_index_zri(cpu_state* cs, aarch64_z_reg zd, aarch64_i_reg base, int step) {
  return index_any(cs, zd, read_x(cs, base), sext64(step));
}
aarch64_decode_rc sve_index_zrr(cpu_state* cs, aarch64_z_reg zd, aarch64_i_reg base, aarch64_i_reg step) {
  return index_any(cs, zd, read_x(cs, base), read_x(cs, step));
}

aarch64_decode_rc sve_sel_zpzz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::select_zp<T>(cs, zd, cs->p[pg.number], fast::load_q<T>(cs->z[zn.number]), fast::load_q<T>(cs->z[zm.number]));
  });
}

aarch64_decode_rc sve_movprfx_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  const bool zeroing = pg.size == kPZero;
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    return fast::select_zp<T>(cs, zd, cs->p[pg.number], fast::load_q<T>(cs->z[zn.number]),
                              zeroing ? fast::splat_q<T>(0) : fast::load_q<T>(cs->z[zd.number]));
  });
}

aarch64_decode_rc sve_movprfx_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn) {
  unsigned char v[kVecBytes];   // through a copy, so that Zd may be Zn
  std::memcpy(v, cs->z[zn.number], kVecBytes);
  std::memcpy(cs->z[zd.number], v, kVecBytes);
  return AARCH64_DECODE_OK;
}

// FCPY, the generic road: the immediate is the bit pattern at the lane width.
#define QUERN_FCPY(TY, T)                                                                            \
  VecV Vec##TY##DupIM(VecV d, PredV p, uint64_t imm, CpuContext* c) {                                \
    return generic::unary_vm<T>(d, p, d, c, [imm](T) { return static_cast<T>(imm); });               \
  }
QUERN_FCPY(F16, uint16_t)
QUERN_FCPY(F32, uint32_t)
QUERN_FCPY(D64, uint64_t)
#undef QUERN_FCPY

}  // extern "C"
