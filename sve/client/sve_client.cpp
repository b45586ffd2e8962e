// The SVE emulation client: registration with the framework, the block pass
// that replaces each SVE word with a call into the emulator, and that call.
//
// Every SVE word of a block becomes: park the application's registers in the
// thread's cpu_state, call emulate_instruction with cpu_state and, as
// constants, the word, its address and its adapter, load the registers back.
// X27 holds cpu_state during the sequence (the application's X27 waits in a
// spill slot until it is parked), X26 is its scratch register and X28 belongs
// to the framework, which keeps the application's value; all three are
// parked in cpu_state with the others, so that the call finds the whole
// register file there and the reload brings a handler's change of any of them
// back. The call keeps no register itself: the sequence has parked
// everything the callee may clobber. P registers, FFR and the upper 32 bytes
// of each Z register live only in cpu_state.
//
// With runs (the default of quern run; --no-runs turns them off), adjacent
// words share one park, one call of emulate_run, which carries them out in
// order, and one reload; and the park takes only the registers that the
// run's words touch (the decode table says which), besides those the call
// may clobber. A run also carries the ordinary integer instructions that
// stand between its SVE words (carried.h), such as a loop counter's ADD,
// rather than end there.
//
// With quern run --stats, the blocks call counted versions of the same two
// functions, which also count each word under its decode row (its row index
// rides in the upper half of the word's constant); without it, the code is
// the same as if counting did not exist.
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>

#include "framework/dr_api.h"
#include "framework/droption.h"
#include "sve/dispatch/call_out.h"
#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "sve/client/carried.h"
#include "sve/client/sve_stats.h"
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

// Whether words are counted (quern run --stats).
bool stats_on;

// With counting on, the thread's counter block is named right after its
// cpu_state, where the counted calls find it.
constexpr size_t kStateBytes = sizeof(cpu_state) + sizeof(thread_stats*);
thread_stats*& stats_of(cpu_state* cs) {
  return *reinterpret_cast<thread_stats**>(reinterpret_cast<unsigned char*>(cs) + sizeof(cpu_state));
}

void event_thread_init(void* drcontext) {
  // Not cleared: P, FFR, FPCR and the upper Z bytes hold whatever the
  // allocator gave until the application writes them.
  void* state = dr_thread_alloc(drcontext, kStateBytes);
  if (!drmgr_set_tls_field(drcontext, tls_idx, state)) CLIENT_ASSERT(false);
  if (stats_on) stats_of(static_cast<cpu_state*>(state)) = stats_thread_start();
}

void event_thread_exit(void* drcontext) {
  void* data = drmgr_get_tls_field(drcontext, tls_idx);
  CLIENT_ASSERT(data != __null);
  if (stats_on) stats_thread_end(stats_of(static_cast<cpu_state*>(data)));
  dr_thread_free(drcontext, data, kStateBytes);
}

// ---- the emulation call ------------------------------------------------------------------

// The rewritten block has parked every register in `cs` (X26 to X28
// included) and reloads them all afterwards; the word, its address and its
// adapter are constants of the block, and the adapter's operation is known
// to have landed (or the adapter is the one that says it has not). Counted,
// the word's constant carries its decode row above bit 32.
template <bool kCounted>
void emulate_instruction(cpu_state* cs, uint64_t word, unsigned char* pc, sve_handler_fn handler) {
  thread_stats* stats = kCounted ? stats_of(cs) : nullptr;
  if (kCounted && stats) ++(word >> 32 < kDecodeRows ? stats->rows[word >> 32] : stats->carried);
  cs->pc = pc;
  if (handler(cs, static_cast<unsigned int>(word)) != AARCH64_DECODE_OK) {
    if (kCounted && stats) ++stats->failed;
    // The word as it stands in memory now, not the one the block was built from.
    call_out([pc] {
      fprintf(stderr, "Error: failed to emulate SVE instruction 0x%08x at PC %p\n",
              *reinterpret_cast<volatile unsigned int*>(pc), static_cast<void*>(pc));
    });
  }
}

// One word of a run: what emulate_instruction gets as constants.
struct run_word {
  unsigned char* pc;
  sve_handler_fn handler;
  uint64_t word;
};

// A run of adjacent words, parked and reloaded once: each word in order, each
// with its own pc, so that a fault or a message names the right instruction.
template <bool kCounted>
void emulate_run(cpu_state* cs, const run_word* words, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) emulate_instruction<kCounted>(cs, words[i].word, words[i].pc, words[i].handler);
}

// ---- the block pass --------------------------------------------------------------------------

