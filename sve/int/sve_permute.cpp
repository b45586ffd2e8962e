// The permutes: TBL, ZIP1/2, UZP1/2, TRN1/2, EXT, REV, REVB, REVH, REVW,
// SPLICE, COMPACT and the unpacks.
//
// Lane counts of 48, 24, 12 and 6 are not powers of two: lanes are addressed
// by number, indices compared against the true count, never masked, and the
// half-way point (where ZIP2 and the HI unpacks start) is byte 24.

#include <type_traits>

#include "decode_decls.h"
#include "sve/int/int2_lanes.h"
#include "sve/lib/int_helpers.h"

namespace {

// Runs `body` with a lane type of the mover's element size, so that each lane
// moves as one fixed-size copy.
template <typename Body>
inline void by_element(element_size size, Body body) {
  switch (size) {
    case kElem16: body(uint16_t{}); break;
    case kElem32: body(uint32_t{}); break;
    case kElem64: body(uint64_t{}); break;
    default: body(uint8_t{}); break;
  }
}

// Result lane 2i and 2i + 1 from lane `from(i)` of each source (ZIP, TRN), or
// result lanes i and half + i from lane `from(i)` of a and b (UZP).
template <bool Interleave, typename From>
inline void pair_mover(char* dst, const char* a, const char* b, element_size size, From from) {
  by_element(size, [&](auto lane) {
    using T = decltype(lane);
    constexpr unsigned half = kVecBytes / 2 / sizeof(T);
    T out[2 * half];
    for (unsigned i = 0; i < half; ++i) {
      const unsigned k = from(i, half);
      std::memcpy(&out[Interleave ? 2 * i : i], a + k * sizeof(T), sizeof(T));
      std::memcpy(&out[Interleave ? 2 * i + 1 : half + i], b + k * sizeof(T), sizeof(T));
    }
    std::memcpy(dst, out, kVecBytes);
  });
}

// The fast handlers of the two-source shuffles: the result goes through a
// temporary, so that the destination may be either source.
template <typename Mover>
aarch64_decode_rc shuffle_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm, Mover mover) {
  char out[kVecBytes];
  const int32_t s = zd.size;
  const element_size size = s == 1 || s == 2 || s == 3 ? static_cast<element_size>(s) : kElem8;
  mover(out, reinterpret_cast<char*>(cs->z[zn.number]), reinterpret_cast<char*>(cs->z[zm.number]), size);
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// UZP2, TRN1 and TRN2 at 48 bytes; TRN2 takes the odd lane of each pair.
void uzp2_mover(char* dst, char* a, char* b, element_size size) {
  pair_mover<false>(dst, a, b, size, [](unsigned i, unsigned) { return 2 * i + 1; });
}
template <unsigned Odd>
void trn_mover(char* dst, char* a, char* b, element_size size) {
  pair_mover<true>(dst, a, b, size, [](unsigned i, unsigned) { return 2 * i + Odd; });
}

// Unpack, fast: the source half is read whole before the destination is written.
template <typename Narrow, typename Wide>
aarch64_decode_rc unpack_fast(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, unsigned first_byte) {
  unsigned char src[kVecBytes / 2];
  std::memcpy(src, cs->z[zn.number] + first_byte, sizeof src);
  for (unsigned i = 0; i < fast::lanes<Wide>; ++i)
    fast::set_lane<Wide>(cs->z[zd.number], i, static_cast<Wide>(fast::lane<Narrow>(src, i)));
  return AARCH64_DECODE_OK;
}

// The units of `unit` bytes of each active lane in reverse order; inactive
// lanes keep the old destination.
template <typename T>
VecV reverse_units(const VecV& old, const PredV& p, const VecV& a, const CpuContext* c, int unit) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = generic::active<T>(p, i)
                    ? static_cast<T>(Reverse(generic::lane<T>(a, i), static_cast<int>(int2::kBits<T>), unit))
                    : generic::lane<T>(old, i);
    generic::set_lane<T>(r, i, x);
  }
  return r;
}

