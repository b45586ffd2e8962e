// First-fault (LDFF1) and non-fault (LDNF1) contiguous loads of the fast
// road. They cannot catch a fault, so they decide before loading, by probing
// one byte of a page with addr_is_readable, which elements can be read.
#include <cstring>

#include "decode_decls.h"
#include "sve/client/sve_fault.h"
#include "sve/dispatch/decode.h"
#include "sve/memory/mem_fast.h"
#include "sve/memory/mem_tables.h"

namespace {

// The page offset of an address, as the 32-bit signed value the page tests
// compare.
inline int32_t page_offset(uint64_t addr) {
  return static_cast<int32_t>(static_cast<uint32_t>(addr) & (page_size - 1u));
}

inline bool readable(uint64_t addr) {
  return addr_is_readable<char>(reinterpret_cast<char volatile*>(addr));
}

// First-fault, fast road. The decision is taken before any load: if the 48
// bytes from the address cross a page and the next page is unreadable, only
// the lanes that fit in the first page are loaded, counted in register
// elements (not memory elements), and FFR is cleared from there with those
// lanes of Z left as they were. A bad first page is a real fault.
template <typename E, typename M>
aarch64_decode_rc ldff1(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  constexpr unsigned lanes = fast::lanes<E>;
  unsigned limit = lanes;
  if (page_offset(addr) > page_offset(addr + kVecBytes) && !readable(addr + page_size)) {
    uint64_t remaining = page_size - static_cast<uint32_t>(page_offset(addr));
    if (remaining > kVecBytes) remaining = kVecBytes;
    limit = static_cast<unsigned>(remaining / sizeof(E));
  }
  if (limit == lanes) return mem::ld1<E, M>(cs, zt, pg, addr);   // all of it readable: a plain load
  const unsigned char* p = cs->p[pg.number];
  unsigned char* z = cs->z[zt.number];
  for (unsigned e = 0; e < limit; ++e)
    fast::set_lane<E>(z, e, fast::active<E>(p, e) ? mem::widen<E>(mem::load<M>(addr + e * sizeof(M))) : E(0));
  for (unsigned e = limit; e < lanes; ++e) mem::ffr_clear_lane<E>(cs, e);
  return AARCH64_DECODE_OK;
}

// Non-fault, fast road: each active lane is judged by the page of its first
// byte, probed once per page (and at the start). An unreadable lane clears its
// own FFR bytes and keeps its old value in Z; FFR need not stay a prefix.
template <typename E, typename M>
aarch64_decode_rc ldnf1(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, uint64_t addr) {
  bool ok = readable(addr);
  int32_t last_offset = page_offset(addr);
  const unsigned char* p = cs->p[pg.number];
  unsigned char* z = cs->z[zt.number];
  for (unsigned e = 0; e < fast::lanes<E>; ++e) {
    if (!fast::active<E>(p, e)) {
      fast::set_lane<E>(z, e, E(0));
      continue;
    }
    const uint64_t a = addr + e * sizeof(M);
    const int32_t offset = page_offset(a);
    if (offset <= last_offset) {   // the first lane, or a new page
      ok = readable(a);
      last_offset = offset;
    }
    if (ok)
      fast::set_lane<E>(z, e, mem::widen<E>(mem::load<M>(a)));
    else
      mem::ffr_clear_lane<E>(cs, e);
  }
  return AARCH64_DECODE_OK;
}

}  // namespace

using namespace mem_types;

extern "C" {

#define QUERN_LDNF1(m, el, E, M)                                                                          \
  aarch64_decode_rc sve_ldnf1##m##el##_zpri(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,             \
                                            aarch64_i_rsp_reg rn, int imm) {                              \
    return ldnf1<E, M>(cs, zt, pg, mem::addr_mul_vl<E, M>(cs, rn, imm));                                  \
  }
QUERN_LOADS(QUERN_LDNF1)

// The seven first-fault members of the fast road; the others are generic.
#define QUERN_LDFF1(m, el, E, M)                                                                          \
  aarch64_decode_rc sve_ldff1##m##el##_scaled_zprr(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,      \
                                                   aarch64_i_rsp_reg rn, aarch64_i_reg rm) {              \
    return ldff1<E, M>(cs, zt, pg, mem::addr_index<M>(cs, rn, rm));                                       \
  }
QUERN_LDFF1(b, , u8, u8)
QUERN_LDFF1(b, _h, u16, u8)
QUERN_LDFF1(b, _s, u32, u8)
QUERN_LDFF1(b, _d, u64, u8)
QUERN_LDFF1(w, , u32, u32)
QUERN_LDFF1(w, _d, u64, u32)
QUERN_LDFF1(d, , u64, u64)

}  // extern "C"