// Whether adjacent words share one park, call and reload (quern run without --no-runs).
bool runs_enabled;
constexpr int kMaxRun = 64;

opnd_t reg(reg_id_t r) { return opnd_create_reg(r); }
opnd_t mem(reg_id_t base, size_t disp, opnd_size_t size) {
  return opnd_create_base_disp(base, DR_REG_NULL, 0, static_cast<int>(disp), size);
}
reg_id_t xreg(int n) { return static_cast<reg_id_t>(DR_REG_X0 + n); }

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

// The sequence around one emulation call, inserted before `where`. X27 holds
// the thread's cpu_state from the start of the park to the end of the reload
// (it is callee-saved, so the call keeps it); X26 is the scratch register.
struct sequence {
  void* dc;
  instrlist_t* bb;
  instr_t* where;
  app_pc pc;

  static constexpr reg_id_t kState = DR_REG_X27, kScratch = DR_REG_X26;

  void put(instr_t* in) { emit(bb, where, pc, in); }
  void store(reg_id_t r, size_t field, opnd_size_t size) {
    put(instr_create_1dst_1src(dc, OP_str, mem(kState, field, size), reg(r)));
  }
  void load(reg_id_t r, size_t field, opnd_size_t size) {
    put(instr_create_1dst_1src(dc, OP_ldr, reg(r), mem(kState, field, size)));
  }
  void store_pair(int r, size_t field) {
    put(instr_create_1dst_2src(dc, OP_stp, mem(kState, field, OPSZ_16), reg(xreg(r)), reg(xreg(r + 1))));
  }
  void load_pair(int r, size_t field) {
    put(instr_create_2dst_1src(dc, OP_ldp, reg(xreg(r)), reg(xreg(r + 1)), mem(kState, field, OPSZ_16)));
  }
  static size_t x_field(int r) { return offsetof(cpu_state, x) + 8 * static_cast<size_t>(r); }
  static size_t z_field(int r) { return offsetof(cpu_state, z) + kVecBytes * static_cast<size_t>(r); }

  // The registers of the application into cpu_state: all of them for one
  // word, X0 to X30 (X28, the framework's, from where the framework keeps
  // it), SP, the low 128 bits of Z0 to Z31, NZCV, FPSR and FPCR
  // (application writes of FPCR reach cpu_state here, whether or not the pass
  // saw them). For a run, `use` names the Z and X registers and SP that its
  // words touch: only those, and the X registers that the call may clobber,
  // go to cpu_state; the call keeps the others of Q0-Q15 on its own stack.
  // FPSR and FPCR go only if a word of the run is a floating-point one: no
  // other word reads FPCR or changes FPSR, so the host's FPSR stays right.
  void park(const register_use* use) {
    dr_save_reg(dc, bb, where, kState, SPILL_SLOT_2);
    if (!drmgr_insert_read_tls_field(dc, tls_idx, bb, where, kState)) CLIENT_ASSERT(false);
    for (int r = 0; r < 26; r += 2)
      if (parks_x_pair(use, r)) store_pair(r, x_field(r));
    store(kScratch, x_field(26), OPSZ_8);
    dr_restore_reg(dc, bb, where, kScratch, SPILL_SLOT_2);
    store(kScratch, x_field(27), OPSZ_8);
    if (!use || use->x >> 28 & 1) {
      dr_insert_get_stolen_reg_value(dc, bb, where, kScratch);
      store(kScratch, x_field(28), OPSZ_8);
    }
    store_pair(29, x_field(29));
    if (!use || use->sp) {
      put(add_zero(dc, kScratch, DR_REG_XSP));
      store(kScratch, offsetof(cpu_state, sp), OPSZ_8);
    }
    for (int q = 0; q < 32; ++q)
      if (!use || use->z >> q & 1) store(static_cast<reg_id_t>(DR_REG_Q0 + q), z_field(q), OPSZ_16);
    put(instr_create_1dst_1src(dc, OP_mrs, reg(kScratch), reg(DR_REG_NZCV)));
    store(kScratch, offsetof(cpu_state, nzcv), OPSZ_8);
    if (use && !use->fp) return;
    put(instr_create_1dst_1src(dc, OP_mrs, reg(kScratch), reg(DR_REG_FPSR)));
    store(DR_REG_W26, offsetof(cpu_state, fpsr), OPSZ_4);
    put(instr_create_1dst_1src(dc, OP_mrs, reg(kScratch), reg(DR_REG_FPCR)));
    store(DR_REG_W26, offsetof(cpu_state, fpcr), OPSZ_4);
  }

