// The element types of the contiguous loads, shared by the families that have
// one member per load: LD1, LD1R, LDNF1.
#pragma once

#include <cstdint>

namespace mem_types {
using i8 = int8_t;
using i16 = int16_t;
using i32 = int32_t;
using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;
}  // namespace mem_types

// Loads: (memory letters, element suffix, lane type, memory type).
#define QUERN_LOADS(X)          \
  X(b, , u8, u8)                \
  X(b, _h, u16, u8)             \
  X(b, _s, u32, u8)             \
  X(b, _d, u64, u8)             \
  X(sb, _h, u16, i8)            \
  X(sb, _s, u32, i8)            \
  X(sb, _d, u64, i8)            \
  X(h, , u16, u16)              \
  X(h, _s, u32, u16)            \
  X(h, _d, u64, u16)            \
  X(sh, _s, u32, i16)           \
  X(sh, _d, u64, i16)           \
  X(w, , u32, u32)              \
  X(w, _d, u64, u32)            \
  X(sw, _d, u64, i32)           \
  X(d, , u64, u64)

