// The SVE emulation client: registration with the framework, the block pass
// that replaces each SVE word with a call into the emulator, and that call.
//
// Every SVE word of a block becomes: park the application's registers in the
// thread's cpu_state, call emulate_instruction with the word, its address and
// its adapter as constants, load the registers back. X26 and X27 serve the
// sequence itself and X28 belongs to the framework, so those three travel
// through spill slots. P registers, FFR and the upper 32 bytes of each Z
// register live only in cpu_state.
#include <cstddef>
#include <cstdio>
#include <string>

#include "framework/dr_api.h"
#include "framework/droption.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "sve/memory/sve_mem_ref.h"

extern "C" {
__attribute__((visibility("default"))) extern const quern_dr_version_t _USES_DR_VERSION_;
const quern_dr_version_t _USES_DR_VERSION_ = {0x51534556u /* "QSEV" */, 1};
__attribute__((visibility("default"))) void dr_client_main(client_id_t id, int argc, const char* argv[]);
}

namespace {

#define CLIENT_ASSERT(cond)                                                                        \
  do {                                                                                            \
    if (!(cond)) {                                                                                \
      dr_fprintf(our_stderr, "ASSERT FAILURE: %s:%d: %s (%s)\n", "sve/client/sve_client", __LINE__, \
                 #cond, "");                                                                      \
      dr_abort();                                                                                 \
    }                                                                                             \
  } while (0)

int tls_idx;

const drmgr_priority_t kPriority = {sizeof(drmgr_priority_t), "emulate_instruction", nullptr, nullptr, 0};

void usage_error(const std::string& msg) {
  dr_fprintf(our_stderr, "SVE emulation client usage error: %s\n", msg.c_str());
  dr_abort();
}

// ---- threads --------------------------------------------------------------------------

void event_thread_init(void* drcontext) {
  // Not cleared: P, FFR, FPCR and the upper Z bytes hold whatever the
  // allocator gave until the application writes them.
  void* state = dr_thread_alloc(drcontext, sizeof(cpu_state));
  if (!drmgr_set_tls_field(drcontext, tls_idx, state)) CLIENT_ASSERT(false);
}

void event_thread_exit(void* drcontext) {
  void* data = drmgr_get_tls_field(drcontext, tls_idx);
  CLIENT_ASSERT(data != __null);
  dr_thread_free(drcontext, data, sizeof(cpu_state));
}

// ---- the emulation call ------------------------------------------------------------------

void emulate_instruction(unsigned int word, unsigned char* pc, aarch64_decode_rc (*handler)(cpu_state*, unsigned int)) {
  void* drcontext = dr_get_current_drcontext();
  cpu_state* cs = static_cast<cpu_state*>(drmgr_get_tls_field(drcontext, tls_idx));
  cs->pc = pc;
  cs->x[26] = dr_read_saved_reg(drcontext, SPILL_SLOT_1);
  cs->x[27] = dr_read_saved_reg(drcontext, SPILL_SLOT_2);
  cs->x[28] = dr_read_saved_reg(drcontext, SPILL_SLOT_3);
  if (handler(cs, word) != AARCH64_DECODE_OK) {
    // The word as it stands in memory now, not the one the block was built from.
    fprintf(stderr, "Error: failed to emulate SVE instruction 0x%08x at PC %p\n",
            *reinterpret_cast<volatile unsigned int*>(pc), static_cast<void*>(pc));
  }
  // A handler may have changed X26..X28: the block restores them from the slots.
  dr_write_saved_reg(drcontext, SPILL_SLOT_1, cs->x[26]);
  dr_write_saved_reg(drcontext, SPILL_SLOT_2, cs->x[27]);
  dr_write_saved_reg(drcontext, SPILL_SLOT_3, cs->x[28]);
}

// ---- the block pass --------------------------------------------------------------------------

opnd_t reg(reg_id_t r) { return opnd_create_reg(r); }
opnd_t mem(reg_id_t base, size_t disp, opnd_size_t size) {
  return opnd_create_base_disp(base, DR_REG_NULL, 0, static_cast<int>(disp), size);
}

// Inserts `in` before `where` as an application instruction standing for `pc`.
void emit(instrlist_t* bb, instr_t* where, app_pc pc, instr_t* in) {
  instr_set_translation(in, pc);
  instrlist_preinsert(bb, where, in);
}

// mov Xd, SP and mov SP, Xn, written as adds of zero.
instr_t* add_zero(void* dc, reg_id_t dst, reg_id_t src) {
  return instr_create_1dst_4src(dc, OP_add, reg(dst), reg(src), opnd_create_immed_int(0, OPSZ_4),
                                opnd_add_flags(opnd_create_immed_int(DR_SHIFT_LSL, OPSZ_4), DR_OPND_IS_SHIFT),
                                opnd_create_immed_int(0, OPSZ_1));
}

void replace_with_emulation(void* dc, instrlist_t* bb, instr_t* instr, sve_handler_fn handler) {
  const app_pc pc = instr_get_app_pc(instr);
  const unsigned int word = *reinterpret_cast<const unsigned int*>(pc);
  CLIENT_ASSERT(dr_get_stolen_reg() == DR_REG_X28);

  instr_t* raw = instr_create(dc);
  instr_set_raw_bits(raw, pc, 4);
  instr_set_raw_bits_valid(raw, true);
  emulated_instr_t emulated = {sizeof(emulated_instr_t), pc, raw, 0};
  drmgr_insert_emulation_start(dc, bb, instr, &emulated);

  dr_save_reg(dc, bb, instr, DR_REG_X26, SPILL_SLOT_1);
  dr_save_reg(dc, bb, instr, DR_REG_X27, SPILL_SLOT_2);
  dr_insert_get_stolen_reg_value(dc, bb, instr, DR_REG_X27);
  dr_save_reg(dc, bb, instr, DR_REG_X27, SPILL_SLOT_3);
  if (!drmgr_insert_read_tls_field(dc, tls_idx, bb, instr, DR_REG_X27)) CLIENT_ASSERT(false);

  const reg_id_t state = DR_REG_X27, scratch = DR_REG_X26;
  emit(bb, instr, pc, add_zero(dc, scratch, DR_REG_XSP));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_str, mem(state, offsetof(cpu_state, sp), OPSZ_8), reg(scratch)));
  for (int i = 0; i < 26; i += 2)
    emit(bb, instr, pc,
         instr_create_1dst_2src(dc, OP_stp, mem(state, offsetof(cpu_state, x) + 8 * i, OPSZ_16),
                                reg(DR_REG_X0 + i), reg(DR_REG_X0 + i + 1)));
  emit(bb, instr, pc,
       instr_create_1dst_2src(dc, OP_stp, mem(state, offsetof(cpu_state, x) + 8 * 29, OPSZ_16), reg(DR_REG_X29),
                              reg(DR_REG_X30)));
  for (int i = 0; i < 32; ++i)
    emit(bb, instr, pc,
         instr_create_1dst_1src(dc, OP_str, mem(state, offsetof(cpu_state, z) + kVecBytes * i, OPSZ_16),
                                reg(DR_REG_Q0 + i)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_mrs, reg(scratch), reg(DR_REG_NZCV)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_str, mem(state, offsetof(cpu_state, nzcv), OPSZ_8), reg(scratch)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_mrs, reg(scratch), reg(DR_REG_FPSR)));
  emit(bb, instr, pc,
       instr_create_1dst_1src(dc, OP_str, mem(state, offsetof(cpu_state, fpsr), OPSZ_4), reg(DR_REG_W26)));

