// Gather loads and scatter stores of the fast road, in every addressing form:
// a vector of addresses plus an immediate, and a scalar base plus a vector of
// offsets (64-bit, or 32-bit sign- or zero-extended; unscaled or scaled by the
// memory size). Each handler keeps the address of every active lane and, after
// all its accesses, hands them to the memory trace.
#include "decode_decls.h"
#include "sve/memory/mem_fast.h"
#include "sve/memory/mem_tables.h"
#include "sve/memory/memtrace.h"

using namespace mem_types;
using mem::Ext;

namespace {

template <typename E, Ext X>
inline uint64_t offset_of(const unsigned char* zm, unsigned e) {
  return mem::extend_offset<X>(fast::lane<E>(zm, e));
}

// The lane width as the memory trace names it: int for 12 lanes, long for 6.
template <typename E>
using trace_lane = std::conditional_t<sizeof(E) == 4, int, long>;

// Address of lane e for each form. `zv` is the vector operand: addresses for
// the immediate form, offsets otherwise.
struct VecImm {
  uint64_t add;   // immediate times the memory size
  template <typename E, typename M>
  uint64_t at(const unsigned char* zv, unsigned e) const { return uint64_t(fast::lane<E>(zv, e)) + add; }
};

template <Ext X, bool Scaled>
struct BaseOff {
  uint64_t base;
  template <typename E, typename M>
  uint64_t at(const unsigned char* zv, unsigned e) const {
    return base + (offset_of<E, X>(zv, e) << (Scaled ? __builtin_ctz(sizeof(M)) : 0));
  }
};

// Offsets are read before the lane is written, and lanes do not overlap, so
// the destination may be the offset register.
template <typename E, typename M, typename Form>
aarch64_decode_rc gather(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, aarch64_z_reg zv, Form form) {
  using T = M;   // the trace's element type: only its size matters
  T* addrs[fast::lanes<E>];
  const unsigned char* p = cs->p[pg.number];
  for (unsigned e = 0; e < fast::lanes<E>; ++e) {
    if (fast::active<E>(p, e)) {
      const uint64_t a = form.template at<E, M>(cs->z[zv.number], e);
      addrs[e] = reinterpret_cast<T*>(a);
      fast::set_lane<E>(cs->z[zt.number], e, mem::widen<E>(mem::load<M>(a)));
    } else {
      fast::set_lane<E>(cs->z[zt.number], e, E(0));
    }
  }
  memtrace_gs<T, trace_lane<E>>(cs, addrs, reinterpret_cast<char*>(cs->p[pg.number]), MEMACCESS_LOAD);
  return AARCH64_DECODE_OK;
}

template <typename E, typename M, typename Form>
aarch64_decode_rc scatter(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, aarch64_z_reg zv, Form form) {
  using T = std::make_signed_t<M>;
  T* addrs[fast::lanes<E>];
  const unsigned char* p = cs->p[pg.number];
  for (unsigned e = 0; e < fast::lanes<E>; ++e) {
    if (!fast::active<E>(p, e)) continue;
    const uint64_t a = form.template at<E, M>(cs->z[zv.number], e);
    addrs[e] = reinterpret_cast<T*>(a);
    mem::store<M>(a, static_cast<M>(fast::lane<E>(cs->z[zt.number], e)));
  }
  memtrace_gs<T, trace_lane<E>>(cs, addrs, reinterpret_cast<char*>(cs->p[pg.number]), MEMACCESS_STORE);
  return AARCH64_DECODE_OK;
}

}  // namespace

extern "C" {

// Handlers of one (op, memory, element) cell, by form. OP is gather or scatter.
#define QUERN_GS_IMM(OP, NAME, E, M)                                                                       \
  aarch64_decode_rc sve_##NAME##_zpzi(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, aarch64_z_reg zn,  \
                                      unsigned int imm) {                                                   \
    return OP<E, M>(cs, zt, pg, zn, VecImm{uint64_t(imm) * sizeof(M)});                                    \
  }
#define QUERN_GS_OFF(OP, NAME, SUFFIX, E, M, X)                                                            \
  aarch64_decode_rc sve_##NAME##SUFFIX##_zpzr(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,            \
                                              aarch64_z_reg zm, aarch64_i_rsp_reg rn) {                     \
    return OP<E, M>(cs, zt, pg, zm, BaseOff<X, false>{read_xsp(cs, rn)});                                  \
  }
#define QUERN_GS_SCALED(OP, NAME, SUFFIX, E, M, X)                                                         \
  aarch64_decode_rc sve_##NAME##SUFFIX##_scaled_zprz(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,     \
                                                     aarch64_i_rsp_reg rn, aarch64_z_reg zm) {              \
    return OP<E, M>(cs, zt, pg, zm, BaseOff<X, true>{read_xsp(cs, rn)});                                   \
  }

// 32-bit elements: offsets are always 32-bit.
#define QUERN_GS32(OP, NAME, E, M)                     \
  QUERN_GS_IMM(OP, NAME, E, M)                         \
  QUERN_GS_OFF(OP, NAME, _sxtw, E, M, Ext::sxtw)       \
  QUERN_GS_OFF(OP, NAME, _uxtw, E, M, Ext::uxtw)
#define QUERN_GS32_SCALED(OP, NAME, E, M)              \
  QUERN_GS32(OP, NAME, E, M)                           \
  QUERN_GS_SCALED(OP, NAME, _sxtw, E, M, Ext::sxtw)    \
  QUERN_GS_SCALED(OP, NAME, _uxtw, E, M, Ext::uxtw)
// 64-bit elements: also whole 64-bit offsets.
#define QUERN_GS64(OP, NAME, E, M)                     \
  QUERN_GS32(OP, NAME, E, M)                           \
  QUERN_GS_OFF(OP, NAME, , E, M, Ext::none)
#define QUERN_GS64_SCALED(OP, NAME, E, M)              \
  QUERN_GS64(OP, NAME, E, M)                           \
  QUERN_GS_SCALED(OP, NAME, , E, M, Ext::none)         \
  QUERN_GS_SCALED(OP, NAME, _sxtw, E, M, Ext::sxtw)    \
  QUERN_GS_SCALED(OP, NAME, _uxtw, E, M, Ext::uxtw)

QUERN_GS32(gather, ld1b_s, u32, u8)
QUERN_GS32(gather, ld1sb_s, u32, i8)
QUERN_GS32_SCALED(gather, ld1h_s, u32, u16)
QUERN_GS32_SCALED(gather, ld1sh_s, u32, i16)
QUERN_GS32_SCALED(gather, ld1w, u32, u32)
QUERN_GS64(gather, ld1b_d, u64, u8)
QUERN_GS64(gather, ld1sb_d, u64, i8)
QUERN_GS64_SCALED(gather, ld1h_d, u64, u16)
QUERN_GS64_SCALED(gather, ld1sh_d, u64, i16)
QUERN_GS64_SCALED(gather, ld1w_d, u64, u32)
QUERN_GS64_SCALED(gather, ld1sw_d, u64, i32)
QUERN_GS64_SCALED(gather, ld1d, u64, u64)

QUERN_GS32(scatter, st1b_s, u32, u8)
QUERN_GS32_SCALED(scatter, st1h_s, u32, u16)
QUERN_GS32_SCALED(scatter, st1w, u32, u32)
QUERN_GS64(scatter, st1b_d, u64, u8)
QUERN_GS64_SCALED(scatter, st1h_d, u64, u16)
QUERN_GS64_SCALED(scatter, st1w_d, u64, u32)
QUERN_GS64_SCALED(scatter, st1d, u64, u64)

}  // extern "C"
