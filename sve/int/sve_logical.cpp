// AND, ORR, EOR, BIC on vectors (merging and unpredicated) and with a bitmask
// immediate, and DUPM. The unpredicated and immediate forms have no element
// size: they work on the six 64-bit units of the register. The adapter has
// already expanded the bitmask immediate to 64 bits.

#include "decode_decls.h"
#include "sve/int/int_lanes.h"

namespace {

struct and_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a & b); }
};
struct orr_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a | b); }
};
struct eor_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a ^ b); }
};
struct bic_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a & ~b); }
};

}  // namespace

extern "C" {

#define QUERN_LOGICAL(NAME, OP)                                                                      \
  aarch64_decode_rc sve_##NAME##_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) { \
    return fast::by_size(zdn.in_size, [&](auto lane) {                                               \
      return fast::merge_zpz<decltype(lane)>(cs, zdn, pg, zm, OP{});                                \
    });                                                                                              \
  }                                                                                                  \
  aarch64_decode_rc sve_##NAME##_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) { \
    return fast::binary_zzz<uint64_t>(cs, zd, zn, zm, OP{});                                         \
  }
QUERN_LOGICAL(and, and_op)
QUERN_LOGICAL(orr, orr_op)
QUERN_LOGICAL(eor, eor_op)
QUERN_LOGICAL(bic, bic_op)
#undef QUERN_LOGICAL

#define QUERN_LOGICAL_IMM(NAME, OP)                                                                  \
  aarch64_decode_rc sve_##NAME##_zi(cpu_state* cs, aarch64_z_reg zdn, aarch64_sve_logical64_imm imm) { \
    return fast::binary_zi<uint64_t>(cs, zdn, imm.value, OP{});                                      \
  }
QUERN_LOGICAL_IMM(and, and_op)
QUERN_LOGICAL_IMM(orr, orr_op)
QUERN_LOGICAL_IMM(eor, eor_op)
#undef QUERN_LOGICAL_IMM

aarch64_decode_rc sve_dupm_zi(cpu_state* cs, aarch64_z_reg zd, aarch64_sve_logical64_imm imm) {
  return fast::fill<uint64_t>(cs, zd, imm.value);
}

}  // extern "C"