  dr_insert_call_quern(dc, bb, instr, pc, reinterpret_cast<void*>(&emulate_instruction), 3,
                       opnd_create_immed_int(word, OPSZ_4),
                       opnd_create_immed_int(reinterpret_cast<ptr_int_t>(pc), OPSZ_8),
                       opnd_create_immed_int(reinterpret_cast<ptr_int_t>(handler), OPSZ_8));

  if (!drmgr_insert_read_tls_field(dc, tls_idx, bb, instr, DR_REG_X27)) CLIENT_ASSERT(false);
  emit(bb, instr, pc,
       instr_create_1dst_1src(dc, OP_ldr, reg(DR_REG_W26), mem(state, offsetof(cpu_state, fpsr), OPSZ_4)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_msr, reg(DR_REG_FPSR), reg(scratch)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_ldr, reg(scratch), mem(state, offsetof(cpu_state, nzcv), OPSZ_8)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_msr, reg(DR_REG_NZCV), reg(scratch)));
  for (int i = 0; i < 32; ++i)
    emit(bb, instr, pc,
         instr_create_1dst_1src(dc, OP_ldr, reg(DR_REG_Q0 + i),
                                mem(state, offsetof(cpu_state, z) + kVecBytes * i, OPSZ_16)));
  for (int i = 0; i < 26; i += 2)
    emit(bb, instr, pc,
         instr_create_2dst_1src(dc, OP_ldp, reg(DR_REG_X0 + i), reg(DR_REG_X0 + i + 1),
                                mem(state, offsetof(cpu_state, x) + 8 * i, OPSZ_16)));
  emit(bb, instr, pc,
       instr_create_2dst_1src(dc, OP_ldp, reg(DR_REG_X29), reg(DR_REG_X30),
                              mem(state, offsetof(cpu_state, x) + 8 * 29, OPSZ_16)));
  emit(bb, instr, pc, instr_create_1dst_1src(dc, OP_ldr, reg(scratch), mem(state, offsetof(cpu_state, sp), OPSZ_8)));
  emit(bb, instr, pc, add_zero(dc, DR_REG_XSP, scratch));

