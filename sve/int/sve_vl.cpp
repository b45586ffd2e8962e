// RDVL, ADDVL, ADDPL: the vector length (48 bytes) and the predicate length
// (6 bytes) as numbers.
#include "decode_decls.h"

extern "C" {

aarch64_decode_rc sve_rdvl_ri(cpu_state* cs, aarch64_i_reg xd, int imm) {
  const int32_t bytes = imm * static_cast<int32_t>(kVecBytes);
  write_x(cs, xd, static_cast<uint64_t>(static_cast<int64_t>(bytes)));
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_addvl_rri(cpu_state* cs, aarch64_i_rsp_reg xd, aarch64_i_rsp_reg xn, int imm) {
  write_xsp(cs, xd, read_xsp(cs, xn) + static_cast<uint64_t>(static_cast<int64_t>(imm) * kVecBytes));
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_addpl_rri(cpu_state* cs, aarch64_i_rsp_reg xd, aarch64_i_rsp_reg xn, int imm) {
  const int64_t bytes = static_cast<int64_t>(imm) * kVecBytes / 8;   // truncates towards zero
  write_xsp(cs, xd, read_xsp(cs, xn) + static_cast<uint64_t>(bytes));
  return AARCH64_DECODE_OK;
}

}  // extern "C"
