// Load and replicate quadword (LD1RQ), the one contiguous load family of the
// generic road.
#include "decode_decls.h"
#include "sve/int/vec_loop.h"
#include "sve/memory/mem_lib.h"

namespace {

// LD1RQ: the first quadword under the low 16 predicate bits, replicated to
// every quadword of the vector. Higher predicate bits have no effect.
template <typename T>
VecV ld1rq(const PredV& p, uint64_t addr, const CpuContext* c) {
  unsigned char q[16];
  for (unsigned e = 0; e < 16 / sizeof(T); ++e) {
    const T v = generic::active<T>(p, e) ? mem::read_lib<T>(addr + e * sizeof(T), 0, nullptr, nullptr) : T(0);
    std::memcpy(q + e * sizeof(T), &v, sizeof(T));
  }
  VecV r;
  for (unsigned k = 0; k < ctx_vl(c) / 2; ++k) std::memcpy(r.b + 16 * k, q, 16);
  return r;
}

}  // namespace

extern "C" {

#define QUERN_LD1RQ(TY, n, T)                                                                              \
  VecV Vec##TY##LoadDup##n##QSIZ(PredV p, uint64_t base, int64_t imm, CpuContext* c) {                     \
    return ld1rq<T>(p, base + static_cast<uint64_t>(imm * 16), c);                                         \
  }                                                                                                        \
  VecV Vec##TY##LoadDup##n##QSSZ(PredV p, uint64_t base, uint64_t index, CpuContext* c) {                  \
    return ld1rq<T>(p, base + index * sizeof(T), c);                                                       \
  }
QUERN_LD1RQ(U8, 1, uint8_t)
QUERN_LD1RQ(U16, 2, uint16_t)
QUERN_LD1RQ(U32, 4, uint32_t)
QUERN_LD1RQ(U64, 8, uint64_t)

}  // extern "C"
