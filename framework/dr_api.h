// The instrumentation framework's interface, as its client uses it.
//
// quern carries its own small framework: it learns of an instruction when the
// word first raises SIGILL, hands the client's pass a block that starts with
// that instruction, encodes the instruction list that the pass returns into
// AArch64 code placed near the instruction, and patches the instruction with a
// branch to that code. The operations below keep the names and the calling
// conventions that the client is written against; nothing in the client knows
// which framework it runs in.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>


using client_id_t = unsigned int;
using byte = unsigned char;
using app_pc = byte*;
using reg_id_t = uint16_t;
using reg_t = uint64_t;
using ptr_int_t = intptr_t;
using opnd_size_t = uint8_t;
using uint = unsigned int;
using file_t = int;   // an output stream of dr_fprintf: a file descriptor

// ---- registers ------------------------------------------------------------------
constexpr reg_id_t DR_REG_NULL = 0;
constexpr reg_id_t DR_REG_X0 = 1;                   // X0..X30: DR_REG_X0 + n
constexpr reg_id_t DR_REG_X21 = DR_REG_X0 + 21;
constexpr reg_id_t DR_REG_X22 = DR_REG_X0 + 22;
constexpr reg_id_t DR_REG_X26 = DR_REG_X0 + 26;
constexpr reg_id_t DR_REG_X27 = DR_REG_X0 + 27;
constexpr reg_id_t DR_REG_X28 = DR_REG_X0 + 28;
constexpr reg_id_t DR_REG_X29 = DR_REG_X0 + 29;
constexpr reg_id_t DR_REG_X30 = DR_REG_X0 + 30;
constexpr reg_id_t DR_REG_XZR = DR_REG_X0 + 31;
constexpr reg_id_t DR_REG_XSP = DR_REG_X0 + 32;     // the stack pointer
constexpr reg_id_t DR_REG_W0 = DR_REG_X0 + 33;      // W0..W30: DR_REG_W0 + n
constexpr reg_id_t DR_REG_W26 = DR_REG_W0 + 26;
constexpr reg_id_t DR_REG_WZR = DR_REG_W0 + 31;
constexpr reg_id_t DR_REG_Q0 = DR_REG_W0 + 32;      // Q0..Q31: DR_REG_Q0 + n
constexpr reg_id_t DR_REG_NZCV = DR_REG_Q0 + 32;
constexpr reg_id_t DR_REG_FPCR = DR_REG_NZCV + 1;
constexpr reg_id_t DR_REG_FPSR = DR_REG_NZCV + 2;
constexpr reg_id_t DR_REG_TPIDR_EL0 = DR_REG_NZCV + 3;

// ---- operand sizes ----------------------------------------------------------------
enum : opnd_size_t { OPSZ_NA = 0, OPSZ_1 = 1, OPSZ_2 = 2, OPSZ_4 = 4, OPSZ_8 = 8, OPSZ_16 = 16 };

// ---- opcodes that the block pass builds or recognises -------------------------------
enum {
  OP_INVALID = 0,
  OP_UNDECODED,   // an application instruction this framework does not decode
  OP_add,
  OP_ldr,
  OP_str,
  OP_ldp,
  OP_stp,
  OP_mrs,
  OP_msr,
  OP_LAST,
};

// ---- operands -----------------------------------------------------------------------
enum dr_opnd_flags_t : uint16_t {
  DR_OPND_DEFAULT = 0,
  DR_OPND_IS_SHIFT = 1,   // an immediate that names a shift type
};
enum { DR_SHIFT_LSL = 0 };

enum opnd_kind_t : uint8_t { OPND_NULL, OPND_REG, OPND_IMMED_INT, OPND_BASE_DISP };

struct opnd_t {
  opnd_kind_t kind;
  opnd_size_t size;
  uint16_t flags;
  reg_id_t reg;      // register, or the base of a memory operand
  reg_id_t index;    // unused by this framework (no register-offset forms)
  int32_t disp;
  int64_t imm;
};

