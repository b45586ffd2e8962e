// Condition flags from a predicate result, on both roads, and the first and
// last active element searches.
//
// The fast road tests byte-per-bit predicates in cpu_state and writes
// cpu_state::nzcv; the generic road tests packed PredV values and writes
// CpuContext::nzcv. Both give N = the result at the first active element,
// Z = no active element is true, C = the result at the last active element is
// false, V = 0.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/cpu_state.h"

constexpr uint32_t kFlagN = 1u << 31;
constexpr uint32_t kFlagZ = 1u << 30;
constexpr uint32_t kFlagC = 1u << 29;
constexpr uint32_t kFlagV = 1u << 28;
constexpr uint32_t kFlagsNZCV = kFlagN | kFlagZ | kFlagC | kFlagV;

// The in-place test of the fast handlers. `g` governs, `r` is tested; both are
// 48 predicate bytes. T gives only the lane stride (sizeof(T) bytes); signed
// and unsigned members of one size behave alike. Only bit 0 of a lane's first
// predicate byte is looked at. Changes only bits 31..28 of cs->nzcv.
template <typename T>
void sve_ptest(cpu_state* cs, const char* g, const char* r);

extern template void sve_ptest<signed char>(cpu_state*, const char*, const char*);
extern template void sve_ptest<short>(cpu_state*, const char*, const char*);
extern template void sve_ptest<int>(cpu_state*, const char*, const char*);
extern template void sve_ptest<long>(cpu_state*, const char*, const char*);
extern template void sve_ptest<unsigned char>(cpu_state*, const char*, const char*);
extern template void sve_ptest<unsigned short>(cpu_state*, const char*, const char*);
extern template void sve_ptest<unsigned int>(cpu_state*, const char*, const char*);
extern template void sve_ptest<unsigned long>(cpu_state*, const char*, const char*);

// The flags of the generic road, from a governing `mask` and a `result` at an
// element size of `esize` bits, into c->nzcv. An element of `result` counts as
// true for Z and C if any of its predicate bits is set, for N by its lowest bit.
void PredSetNZCV(PredV mask, PredV result, int esize, CpuContext* c);   // N, Z, C; V = 0
void PredSetNZC(PredV mask, PredV result, int esize, CpuContext* c);    // N, Z, C; V kept
void PredSetNC(PredV mask, PredV result, int esize, CpuContext* c);     // N, C; Z, V kept
void PredSetNCV(PredV mask, PredV result, int esize, CpuContext* c);    // N, C; V = 0, Z kept

// Lane index of the first or last element whose lowest predicate bit is set,
// -1 if none is.
int FindFirstActive(PredV p, int esize, CpuContext* c);
int FindLastActive(PredV p, int esize, CpuContext* c);

// Bit 0 of each of the 48 predicate bytes, one bit per byte (bit i = byte i),
// keeping only the bytes that `stride_mask` selects within each 8-byte word:
// kLaneBytes<T> gives the first byte of each lane of sizeof(T) bytes.
inline uint64_t pred_bits(const unsigned char* p, uint64_t stride_mask = 0x0101010101010101ull) {
  uint64_t bits = 0;
  for (unsigned k = 0; k < kVecBytes / 8; ++k) {
    uint64_t w;
    std::memcpy(&w, p + 8 * k, 8);
    // Byte i's bit 0 lands at bit 56 + i: the eight products never overlap.
    bits |= (((w & stride_mask) * 0x0102040810204080ull) >> 56) << (8 * k);
  }
  return bits;
}

// The governing bytes of lanes of E bytes within a 64-bit word.
template <unsigned E>
constexpr uint64_t kLaneBytes = E == 1 ? 0x0101010101010101ull
                              : E == 2 ? 0x0001000100010001ull
                              : E == 4 ? 0x0000000100000001ull
                                       : 0x0000000000000001ull;

// The same for a predicate's size code (.B to .D).
inline uint64_t lane_bytes_of(int32_t size) {
  return size == kPD ? kLaneBytes<8> : size == kPS ? kLaneBytes<4> : size == kPH ? kLaneBytes<2> : kLaneBytes<1>;
}

// NZCV (bits 31..28) of a test whose governing and tested lanes are given as
// bit sets over the same positions.
inline uint32_t nzcv_of_bits(uint64_t g, uint64_t r) {
  if (!(g & r)) return kFlagZ | kFlagC;
  uint32_t f = 0;
  if ((r >> __builtin_ctzll(g)) & 1) f |= kFlagN;
  if (!((r >> (63 - __builtin_clzll(g))) & 1)) f |= kFlagC;
  return f;
}

inline void set_nzcv(cpu_state* cs, uint32_t flags) {
  cs->nzcv = (cs->nzcv & ~uint64_t{kFlagsNZCV}) | flags;
}
