// LD2, LD3, LD4 and ST2, ST3, ST4: two to four consecutive Z registers to or
// from interleaved memory, immediate (whole groups of N vectors) and register
// (elements, not structures) offsets.
#include "decode_decls.h"
#include "sve/memory/mem_fast.h"

extern "C" {

#define QUERN_STRUCT(OP, N, m, T)                                                                          \
  aarch64_decode_rc sve_##OP##N##m##_zpri(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,                \
                                          aarch64_i_rsp_reg rn, int imm) {                                  \
    return mem::OP##n<T, N>(cs, zt, pg, mem::addr_mul_vl_n<N>(cs, rn, imm));                                \
  }                                                                                                         \
  aarch64_decode_rc sve_##OP##N##m##_scaled_zprr(cpu_state* cs, aarch64_z_reg zt, aarch64_p_reg pg,         \
                                                 aarch64_i_rsp_reg rn, aarch64_i_reg rm) {                  \
    return mem::OP##n<T, N>(cs, zt, pg, mem::addr_index<T>(cs, rn, rm));                                    \
  }

#define QUERN_STRUCT_SIZES(OP, N)    \
  QUERN_STRUCT(OP, N, b, uint8_t)    \
  QUERN_STRUCT(OP, N, h, uint16_t)   \
  QUERN_STRUCT(OP, N, w, uint32_t)   \
  QUERN_STRUCT(OP, N, d, uint64_t)

QUERN_STRUCT_SIZES(ld, 2)
QUERN_STRUCT_SIZES(ld, 3)
QUERN_STRUCT_SIZES(ld, 4)
QUERN_STRUCT_SIZES(st, 2)
QUERN_STRUCT_SIZES(st, 3)
QUERN_STRUCT_SIZES(st, 4)

}  // extern "C"