opnd_t opnd_create_reg(reg_id_t r);
opnd_t opnd_create_immed_int(ptr_int_t i, opnd_size_t size);
opnd_t opnd_create_base_disp(reg_id_t base, reg_id_t index, int scale, int disp, opnd_size_t size);
opnd_t opnd_add_flags(opnd_t opnd, dr_opnd_flags_t flags);
bool opnd_is_reg(opnd_t opnd);
reg_id_t opnd_get_reg(opnd_t opnd);

// ---- instructions and lists -----------------------------------------------------------
struct instr_t;
struct instrlist_t;

instr_t* instr_create(void* drcontext);
void instr_destroy(void* drcontext, instr_t* instr);
instr_t* instr_create_1dst_1src(void* drcontext, int opcode, opnd_t dst, opnd_t src);
instr_t* instr_create_1dst_2src(void* drcontext, int opcode, opnd_t dst, opnd_t src1, opnd_t src2);
instr_t* instr_create_2dst_1src(void* drcontext, int opcode, opnd_t dst1, opnd_t dst2, opnd_t src);
instr_t* instr_create_1dst_4src(void* drcontext, int opcode, opnd_t dst, opnd_t src1, opnd_t src2,
                                opnd_t src3, opnd_t src4);
void instr_set_raw_bits(instr_t* instr, byte* addr, uint length);
void instr_set_raw_bits_valid(instr_t* instr, bool valid);
byte* instr_get_raw_bits(instr_t* instr);
app_pc instr_get_app_pc(instr_t* instr);
instr_t* instr_set_translation(instr_t* instr, app_pc addr);
int instr_get_opcode(instr_t* instr);
int instr_num_dsts(instr_t* instr);
int instr_num_srcs(instr_t* instr);
opnd_t instr_get_dst(instr_t* instr, uint pos);
opnd_t instr_get_src(instr_t* instr, uint pos);

instr_t* instrlist_first_app(instrlist_t* ilist);
instr_t* instr_get_next_app(instr_t* instr);
void instrlist_preinsert(instrlist_t* ilist, instr_t* where, instr_t* instr);
void instrlist_remove(instrlist_t* ilist, instr_t* instr);

// ---- the client's life ----------------------------------------------------------------------
enum dr_emit_flags_t { DR_EMIT_DEFAULT = 0 };
struct drmgr_priority_t {
  size_t struct_size;
  const char* name;
  const char* before;
  const char* after;
  int priority;
};
using bb_app2app_fn = dr_emit_flags_t (*)(void* drcontext, void* tag, instrlist_t* bb, bool for_trace,
                                          bool translating);

void dr_set_client_name(const char* name, const char* report_url);
bool drmgr_init();
void drmgr_exit();
bool drmgr_register_thread_init_event(void (*func)(void* drcontext));
bool drmgr_register_thread_exit_event(void (*func)(void* drcontext));
void dr_register_exit_event(void (*func)());
bool drmgr_register_bb_app2app_event(bb_app2app_fn func, drmgr_priority_t* priority);
bool drmgr_unregister_bb_app2app_event(bb_app2app_fn func);
int drmgr_register_tls_field();
bool drmgr_set_tls_field(void* drcontext, int idx, void* value);
void* drmgr_get_tls_field(void* drcontext, int idx);
void* dr_thread_alloc(void* drcontext, size_t size);
void dr_thread_free(void* drcontext, void* mem, size_t size);
const char* dr_get_application_name();
void* dr_get_current_drcontext();