  // What park() parked, back from cpu_state, X27 last.
  void reload(const register_use* use) {
    if (!use || use->fp) {
      load(DR_REG_W26, offsetof(cpu_state, fpsr), OPSZ_4);
      put(instr_create_1dst_1src(dc, OP_msr, reg(DR_REG_FPSR), reg(kScratch)));
    }
    load(kScratch, offsetof(cpu_state, nzcv), OPSZ_8);
    put(instr_create_1dst_1src(dc, OP_msr, reg(DR_REG_NZCV), reg(kScratch)));
    for (int q = 0; q < 32; ++q)
      if (!use || use->z >> q & 1) load(static_cast<reg_id_t>(DR_REG_Q0 + q), z_field(q), OPSZ_16);
    for (int r = 0; r < 26; r += 2)
      if (parks_x_pair(use, r)) load_pair(r, x_field(r));
    load_pair(29, x_field(29));
    if (!use || use->sp) {
      load(kScratch, offsetof(cpu_state, sp), OPSZ_8);
      put(add_zero(dc, DR_REG_XSP, kScratch));
    }
    if (!use || use->x >> 28 & 1) {
      load(kScratch, x_field(28), OPSZ_8);
      dr_insert_set_stolen_reg_value(dc, bb, where, kScratch);
    }
    load_pair(26, x_field(26));   // X27 is the base: loaded last, by the same instruction
  }

  // X0 to X18 (and X30, parked with X29) are the call's to clobber; X19 and
  // up only matter to cpu_state when a word touches them.
  static bool parks_x_pair(const register_use* use, int r) { return !use || r < 20 || (use->x >> r & 3u); }

  // The call, with cpu_state as its first argument: the sequence keeps
  // the registers itself, so the framework only switches stacks (and keeps
  // those of Q0-Q15 that the sequence did not park: the emulator leaves
  // Q16-Q31 alone, see sve/dispatch/call_out.h).
  static uint32_t kept_q(const register_use* use) { return use ? ~use->z & 0xFFFFu : 0; }
  void call(const register_use* use, void* callee, opnd_t a1, opnd_t a2, opnd_t a3) {
    dr_insert_call_quern_ex(dc, bb, where, pc, callee, DR_CLEANCALL_SAVE_NONE, kept_q(use), 4, reg(kState), a1, a2,
                            a3);
  }
  void call(const register_use* use, void* callee, opnd_t a1, opnd_t a2) {
    dr_insert_call_quern_ex(dc, bb, where, pc, callee, DR_CLEANCALL_SAVE_NONE, kept_q(use), 3, reg(kState), a1, a2);
  }
};

template <typename T>
opnd_t imm(T v) {
  if constexpr (std::is_pointer_v<T>) return opnd_create_immed_int(reinterpret_cast<ptr_int_t>(v), OPSZ_8);
  else return opnd_create_immed_int(static_cast<ptr_int_t>(v), OPSZ_8);
}

// One SVE word of the block, with what its rewritten code calls; or an
// ordinary instruction that a run carries (no row).
struct sve_word {
  instr_t* instr;
  app_pc pc;
  unsigned int word;
  sve_handler_fn entry;
  const decode_row* row;
};