  dr_restore_reg(dc, bb, instr, DR_REG_X27, SPILL_SLOT_3);
  dr_insert_set_stolen_reg_value(dc, bb, instr, DR_REG_X27);
  dr_restore_reg(dc, bb, instr, DR_REG_X27, SPILL_SLOT_2);
  dr_restore_reg(dc, bb, instr, DR_REG_X26, SPILL_SLOT_1);
  drmgr_insert_emulation_end(dc, bb, instr);

  instrlist_remove(bb, instr);
  instr_destroy(dc, instr);
}

// An application write of FPCR is mirrored into cpu_state before it runs, so
// that the handlers see the FPCR that the application has set.
void mirror_fpcr_write(void* dc, instrlist_t* bb, instr_t* instr) {
  if (instr_get_opcode(instr) != OP_msr || instr_num_dsts(instr) != 1) return;
  const opnd_t dst = instr_get_dst(instr, 0);
  if (!opnd_is_reg(dst) || opnd_get_reg(dst) != DR_REG_FPCR) return;
  const reg_id_t src = opnd_get_reg(instr_get_src(instr, 0));
  const reg_id_t scratch = src == DR_REG_X21 ? DR_REG_X22 : DR_REG_X21;
  dr_save_reg(dc, bb, instr, scratch, SPILL_SLOT_3);
  if (!drmgr_insert_read_tls_field(dc, tls_idx, bb, instr, scratch)) CLIENT_ASSERT(false);
  // The 32-bit view of the source; XZR stores zero.
  const reg_id_t src32 = src == DR_REG_XZR ? DR_REG_WZR : static_cast<reg_id_t>(src - DR_REG_X0 + DR_REG_W0);
  emit(bb, instr, instr_get_app_pc(instr),
       instr_create_1dst_1src(dc, OP_str, mem(scratch, offsetof(cpu_state, fpcr), OPSZ_4), reg(src32)));
  dr_restore_reg(dc, bb, instr, scratch, SPILL_SLOT_3);
}

dr_emit_flags_t event_instruction_change(void* drcontext, void* tag, instrlist_t* bb, bool for_trace,
                                         bool translating) {
  (void)tag;
  (void)for_trace;
  (void)translating;
  instr_t* next;
  for (instr_t* instr = instrlist_first_app(bb); instr != nullptr; instr = next) {
    next = instr_get_next_app(instr);
    const unsigned int word = *reinterpret_cast<const unsigned int*>(instr_get_raw_bits(instr));
    if (const sve_handler_fn handler = get_sve_handler(word)) {
      replace_with_emulation(drcontext, bb, instr, handler);
      continue;   // the instruction is gone; it was an SVE word, never an MSR
    }
    mirror_fpcr_write(drcontext, bb, instr);
  }
  return DR_EMIT_DEFAULT;
}

void event_exit() {
  dr_log(nullptr, DR_LOG_ALL, 1, "SVE client exiting\n");
  sve_exit();
  if (!drmgr_unregister_bb_app2app_event(event_instruction_change) || drreg_exit() != DRREG_SUCCESS)
    CLIENT_ASSERT(false);
  drmgr_exit();
}

}  // namespace

void dr_client_main(client_id_t id, int argc, const char* argv[]) {
  (void)id;
  dr_set_client_name("Quern SVE emulation client", "quern developers");

  std::string parse_err;
  int last_index = 0;
  if (!droption_parser_t::parse_argv(DROPTION_SCOPE_CLIENT, argc, argv, &parse_err, &last_index))
    usage_error(parse_err);

  if (!drmgr_init()) CLIENT_ASSERT(false);
  drmgr_register_thread_init_event(event_thread_init);
  drmgr_register_thread_exit_event(event_thread_exit);
  dr_register_exit_event(event_exit);
  drmgr_priority_t priority = kPriority;
  if (!drmgr_register_bb_app2app_event(event_instruction_change, &priority)) CLIENT_ASSERT(false);
  tls_idx = drmgr_register_tls_field();
  if (tls_idx == -1) CLIENT_ASSERT(false);
  if (!sve_init(nullptr, dr_get_application_name())) CLIENT_ASSERT(false);
  dr_log(nullptr, DR_LOG_ALL, 1, "SVE client initializing\n");
}
