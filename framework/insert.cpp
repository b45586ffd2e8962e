// The operations by which a pass inserts framework code: spill slots, the
// stolen register, thread-local fields, the emulation markers, clean calls.
// All of them address the per-thread block through X28.
#include <cstdarg>

#include "framework/ir.h"
#include "framework/thread_block.h"

namespace {

opnd_t block_field(int32_t offset, opnd_size_t size) {
  return opnd_create_base_disp(DR_REG_X28, DR_REG_NULL, 0, offset, size);
}

void insert_meta(instrlist_t* ilist, instr_t* where, instr_t* in) {
  in->translation = where ? where->translation : nullptr;
  instrlist_preinsert(ilist, where, in);
}

}  // namespace

arena_t* drcontext_arena(void* drcontext) { return &static_cast<quern_thread*>(drcontext)->arena; }

void dr_save_reg(void* dc, instrlist_t* ilist, instr_t* where, reg_id_t reg, dr_spill_slot_t slot) {
  insert_meta(ilist, where,
              instr_create_1dst_1src(dc, OP_str, block_field(kSpillOffset + 8 * slot, OPSZ_8), opnd_create_reg(reg)));
}

void dr_restore_reg(void* dc, instrlist_t* ilist, instr_t* where, reg_id_t reg, dr_spill_slot_t slot) {
  insert_meta(ilist, where,
              instr_create_1dst_1src(dc, OP_ldr, opnd_create_reg(reg), block_field(kSpillOffset + 8 * slot, OPSZ_8)));
}

reg_id_t dr_get_stolen_reg() { return DR_REG_X28; }

bool dr_insert_get_stolen_reg_value(void* dc, instrlist_t* ilist, instr_t* where, reg_id_t reg) {
  if (reg < DR_REG_X0 || reg > DR_REG_X0 + 30 || reg == DR_REG_X28) return false;
  insert_meta(ilist, where, instr_create_1dst_1src(dc, OP_ldr, opnd_create_reg(reg), block_field(kAppX28Offset, OPSZ_8)));
  return true;
}

bool dr_insert_set_stolen_reg_value(void* dc, instrlist_t* ilist, instr_t* where, reg_id_t reg) {
  if (reg < DR_REG_X0 || reg > DR_REG_X0 + 30 || reg == DR_REG_X28) return false;
  insert_meta(ilist, where, instr_create_1dst_1src(dc, OP_str, block_field(kAppX28Offset, OPSZ_8), opnd_create_reg(reg)));
  return true;
}

bool drmgr_insert_read_tls_field(void* dc, int idx, instrlist_t* ilist, instr_t* where, reg_id_t reg) {
  if (idx < 0 || idx >= kMaxTlsFields || reg < DR_REG_X0 || reg > DR_REG_X0 + 30 || reg == DR_REG_X28) return false;
  insert_meta(ilist, where,
              instr_create_1dst_1src(dc, OP_ldr, opnd_create_reg(reg), block_field(kTlsOffset + 8 * idx, OPSZ_8)));
  return true;
}

bool drmgr_insert_emulation_start(void* dc, instrlist_t* ilist, instr_t* where, emulated_instr_t* instr) {
  if (!instr || instr->size < sizeof(emulated_instr_t)) return false;
  instr_t* in = instr_create(dc);
  in->opcode = OP_quern_emulation_start;
  in->pc = instr->pc;
  insert_meta(ilist, where, in);
  return true;
}

bool drmgr_insert_emulation_end(void* dc, instrlist_t* ilist, instr_t* where) {
  instr_t* in = instr_create(dc);
  in->opcode = OP_quern_emulation_end;
  insert_meta(ilist, where, in);
  return true;
}

namespace {

void insert_call(void* dc, instrlist_t* ilist, instr_t* where, app_pc app_addr, void* callee, dr_cleancall_save_t save,
                 uint32_t keep_simd, uint num_args, va_list ap) {
  instr_t* in = instr_create(dc);
  in->opcode = OP_quern_call;
  in->callee = callee;
  in->save = save;
  in->keep_simd = keep_simd;
  in->translation = app_addr;
  for (uint i = 0; i < num_args && i < kMaxCallArgs; ++i) in->src[in->nsrc++] = va_arg(ap, opnd_t);
  instrlist_preinsert(ilist, where, in);
}

}  // namespace

void dr_insert_call_quern(void* dc, instrlist_t* ilist, instr_t* where, app_pc app_addr, void* callee,
                          uint num_args, ...) {
  va_list ap;
  va_start(ap, num_args);
  insert_call(dc, ilist, where, app_addr, callee, DR_CLEANCALL_SAVE_ALL, 0, num_args, ap);
  va_end(ap);
}

void dr_insert_call_quern_ex(void* dc, instrlist_t* ilist, instr_t* where, app_pc app_addr, void* callee,
                             dr_cleancall_save_t save, uint32_t keep_simd, uint num_args, ...) {
  va_list ap;
  va_start(ap, num_args);
  insert_call(dc, ilist, where, app_addr, callee, save, keep_simd, num_args, ap);
  va_end(ap);
}
