// LDR and STR of whole Z and P registers (fill and spill): no predicate, the
// address is the base plus the immediate times the register's size in memory.
#include <cstring>

#include "decode_decls.h"

namespace {

// Base plus the sign-extended 32-bit product of immediate and size.
unsigned char* address(const cpu_state* cs, aarch64_i_rsp_reg base, int imm, int32_t size) {
  const int64_t offset = static_cast<int32_t>(imm * size);
  return reinterpret_cast<unsigned char*>(read_xsp(cs, base) + static_cast<uint64_t>(offset));
}

constexpr int32_t kPredBytes = kVecBytes / 8;   // 6: one bit per vector byte

}  // namespace

extern "C" {

// A bad address is a real fault here: the pieces before it have moved.
aarch64_decode_rc sve_ldr_zri(cpu_state* cs, aarch64_z_reg zt, aarch64_i_rsp_reg base, int imm) {
  const unsigned char* from = address(cs, base, imm, kVecBytes);
  for (unsigned i = 0; i < kVecBytes; i += 16) std::memcpy(cs->z[zt.number] + i, from + i, 16);
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_str_zri(cpu_state* cs, aarch64_z_reg zt, aarch64_i_rsp_reg base, int imm) {
  unsigned char* to = address(cs, base, imm, kVecBytes);
  for (unsigned i = 0; i < kVecBytes; i += 16) std::memcpy(to + i, cs->z[zt.number] + i, 16);
  return AARCH64_DECODE_OK;
}

// The 6-byte image moves as two overlapping 4-byte pieces: no alignment
// needed and no byte beyond the image touched.
aarch64_decode_rc sve_ldr_pri(cpu_state* cs, aarch64_p_reg pt, aarch64_i_rsp_reg base, int imm) {
  const unsigned char* from = address(cs, base, imm, kPredBytes);
  unsigned char image[kPredBytes];
  std::memcpy(image, from, 4);
  std::memcpy(image + 2, from + 2, 4);
  for (unsigned i = 0; i < kVecBytes; ++i) cs->p[pt.number][i] = (image[i / 8] >> (i % 8)) & 1u;
  return AARCH64_DECODE_OK;
}

aarch64_decode_rc sve_str_pri(cpu_state* cs, aarch64_p_reg pt, aarch64_i_rsp_reg base, int imm) {
  unsigned char* to = address(cs, base, imm, kPredBytes);
  unsigned char image[kPredBytes] = {};
  for (unsigned i = 0; i < kVecBytes; ++i) image[i / 8] |= static_cast<unsigned char>((cs->p[pt.number][i] & 1u) << (i % 8));
  std::memcpy(to, image, 4);
  std::memcpy(to + 2, image + 2, 4);
  return AARCH64_DECODE_OK;
}

}  // extern "C"
