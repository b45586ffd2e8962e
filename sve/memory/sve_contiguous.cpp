// Contiguous loads and stores of the fast road: LD1 and ST1 of every width and
// extension with immediate and register offsets, their non-temporal twins, and
// load-and-broadcast (LD1R).
#include <cstring>

#include "decode_decls.h"
#include "sve/memory/mem_fast.h"
#include "sve/memory/mem_tables.h"

using namespace mem_types;

extern "C" {

// Stores keep the low bytes of each lane: no sign to speak of.
#define QUERN_STORES(X) \
  X(b, , u8, u8)        \
  X(b, _h, u16, u8)     \
  X(b, _s, u32, u8)     \
  X(b, _d, u64, u8)     \
  X(h, , u16, u16)      \
  X(h, _s, u32, u16)    \
  X(h, _d, u64, u16)    \
  X(w, , u32, u32)      \
  X(w, _d, u64, u32)    \
  X(d, , u64, u64)

// Same-size members only: the non-temporal forms.
#define QUERN_SAME_SIZE(X) \
  X(b, , u8, u8)           \
  X(h, , u16, u16)         \
  X(w, , u32, u32)         \
  X(d, , u64, u64)

#define QUERN_BOTH_FORMS(OP, NAME, E, M)                                                                     \
  aarch64_decode_rc sve_##NAME##_zpri(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg, aarch64_i_rsp_reg rn, \
                                      int imm) {                                                             \
    return mem::OP<E, M>(cs, zt, pg, mem::addr_mul_vl<E, M>(cs, rn, imm));                                   \
  }                                                                                                          \
  aarch64_decode_rc sve_##NAME##_scaled_zprr(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,              \
                                             aarch64_i_rsp_reg rn, aarch64_i_reg rm) {                        \
    return mem::OP<E, M>(cs, zt, pg, mem::addr_index<M>(cs, rn, rm));                                        \
  }

#define QUERN_LD1(m, el, E, M) QUERN_BOTH_FORMS(ld1, ld1##m##el, E, M)
#define QUERN_ST1(m, el, E, M) QUERN_BOTH_FORMS(st1, st1##m##el, E, M)
#define QUERN_LDNT1(m, el, E, M) QUERN_BOTH_FORMS(ld1, ldnt1##m##el, E, M)
#define QUERN_STNT1(m, el, E, M) QUERN_BOTH_FORMS(st1, stnt1##m##el, E, M)
QUERN_LOADS(QUERN_LD1)
QUERN_STORES(QUERN_ST1)
QUERN_SAME_SIZE(QUERN_LDNT1)
QUERN_SAME_SIZE(QUERN_STNT1)

// LD1R: base plus immediate times the memory size.
#define QUERN_LD1R(m, el, E, M)                                                                           \
  aarch64_decode_rc sve_ld1r##m##el##_zpri(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,              \
                                           aarch64_i_rsp_reg rn, unsigned int imm) {                      \
    return mem::ld1r<E, M>(cs, zt, pg, read_xsp(cs, rn) + uint64_t(imm) * sizeof(M));                     \
  }
QUERN_LOADS(QUERN_LD1R)

}  // extern "C"