// Replaces `n` adjacent words by one park, one call and one reload.
void replace_with_emulation(void* dc, instrlist_t* bb, const sve_word* words, int n) {
  CLIENT_ASSERT(dr_get_stolen_reg() == DR_REG_X28);
  // The run's constants outlive the pass: they go where the code goes. Without
  // room for them, each word gets its own sequence.
  run_word* table = nullptr;
  if (n > 1) {
    table = static_cast<run_word*>(dr_global_alloc(sizeof(run_word) * static_cast<size_t>(n)));
    if (!table) {
      for (int i = 0; i < n; ++i) replace_with_emulation(dc, bb, words + i, 1);
      return;
    }
  }
  instr_t* where = words[0].instr;
  const app_pc pc = words[0].pc;

  instr_t* raw = instr_create(dc);
  instr_set_raw_bits(raw, pc, 4);
  instr_set_raw_bits_valid(raw, true);
  emulated_instr_t emulated = {sizeof(emulated_instr_t), pc, raw, 0};
  drmgr_insert_emulation_start(dc, bb, where, &emulated);

  sequence seq{dc, bb, where, pc};
  // The word's constant, with its row when counted.
  auto word_constant = [](const sve_word& w) {
    const uint64_t row = w.row ? static_cast<uint64_t>(w.row - decode_rows) : kCarriedRow;
    return stats_on ? w.word | row << 32 : uint64_t{w.word};
  };
  // With runs, even a run of one word parks only what it touches.
  register_use use{};
  for (int i = 0; i < n; ++i)
    if (words[i].row) add_register_use(*words[i].row, words[i].word, use);
    else carried_instruction(words[i].word, &use);
  const register_use* parked = runs_enabled ? &use : nullptr;
  if (!table) {
    seq.park(parked);
    void* callee = stats_on ? reinterpret_cast<void*>(&emulate_instruction<true>)
                            : reinterpret_cast<void*>(&emulate_instruction<false>);
    seq.call(parked, callee, imm(word_constant(words[0])), imm(pc), imm(words[0].entry));
    seq.reload(parked);
  } else {
    for (int i = 0; i < n; ++i) table[i] = {words[i].pc, words[i].entry, word_constant(words[i])};
    seq.park(&use);
    void* callee =
        stats_on ? reinterpret_cast<void*>(&emulate_run<true>) : reinterpret_cast<void*>(&emulate_run<false>);
    seq.call(&use, callee, imm(table), imm(n));
    seq.reload(&use);
  }
  drmgr_insert_emulation_end(dc, bb, where);

  for (int i = 0; i < n; ++i) {
    instrlist_remove(bb, words[i].instr);
    instr_destroy(dc, words[i].instr);
  }
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

// The word at `instr` and what rewritten code calls for it, if it is an
// emulated instruction. Whether its operation has landed is settled here,
// once, rather than on every execution.
bool sve_word_at(instr_t* instr, sve_word* out) {
  const unsigned int raw = *reinterpret_cast<const unsigned int*>(instr_get_raw_bits(instr));
  const decode_row* row = find_decode_row(raw);
  if (!row) return false;
  const app_pc pc = instr_get_app_pc(instr);
  // Read anew from the application's address: this is the word the call gets.
  *out = {instr, pc, *reinterpret_cast<const unsigned int*>(pc), row_entry(*row), row};
  return true;
}

// An ordinary instruction that a run may carry between its SVE words.
bool carried_at(instr_t* instr, sve_word* out) {
  const unsigned int raw = *reinterpret_cast<const unsigned int*>(instr_get_raw_bits(instr));
  register_use unused{};
  const sve_handler_fn entry = carried_instruction(raw, &unused);
  if (!entry) return false;
  *out = {instr, instr_get_app_pc(instr), raw, entry, nullptr};
  return true;
}

dr_emit_flags_t event_instruction_change(void* drcontext, void* tag, instrlist_t* bb, bool for_trace,
                                         bool translating) {
  (void)tag;
  (void)for_trace;
  (void)translating;
  sve_word run[kMaxRun];
  instr_t* next;
  for (instr_t* instr = instrlist_first_app(bb); instr != nullptr; instr = next) {
    next = instr_get_next_app(instr);
    if (!sve_word_at(instr, &run[0])) {
      mirror_fpcr_write(drcontext, bb, instr);
      continue;
    }
    int n = 1, last_sve = 1;
    // A run: the words that follow at the next addresses, up to the first
    // that is neither emulated nor carried; carried instructions after its
    // last SVE word stay as they are. (The instructions of a run are gone;
    // none of them was an MSR.)
    while (runs_enabled && n < kMaxRun && next != nullptr && instr_get_app_pc(next) == run[n - 1].pc + 4) {
      if (sve_word_at(next, &run[n])) last_sve = n + 1;
      else if (!carried_at(next, &run[n])) break;
      ++n;
      next = instr_get_next_app(next);
    }
    n = last_sve;
    next = instr_get_next_app(run[n - 1].instr);
    replace_with_emulation(drcontext, bb, run, n);
  }
  return DR_EMIT_DEFAULT;
}

void event_exit() {
  dr_log(nullptr, DR_LOG_ALL, 1, "SVE client exiting\n");
  if (stats_on) stats_report(dr_get_block_counts());
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
  // The record is part of the emulated machine, as registers are: a
  // signal handler of the program must find it as it was.
  if (!drmgr_preserve_tls_field(tls_idx, sizeof(cpu_state))) CLIENT_ASSERT(false);
  if (!sve_init(nullptr, dr_get_application_name())) CLIENT_ASSERT(false);
  stats_on = stats_init(getenv("QUERN_STATS"));
  if (stats_on)
    pthread_atfork(nullptr, nullptr, [] {
      void* state = drmgr_get_tls_field(dr_get_current_drcontext(), tls_idx);
      stats_after_fork(state ? stats_of(static_cast<cpu_state*>(state)) : nullptr);
    });
  const char* runs = getenv("QUERN_RUNS");
  runs_enabled = runs != nullptr && runs[0] == '1';
  dr_log(nullptr, DR_LOG_ALL, 1, "SVE client initializing\n");
}
