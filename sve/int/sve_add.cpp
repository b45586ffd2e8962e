// ADD and SUB: merging, unpredicated and immediate, on both roads.
//
// Only the fast handlers are reached from the decode table; the generic
// routines of the same instructions exist so that the two roads can be held
// against each other, and as the model of the element loop for the families
// that do take the generic road.

#include "decode_decls.h"
#include "sve/int/add_sub.h"
#include "sve/int/fast_lanes.h"
#include "sve/int/vec_loop.h"
#include "sve/memory/memtrace.h"

namespace {

// Modular arithmetic at the lane's width, done in unsigned so that it never
// overflows a signed type.
struct add_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a + b); }
};
struct sub_op {
  template <typename T> T operator()(T a, T b) const { return static_cast<T>(a - b); }
};

}  // namespace

extern "C" {

aarch64_decode_rc sve_add_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, add_op{}); });
}
aarch64_decode_rc sve_sub_zpz(cpu_state* cs, aarch64_z_reg zdn, aarch64_p_reg pg, aarch64_z_reg zm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zpz<decltype(lane)>(cs, zdn, pg, zm, sub_op{}); });
}
aarch64_decode_rc sve_add_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zd.size, [&](auto lane) { return fast::binary_zzz<decltype(lane)>(cs, zd, zn, zm, add_op{}); });
}
aarch64_decode_rc sve_sub_zzz(cpu_state* cs, aarch64_z_reg zd, aarch64_z_reg zn, aarch64_z_reg zm) {
  return fast::by_size(zd.size, [&](auto lane) { return fast::binary_zzz<decltype(lane)>(cs, zd, zn, zm, sub_op{}); });
}
// With byte elements and the shift bit set the immediate is a multiple of 256:
// its low byte is 0 and the register stays as it is. Two of those words, which
// no compiler emits, mark the region of the memory trace: #1, LSL #8 starts it
// and #2, LSL #8 stops it, on the calling thread.
aarch64_decode_rc sve_add_zi(cpu_state* cs, aarch64_z_reg zdn, unsigned int imm) {
  const bool bytes = zdn.in_size != 1 && zdn.in_size != 2 && zdn.in_size != 3;
  if (bytes && imm == 256) trace_region_start();
  else if (bytes && imm == 512) trace_region_stop();
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zi<decltype(lane)>(cs, zdn, imm, add_op{}); });
}
aarch64_decode_rc sve_sub_zi(cpu_state* cs, aarch64_z_reg zdn, unsigned int imm) {
  return fast::by_size(zdn.in_size, [&](auto lane) { return fast::binary_zi<decltype(lane)>(cs, zdn, imm, sub_op{}); });
}

// Generic routines: Vec<type><Add|Sub><VVM|VVX|VIX>.
#define QUERN_ADD_SUB_GENERIC(T, TY)                                                            \
  VecV Vec##TY##AddVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                \
    return generic::binary_vvm<T>(a, p, b, c, add_op{});                                        \
  }                                                                                             \
  VecV Vec##TY##SubVVM(VecV a, PredV p, VecV b, CpuContext* c) {                                \
    return generic::binary_vvm<T>(a, p, b, c, sub_op{});                                        \
  }                                                                                             \
  VecV Vec##TY##AddVVX(VecV a, VecV b, CpuContext* c) { return generic::binary_vvx<T>(a, b, c, add_op{}); } \
  VecV Vec##TY##SubVVX(VecV a, VecV b, CpuContext* c) { return generic::binary_vvx<T>(a, b, c, sub_op{}); } \
  VecV Vec##TY##AddVIX(VecV a, uint32_t imm, CpuContext* c) {                                   \
    return generic::binary_vix<T>(a, imm, c, add_op{});                                         \
  }                                                                                             \
  VecV Vec##TY##SubVIX(VecV a, uint32_t imm, CpuContext* c) {                                   \
    return generic::binary_vix<T>(a, imm, c, sub_op{});                                         \
  }

QUERN_ADD_SUB_GENERIC(uint8_t, U8)
QUERN_ADD_SUB_GENERIC(uint16_t, U16)
QUERN_ADD_SUB_GENERIC(uint32_t, U32)
QUERN_ADD_SUB_GENERIC(uint64_t, U64)
#undef QUERN_ADD_SUB_GENERIC

}  // extern "C"
