// The element count of each predicate-constraint pattern at 384 bits, as the
// fast count handlers use it: no vector length is read and nothing is called.
#pragma once

#include <cstdint>

namespace fast {

// [element size code][pattern]: 48, 24, 12 and 6 lanes.
inline constexpr uint8_t kPatternCount[4][32] = {
    // POW2 VL1..VL8                VL16 VL32 VL64..VL256 unallocated 14..28                     MUL4 MUL3 ALL
    {32, 1, 2, 3, 4, 5, 6, 7, 8, 16, 32, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 48, 48, 48},
    {16, 1, 2, 3, 4, 5, 6, 7, 8, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 24, 24, 24},
    {8, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 12, 12},
    {4, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 6, 6},
};

inline uint64_t pattern_count(int size_code, unsigned pattern) { return kPatternCount[size_code & 3][pattern & 31]; }

}  // namespace fast
