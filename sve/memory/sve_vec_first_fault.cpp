// The first-fault loads of the generic road: the contiguous ones that have no
// fast handler, and every first-fault gather. They read through the guarded
// ReadMemLib primitives, so no fault ever escapes them: from the first element
// that cannot be read (even the first active one) the lanes become zero and
// FFR is cleared, which keeps FFR a prefix.
#include "decode_decls.h"
#include "sve/int/vec_loop.h"
#include "sve/memory/mem_fast.h"
#include "sve/memory/mem_lib.h"
#include "sve/memory/mem_tables.h"

using namespace mem_types;
using mem::Ext;

namespace {

template <typename E>
void clear_ffr_lane(CpuContext* c, unsigned e) {
  for (unsigned b = 0; b < sizeof(E); ++b) {
    const unsigned bit = e * sizeof(E) + b;
    c->ffr.w[bit / 64] &= ~(uint64_t(1) << (bit % 64));
  }
}

// The first-fault walk of both contiguous loads and gathers: `addr(e)` gives
// the address of element e.
template <typename E, typename M, typename Addr>
VecV ldff(const PredV& p, CpuContext* c, Addr addr) {
  using R = std::make_unsigned_t<M>;
  VecV r;
  bool fault = false;
  int first = 1;
  for (unsigned e = 0; e < generic::lane_count<E>(c); ++e) {
    E v = 0;
    if (generic::active<E>(p, e)) {
      if (!fault) {
        const R m = mem::read_lib<R>(addr(e), !first, &fault, c);
        if (!fault) v = mem::widen<E>(static_cast<M>(m));
      }
      first = 0;
      if (fault) clear_ffr_lane<E>(c, e);
    } else if (fault) {
      clear_ffr_lane<E>(c, e);
    }
    generic::set_lane<E>(r, e, v);
  }
  return r;
}

template <typename E, typename M>
VecV ldff_contiguous(const PredV& p, uint64_t base, uint64_t index, CpuContext* c) {
  const uint64_t start = base + index * sizeof(M);
  return ldff<E, M>(p, c, [&](unsigned e) { return start + e * sizeof(M); });
}

template <typename E, Ext X>
uint64_t offset_of(const VecV& v, unsigned e) {
  return mem::extend_offset<X>(generic::lane<E>(v, e));
}

template <typename E, typename M, Ext X, bool Scaled>
VecV ldff_offsets(const PredV& p, uint64_t base, const VecV& off, CpuContext* c) {
  return ldff<E, M>(p, c, [&](unsigned e) { return base + offset_of<E, X>(off, e) * (Scaled ? sizeof(M) : 1); });
}

template <typename E, typename M>
VecV ldff_vec_imm(const PredV& p, const VecV& bases, uint64_t imm, CpuContext* c) {
  return ldff<E, M>(p, c, [&](unsigned e) { return uint64_t(generic::lane<E>(bases, e)) + imm * sizeof(M); });
}

}  // namespace

extern "C" {

// Contiguous first-fault: Vec<lane type>CLoadFF<memory bytes>LSSZ.
#define QUERN_LDFF_C(TY, n, E, M)                                                                          \
  VecV Vec##TY##CLoadFF##n##LSSZ(PredV p, uint64_t base, uint64_t index, CpuContext* c) {                  \
    return ldff_contiguous<E, M>(p, base, index, c);                                                       \
  }
QUERN_LDFF_C(U8, 1, u8, u8)
QUERN_LDFF_C(U16, 1, u16, u8)
QUERN_LDFF_C(U32, 1, u32, u8)
QUERN_LDFF_C(U64, 1, u64, u8)
QUERN_LDFF_C(S16, 1, u16, i8)
QUERN_LDFF_C(S32, 1, u32, i8)
QUERN_LDFF_C(S64, 1, u64, i8)
QUERN_LDFF_C(U16, 2, u16, u16)
QUERN_LDFF_C(U32, 2, u32, u16)
QUERN_LDFF_C(U64, 2, u64, u16)
QUERN_LDFF_C(S32, 2, u32, i16)
QUERN_LDFF_C(S64, 2, u64, i16)
QUERN_LDFF_C(U32, 4, u32, u32)
QUERN_LDFF_C(U64, 4, u64, u32)
QUERN_LDFF_C(S64, 4, u64, i32)
QUERN_LDFF_C(U64, 8, u64, u64)

// First-fault gathers: Vec<lane type>LoadFF<memory bytes><form>. VIZ vector
// plus immediate; VSZ/SVZ offsets unscaled/scaled; X sign-extended 32-bit
// offsets, Y zero-extended 32-bit offsets on 64-bit lanes (32-bit lanes have
// zero-extended offsets without a letter).
#define QUERN_FF_VIZ(TY, n, E, M)                                                                          \
  VecV Vec##TY##LoadFF##n##VIZ(PredV p, VecV z, uint64_t imm, CpuContext* c) {                             \
    return ldff_vec_imm<E, M>(p, z, imm, c);                                                               \
  }
#define QUERN_FF_VS(TY, n, L, E, M, X)                                                                     \
  VecV Vec##TY##LoadFF##n##L##VSZ(PredV p, VecV z, uint64_t base, CpuContext* c) {                         \
    return ldff_offsets<E, M, X, false>(p, base, z, c);                                                    \
  }
#define QUERN_FF_SV(TY, n, L, E, M, X)                                                                     \
  VecV Vec##TY##LoadFF##n##L##SVZ(PredV p, uint64_t base, VecV z, CpuContext* c) {                         \
    return ldff_offsets<E, M, X, true>(p, base, z, c);                                                     \
  }

#define QUERN_FF32(TY, n, M)                 \
  QUERN_FF_VIZ(TY, n, u32, M)                \
  QUERN_FF_VS(TY, n, , u32, M, Ext::uxtw)    \
  QUERN_FF_VS(TY, n, X, u32, M, Ext::sxtw)
#define QUERN_FF32_SCALED(TY, n, M)          \
  QUERN_FF32(TY, n, M)                       \
  QUERN_FF_SV(TY, n, , u32, M, Ext::uxtw)    \
  QUERN_FF_SV(TY, n, X, u32, M, Ext::sxtw)
#define QUERN_FF64(TY, n, M)                 \
  QUERN_FF_VIZ(TY, n, u64, M)                \
  QUERN_FF_VS(TY, n, , u64, M, Ext::none)    \
  QUERN_FF_VS(TY, n, X, u64, M, Ext::sxtw)   \
  QUERN_FF_VS(TY, n, Y, u64, M, Ext::uxtw)
#define QUERN_FF64_SCALED(TY, n, M)          \
  QUERN_FF64(TY, n, M)                       \
  QUERN_FF_SV(TY, n, , u64, M, Ext::none)    \
  QUERN_FF_SV(TY, n, X, u64, M, Ext::sxtw)   \
  QUERN_FF_SV(TY, n, Y, u64, M, Ext::uxtw)

QUERN_FF32(U32, 1, u8)
QUERN_FF32(S32, 1, i8)
QUERN_FF32_SCALED(U32, 2, u16)
QUERN_FF32_SCALED(S32, 2, i16)
QUERN_FF32_SCALED(U32, 4, u32)
QUERN_FF64(U64, 1, u8)
QUERN_FF64(S64, 1, i8)
QUERN_FF64_SCALED(U64, 2, u16)
QUERN_FF64_SCALED(S64, 2, i16)
QUERN_FF64_SCALED(U64, 4, u32)
QUERN_FF64_SCALED(S64, 4, i32)
QUERN_FF64_SCALED(U64, 8, u64)

}  // extern "C"