template <typename T>
VecV splice(const PredV& p, const VecV& a, const VecV& b, const CpuContext* c) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  const int last = int2::last_active<T>(p, c);
  unsigned x = 0;
  bool on = false;
  for (int i = 0; i <= last; ++i) {
    on = on || generic::active<T>(p, static_cast<unsigned>(i));
    if (on) generic::set_lane<T>(r, x++, generic::lane<T>(a, static_cast<unsigned>(i)));
  }
  for (unsigned j = 0; x < n; ++j) generic::set_lane<T>(r, x++, generic::lane<T>(b, j));
  return r;
}

template <typename T>
VecV compress(const PredV& p, const VecV& a, const CpuContext* c) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  unsigned x = 0;
  for (unsigned k = 0; k < n; ++k) {
    generic::set_lane<T>(r, k, T(0));
    if (generic::active<T>(p, k)) generic::set_lane<T>(r, x++, generic::lane<T>(a, k));
  }
  return r;
}

// Signed unpack: `hi` starts at the lane half-way through the narrow source.
template <typename Wide, typename Narrow>
VecV unpack(const VecV& a, const CpuContext* c, bool hi) {
  VecV r;
  const unsigned n = generic::lane_count<Wide>(c);
  const unsigned base = hi ? n : 0;
  for (unsigned i = 0; i < n; ++i) generic::set_lane<Wide>(r, i, static_cast<Wide>(generic::lane<Narrow>(a, base + i)));
  return r;
}

}  // namespace

extern "C" {

// ---- the shared movers ----------------------------------------------------------

void sve_zip1(char* dst, char* a, char* b, element_size size) {
  pair_mover<true>(dst, a, b, size, [](unsigned i, unsigned) { return i; });
}
void sve_zip2(char* dst, char* a, char* b, element_size size) {
  pair_mover<true>(dst, a, b, size, [](unsigned i, unsigned half) { return half + i; });
}
void sve_uzp1(char* dst, char* a, char* b, element_size size) {
  pair_mover<false>(dst, a, b, size, [](unsigned i, unsigned) { return 2 * i; });
}

// ---- fast road ---------------------------------------------------------------------

aarch64_decode_rc sve_zip1_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, sve_zip1);
}
aarch64_decode_rc sve_zip2_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, sve_zip2);
}
aarch64_decode_rc sve_uzp1_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, sve_uzp1);
}
aarch64_decode_rc sve_uzp2_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, uzp2_mover);
}
aarch64_decode_rc sve_trn1_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, trn_mover<0>);
}
aarch64_decode_rc sve_trn2_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return shuffle_zzz(cs, zd, zn, zm, trn_mover<1>);
}

// TBL: an index at or above the lane count, read at the full lane width, gives 0.
aarch64_decode_rc sve_tbl_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    const unsigned char* table = cs->z[zn.number];
    const unsigned char* index = cs->z[zm.number];
    unsigned char out[kVecBytes];
    for (unsigned i = 0; i < fast::lanes<T>; ++i) {
      const T k = fast::lane<T>(index, i);
      fast::set_lane<T>(out, i, k < fast::lanes<T> ? fast::lane<T>(table, static_cast<unsigned>(k)) : T(0));
    }
    std::memcpy(cs->z[zd.number], out, kVecBytes);
    return AARCH64_DECODE_OK;
  });
}

// EXT: the 48 bytes from `pos` of Zdn:Zm; a position past the register is 0.
aarch64_decode_rc sve_ext_zzi(cpu_state* cs, aarch64_z_reg zdn, aarch64_z_reg zm, unsigned int pos) {
  unsigned char both[2 * kVecBytes];
  std::memcpy(both, cs->z[zdn.number], kVecBytes);
  std::memcpy(both + kVecBytes, cs->z[zm.number], kVecBytes);
  if (pos >= kVecBytes) pos = 0;
  std::memcpy(cs->z[zdn.number], both + pos, kVecBytes);
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_rev_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn) {
  return fast::by_size(zd.size, [&](auto lane) {
    using T = decltype(lane);
    unsigned char out[kVecBytes];
    for (unsigned i = 0; i < fast::lanes<T>; ++i)
      fast::set_lane<T>(out, i, fast::lane<T>(cs->z[zn.number], fast::lanes<T> - 1 - i));
    std::memcpy(cs->z[zd.number], out, kVecBytes);
    return AARCH64_DECODE_OK;
  });
}