enum { DR_LOG_ALL = 0xFFFFFF };
void dr_log(void* drcontext, uint mask, uint level, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
void dr_fprintf(file_t f, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void dr_abort();

enum drreg_status_t { DRREG_SUCCESS = 0, DRREG_ERROR = 1 };
drreg_status_t drreg_exit();

// ---- code the pass inserts ------------------------------------------------------------------------
enum dr_spill_slot_t { SPILL_SLOT_1 = 0, SPILL_SLOT_2, SPILL_SLOT_3, SPILL_SLOT_4, SPILL_SLOT_MAX = SPILL_SLOT_4 };

void dr_save_reg(void* drcontext, instrlist_t* ilist, instr_t* where, reg_id_t reg, dr_spill_slot_t slot);
void dr_restore_reg(void* drcontext, instrlist_t* ilist, instr_t* where, reg_id_t reg, dr_spill_slot_t slot);
reg_t dr_read_saved_reg(void* drcontext, dr_spill_slot_t slot);
void dr_write_saved_reg(void* drcontext, dr_spill_slot_t slot, reg_t value);
reg_id_t dr_get_stolen_reg();
bool dr_insert_get_stolen_reg_value(void* drcontext, instrlist_t* ilist, instr_t* where, reg_id_t reg);
bool dr_insert_set_stolen_reg_value(void* drcontext, instrlist_t* ilist, instr_t* where, reg_id_t reg);
bool drmgr_insert_read_tls_field(void* drcontext, int idx, instrlist_t* ilist, instr_t* where, reg_id_t reg);

struct emulated_instr_t {
  size_t size;      // sizeof(emulated_instr_t)
  app_pc pc;        // address of the emulated instruction
  instr_t* instr;   // a raw copy of it
  uint flags;
};
bool drmgr_insert_emulation_start(void* drcontext, instrlist_t* ilist, instr_t* where, emulated_instr_t* instr);
bool drmgr_insert_emulation_end(void* drcontext, instrlist_t* ilist, instr_t* where);

// A clean call that also records the application address it stands for. The
// arguments are operands (immediates here); the machine state is kept around
// the callee.
void dr_insert_call_quern(void* drcontext, instrlist_t* ilist, instr_t* where, app_pc app_addr, void* callee,
                          uint num_args, ...);

// What a clean call keeps around its callee by itself.
enum dr_cleancall_save_t : uint {
  // Every register the callee may clobber: X0-X18, X30, Q0-Q31, NZCV, FPSR.
  DR_CLEANCALL_SAVE_ALL = 0,
  // Nothing: the pass has put those registers away itself and brings them
  // back after the call. The call only moves to the framework's stack and
  // back, and passes the arguments.
  DR_CLEANCALL_SAVE_NONE = 1,
};

// dr_insert_call_quern with a choice of what the call keeps. With
// DR_CLEANCALL_SAVE_NONE it still keeps the SIMD registers of `keep_simd`
// (bit i: Qi), on its own stack. An argument is an immediate, or a register
// among X19-X27 (the callee-saved ones a pass may use for itself).
void dr_insert_call_quern_ex(void* drcontext, instrlist_t* ilist, instr_t* where, app_pc app_addr, void* callee,
                             dr_cleancall_save_t save, uint32_t keep_simd, uint num_args, ...);

// ---- memory and state that outlive a block pass ----------------------------------------------------

// Process-lifetime memory, usable from a block pass (which may run in a signal
// handler): never freed, cleared, 16-byte aligned. Null when exhausted.
void* dr_global_alloc(size_t size);

// The record of `size` bytes that the thread-local field `idx` points to is
// part of the emulated machine: the framework keeps it unchanged across the
// program's own signal handlers, as a kernel keeps the registers. At most
// kMaxPreservedBytes; false if larger or `idx` is not a field.
constexpr size_t kMaxPreservedBytes = 4096;
bool drmgr_preserve_tls_field(int idx, size_t size);

// ---- what the framework did with the blocks it was given ----------------------------------------

// Blocks whose rewritten code was placed (each once), and executions of
// blocks that the interpreter carried out from the signal context instead
// (no code could be placed near them, or the launcher asked for that).
// Counted since the process started (since the fork, in a child).
struct dr_block_counts_t {
  uint64_t rewritten;
  uint64_t interpreted;
};
dr_block_counts_t dr_get_block_counts();

// ---- the version record that marks a client library ------------------------------------------------
struct quern_dr_version_t {
  uint32_t magic;
  uint32_t version;
};
