// Word-at-a-time access to byte-per-bit predicates in cpu_state, and the
// packed-predicate helpers of the generic routines of this directory.
#pragma once

#include <cstdint>
#include <cstring>

#include "sve/dispatch/cpu_state.h"

namespace pred {

constexpr unsigned kWords = kVecBytes / 8;          // 64-bit words in 48 predicate bytes
constexpr uint64_t kByteOnes = 0x0101010101010101ull;

inline uint64_t word(const unsigned char* p, unsigned k) {
  uint64_t w;
  std::memcpy(&w, p + 8 * k, 8);
  return w;
}
inline void set_word(unsigned char* p, unsigned k, uint64_t w) { std::memcpy(p + 8 * k, &w, 8); }

// 0xFF in each byte whose bit 0 is set.
inline uint64_t active_bytes(uint64_t w) { return (w & kByteOnes) * 0xFF; }

// 0x01 in each byte that is zero.
inline uint64_t zero_bytes(uint64_t w) {
  const uint64_t nonzero = (((w & 0x7F7F7F7F7F7F7F7Full) + 0x7F7F7F7F7F7F7F7Full) | w) >> 7;
  return (nonzero & kByteOnes) ^ kByteOnes;
}

// The bits of a packed predicate that belong to a vector of `vl` 64-bit units.
inline PredV vl_mask(const CpuContext* c) {
  PredV m{};
  const uint64_t bytes = uint64_t{ctx_vl(c)} * 8;
  for (unsigned k = 0; k < kPredVWords; ++k) {
    const uint64_t lo = 64 * k;
    m.w[k] = bytes >= lo + 64 ? ~0ull : bytes <= lo ? 0 : (uint64_t{1} << (bytes - lo)) - 1;
  }
  return m;
}

inline bool get_bit(const PredV& p, unsigned i) { return (p.w[i / 64] >> (i % 64)) & 1u; }
inline void set_bit(PredV& p, unsigned i, bool v) {
  p.w[i / 64] = (p.w[i / 64] & ~(uint64_t{1} << (i % 64))) | (uint64_t{v} << (i % 64));
}
inline unsigned vl_bytes(const CpuContext* c) {
  const uint32_t vl = ctx_vl(c);
  return vl > kPredVWords * 8 ? kPredVWords * 64 : vl * 8;
}

}  // namespace pred