// REVW: the two words of each active doubleword exchanged; inactive lanes keep Zd.
aarch64_decode_rc sve_revw_zpz(cpu_state* cs, aarch64_z_reg zd, aarch64_p_reg pg, aarch64_z_reg zn) {
  unsigned char out[kVecBytes];
  std::memcpy(out, cs->z[zd.number], kVecBytes);
  for (unsigned i = 0; i < fast::lanes<uint64_t>; ++i) {
    if (!fast::active<uint64_t>(cs->p[pg.number], i)) continue;
    const uint64_t v = fast::lane<uint64_t>(cs->z[zn.number], i);
    fast::set_lane<uint64_t>(out, i, v << 32 | v >> 32);
  }
  std::memcpy(cs->z[zd.number], out, kVecBytes);
  return AARCH64_DECODE_OK;
}

// LO reads the low half of the source, HI the half from byte 24.
#define QUERN_UNPACK_FAST(SIGN, SIZES, NARROW, WIDE)                                                 \
  aarch64_decode_rc sve_##SIGN##unpklo_##SIZES##_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn) { \
    return unpack_fast<NARROW, WIDE>(cs, zd, zn, 0);                                               \
  }                                                                                                \
  aarch64_decode_rc sve_##SIGN##unpkhi_##SIZES##_zz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn) { \
    return unpack_fast<NARROW, WIDE>(cs, zd, zn, kVecBytes / 2);                                   \
  }
QUERN_UNPACK_FAST(u, b2h, uint8_t, uint16_t)
QUERN_UNPACK_FAST(u, h2s, uint16_t, uint32_t)
QUERN_UNPACK_FAST(u, s2d, uint32_t, uint64_t)
QUERN_UNPACK_FAST(s, s2d, int32_t, int64_t)
#undef QUERN_UNPACK_FAST

// ---- generic road -----------------------------------------------------------------

// REVB and REVH merge although their names carry no M.
VecV VecU16Rev1V(VecV o, PredV p, VecV a, CpuContext* c) { return reverse_units<uint16_t>(o, p, a, c, 1); }
VecV VecU32Rev1V(VecV o, PredV p, VecV a, CpuContext* c) { return reverse_units<uint32_t>(o, p, a, c, 1); }
VecV VecU64Rev1V(VecV o, PredV p, VecV a, CpuContext* c) { return reverse_units<uint64_t>(o, p, a, c, 1); }
VecV VecU32Rev2V(VecV o, PredV p, VecV a, CpuContext* c) { return reverse_units<uint32_t>(o, p, a, c, 2); }
VecV VecU64Rev2V(VecV o, PredV p, VecV a, CpuContext* c) { return reverse_units<uint64_t>(o, p, a, c, 2); }

VecV VecU8SpliceVV(PredV p, VecV a, VecV b, CpuContext* c) { return splice<uint8_t>(p, a, b, c); }
VecV VecU16SpliceVV(PredV p, VecV a, VecV b, CpuContext* c) { return splice<uint16_t>(p, a, b, c); }
VecV VecU32SpliceVV(PredV p, VecV a, VecV b, CpuContext* c) { return splice<uint32_t>(p, a, b, c); }
VecV VecU64SpliceVV(PredV p, VecV a, VecV b, CpuContext* c) { return splice<uint64_t>(p, a, b, c); }

VecV VecU32CompressVV(PredV p, VecV a, CpuContext* c) { return compress<uint32_t>(p, a, c); }
VecV VecU64CompressVV(PredV p, VecV a, CpuContext* c) { return compress<uint64_t>(p, a, c); }

VecV VecS16UnpackLoV(VecV a, CpuContext* c) { return unpack<int16_t, int8_t>(a, c, false); }
VecV VecS16UnpackHiV(VecV a, CpuContext* c) { return unpack<int16_t, int8_t>(a, c, true); }
VecV VecS32UnpackLoV(VecV a, CpuContext* c) { return unpack<int32_t, int16_t>(a, c, false); }
VecV VecS32UnpackHiV(VecV a, CpuContext* c) { return unpack<int32_t, int16_t>(a, c, true); }

}  // extern "C"
