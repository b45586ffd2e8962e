// AArch64 encodings of the few instruction forms the framework emits.
#include "framework/encode.h"

#include "framework/thread_block.h"

namespace {

constexpr uint32_t kXzr = 31, kSp = 31;

// Register number of an X/W/Q/SP operand, or -1.
int gpr(reg_id_t r) {
  if (r >= DR_REG_X0 && r <= DR_REG_X0 + 30) return r - DR_REG_X0;
  if (r >= DR_REG_W0 && r <= DR_REG_W0 + 30) return r - DR_REG_W0;
  if (r == DR_REG_XZR || r == DR_REG_WZR) return kXzr;
  return -1;
}
bool is_w(reg_id_t r) { return r >= DR_REG_W0 && r <= DR_REG_WZR; }
bool is_q(reg_id_t r) { return r >= DR_REG_Q0 && r < DR_REG_Q0 + 32; }
int base_reg(reg_id_t r) {
  if (r == DR_REG_XSP) return kSp;
  if (r >= DR_REG_X0 && r <= DR_REG_X0 + 30) return r - DR_REG_X0;
  return -1;
}

// System register fields o0:op1:CRn:CRm:op2 (bits 19..5 of MRS/MSR).
int sysreg(reg_id_t r) {
  switch (r) {
    case DR_REG_NZCV: return 0x5A10;   // op0=3 op1=3 CRn=4 CRm=2 op2=0
    case DR_REG_FPCR: return 0x5A20;   // op0=3 op1=3 CRn=4 CRm=4 op2=0
    case DR_REG_FPSR: return 0x5A21;
    case DR_REG_TPIDR_EL0: return 0x5E82;   // op0=3 op1=3 CRn=13 CRm=0 op2=2
    default: return -1;
  }
}

// LDR/STR (unsigned offset) of a register with `bytes` bytes.
uint32_t ldst(bool load, int bytes, bool vector, int rt, int rn, int32_t disp) {
  if (rt < 0 || rn < 0 || disp < 0 || disp % bytes || disp / bytes > 4095) return 0;
  uint32_t base;
  if (vector) base = load ? 0x3DC00000u : 0x3D800000u;          // Q
  else if (bytes == 8) base = load ? 0xF9400000u : 0xF9000000u;  // X
  else base = load ? 0xB9400000u : 0xB9000000u;                  // W
  return base | uint32_t(disp / bytes) << 10 | uint32_t(rn) << 5 | uint32_t(rt);
}

// LDP/STP of X registers, signed offset, or pre-/post-indexed on SP.
enum pair_mode { kOffset = 0x2, kPre = 0x3, kPost = 0x1 };
uint32_t pair(bool load, bool q, pair_mode mode, int rt, int rt2, int rn, int32_t disp) {
  const int scale = q ? 16 : 8;
  if (rt < 0 || rt2 < 0 || rn < 0 || disp % scale || disp / scale < -64 || disp / scale > 63) return 0;
  const uint32_t opc = q ? 0x2C000000u | 2u << 30 : 0x28000000u | 2u << 30;
  return opc | uint32_t(mode) << 23 | (load ? 1u << 22 : 0) | (uint32_t(disp / scale) & 0x7Fu) << 15 |
         uint32_t(rt2) << 10 | uint32_t(rn) << 5 | uint32_t(rt);
}

// STR Xt, [SP, #-16]! and LDR Xt, [SP], #16.
uint32_t push_x(int rt) { return 0xF81F0FE0u | uint32_t(rt); }
uint32_t pop_x(int rt) { return 0xF84107E0u | uint32_t(rt); }
// STR Qt, [SP, #-16]! and LDR Qt, [SP], #16.
uint32_t push_q(int rt) { return 0x3C9F0FE0u | uint32_t(rt); }
uint32_t pop_q(int rt) { return 0x3CC107E0u | uint32_t(rt); }

uint32_t add_imm(int rd, int rn, uint32_t imm) { return 0x91000000u | (imm & 0xFFFu) << 10 | uint32_t(rn) << 5 | uint32_t(rd); }
uint32_t mrs(int rt, int sr) { return 0xD5300000u | uint32_t(sr) << 5 | uint32_t(rt); }
uint32_t msr(int rt, int sr) { return 0xD5100000u | uint32_t(sr) << 5 | uint32_t(rt); }
uint32_t movz(int rd, uint32_t imm16, int hw) { return 0xD2800000u | uint32_t(hw) << 21 | imm16 << 5 | uint32_t(rd); }
uint32_t movk(int rd, uint32_t imm16, int hw) { return 0xF2800000u | uint32_t(hw) << 21 | imm16 << 5 | uint32_t(rd); }
uint32_t blr(int rn) { return 0xD63F0000u | uint32_t(rn) << 5; }
uint32_t orr_mov(int rd, int rm) { return 0xAA0003E0u | uint32_t(rm) << 16 | uint32_t(rd); }   // mov xd, xm

// Appends words, remembering overflow.
struct emitter {
  uint32_t* out;
  size_t cap, n;
  bool ok;
  void put(uint32_t w) {
    if (w == 0) ok = false;     // no word we emit is 0: 0 means "not encodable"
    if (n < cap) out[n] = w; else ok = false;
    ++n;
  }
  void mov64(int rd, uint64_t v) {
    put(movz(rd, v & 0xFFFF, 0));
    for (int hw = 1; hw < 4; ++hw)
      if ((v >> (16 * hw)) & 0xFFFF) put(movk(rd, (v >> (16 * hw)) & 0xFFFF, hw));
  }
};

constexpr int kX28 = 28, kX27 = 27, kX16 = 16;

// Moves the call's arguments into X0.. : registers first (they are callee-saved
// ones, so no argument register is read after it was written), then immediates.
void emit_args(emitter& e, const instr_t* in) {
  for (int a = 0; a < in->nsrc; ++a) {
    const opnd_t& o = in->src[a];
    if (o.kind != OPND_REG) continue;
    const int rs = gpr(o.reg);
    if (rs < 19 || rs > 27) e.ok = false;
    e.put(orr_mov(a, rs));
  }
  for (int a = 0; a < in->nsrc; ++a)
    if (in->src[a].kind == OPND_IMMED_INT) e.mov64(a, static_cast<uint64_t>(in->src[a].imm));
    else if (in->src[a].kind != OPND_REG) e.ok = false;
}

// Onto the private stack with X`via` as the go-between, and back.
void emit_stack_switch(emitter& e, int via) {
  e.put(add_imm(via, kSp, 0));                           // mov xN, sp
  e.put(ldst(false, 8, false, via, kX28, kAppSpOffset));
  e.put(ldst(true, 8, false, via, kX28, kStackTopOffset));
  e.put(add_imm(kSp, via, 0));                           // mov sp, xN
}
void emit_stack_back(emitter& e, int via) {
  e.put(ldst(true, 8, false, via, kX28, kAppSpOffset));
  e.put(add_imm(kSp, via, 0));
}

// The Q registers of `mask` onto the stack, two at a time where two adjacent
// ones are both in it, and back in the reverse order.
void emit_keep_simd(emitter& e, uint32_t mask) {
  for (int q = 0; q < 32; ++q) {
    if (!(mask >> q & 1)) continue;
    if (q < 31 && (mask >> (q + 1) & 1)) {
      e.put(pair(false, true, kPre, q, q + 1, kSp, -32));
      ++q;
    } else {
      e.put(push_q(q));
    }
  }
}
void emit_restore_simd(emitter& e, uint32_t mask) {
  for (int q = 31; q >= 0; --q) {
    if (!(mask >> q & 1)) continue;
    // The partner a pair was made with: the first of two adjacent members,
    // counted from the bottom.
    int first = q;
    while (first > 0 && (mask >> (first - 1) & 1)) --first;
    if ((q - first) % 2 == 1) {
      e.put(pair(true, true, kPost, q - 1, q, kSp, 32));
      --q;
    } else {
      e.put(pop_q(q));
    }
  }
}

void emit_callee(emitter& e, const instr_t* in) {
  e.mov64(kX16, reinterpret_cast<uint64_t>(in->callee));
  e.put(blr(kX16));
}

// The clean call: onto the private stack, keep everything the callee may
// clobber, pass the arguments, call, and put it all back. With
// DR_CLEANCALL_SAVE_NONE the pass has kept those registers itself, and only
// the stack changes.
void emit_call(emitter& e, const instr_t* in) {
  if (in->save == DR_CLEANCALL_SAVE_NONE) {
    emit_stack_switch(e, kX16);
    emit_keep_simd(e, in->keep_simd);
    emit_args(e, in);
    emit_callee(e, in);
    emit_restore_simd(e, in->keep_simd);
    emit_stack_back(e, kX16);
    return;
  }
  e.put(ldst(false, 8, false, 0, kX28, kScratchOffset));
  emit_stack_switch(e, 0);
  e.put(ldst(true, 8, false, 0, kX28, kScratchOffset));
  for (int r = 0; r < 18; r += 2) e.put(pair(false, false, kPre, r, r + 1, kSp, -16));
  e.put(pair(false, false, kPre, 18, 30, kSp, -16));
  e.put(mrs(0, sysreg(DR_REG_NZCV)));
  e.put(mrs(1, sysreg(DR_REG_FPSR)));
  e.put(pair(false, false, kPre, 0, 1, kSp, -16));
  for (int q = 0; q < 32; q += 2) e.put(pair(false, true, kPre, q, q + 1, kSp, -32));
  emit_args(e, in);
  emit_callee(e, in);
  for (int q = 30; q >= 0; q -= 2) e.put(pair(true, true, kPost, q, q + 1, kSp, 32));
  e.put(pair(true, false, kPost, 0, 1, kSp, 16));
  e.put(msr(0, sysreg(DR_REG_NZCV)));
  e.put(msr(1, sysreg(DR_REG_FPSR)));
  e.put(pair(true, false, kPost, 18, 30, kSp, 16));
  for (int r = 16; r >= 0; r -= 2) e.put(pair(true, false, kPost, r, r + 1, kSp, 16));
  e.put(ldst(false, 8, false, 0, kX28, kScratchOffset));
  emit_stack_back(e, 0);
  e.put(ldst(true, 8, false, 0, kX28, kScratchOffset));
}

// X28 := this thread's block, the application's X28 parked in it.
void emit_entry(emitter& e, const encode_env& env) {
  e.put(push_x(kX28));
  e.put(mrs(kX28, sysreg(DR_REG_TPIDR_EL0)));
  int64_t off = env.tls_offset;
  if (off < 0 || off % 8 || off >= (int64_t(1) << 24)) {
    e.ok = false;
    return;
  }
  if (off >= 32768) {
    e.put(0x91400000u | uint32_t(off >> 12) << 10 | kX28 << 5 | kX28);   // add x28, x28, #hi, lsl #12
    off &= 0xFFF;
  }
  e.put(ldst(true, 8, false, kX28, kX28, static_cast<int32_t>(off)));
  e.put(0xB5000000u | 2u << 5 | kX28);                      // cbnz x28, +8
  e.put(kNoBlockTrap);
  e.put(ldst(false, 8, false, kX27, kX28, kScratchOffset));
  e.put(pop_x(kX27));
  e.put(ldst(false, 8, false, kX27, kX28, kAppX28Offset));
  e.put(ldst(true, 8, false, kX27, kX28, kScratchOffset));
}

void emit_exit(emitter& e) {
  e.put(ldst(false, 8, false, kX27, kX28, kScratchOffset));
  e.put(ldst(true, 8, false, kX27, kX28, kAppX28Offset));
  e.put(push_x(kX27));
  e.put(ldst(true, 8, false, kX27, kX28, kScratchOffset));
  e.put(pop_x(kX28));
}

}  // namespace

uint32_t encode_instr(const instr_t* in) {
  switch (in->opcode) {
    case OP_str:
    case OP_ldr: {
      const bool load = in->opcode == OP_ldr;
      const opnd_t r = load ? in->dst[0] : in->src[0];
      const opnd_t m = load ? in->src[0] : in->dst[0];
      if (r.kind != OPND_REG || m.kind != OPND_BASE_DISP) return 0;
      if (is_q(r.reg)) return ldst(load, 16, true, r.reg - DR_REG_Q0, base_reg(m.reg), m.disp);
      return ldst(load, is_w(r.reg) ? 4 : 8, false, gpr(r.reg), base_reg(m.reg), m.disp);
    }
    case OP_stp:
      if (in->dst[0].kind != OPND_BASE_DISP) return 0;
      return pair(false, false, kOffset, gpr(in->src[0].reg), gpr(in->src[1].reg), base_reg(in->dst[0].reg),
                  in->dst[0].disp);
    case OP_ldp:
      if (in->src[0].kind != OPND_BASE_DISP) return 0;
      return pair(true, false, kOffset, gpr(in->dst[0].reg), gpr(in->dst[1].reg), base_reg(in->src[0].reg),
                  in->src[0].disp);
    case OP_add: {
      // add Xd|SP, Xn|SP, #imm (LSL #0): the only add the pass builds.
      const int rd = base_reg(in->dst[0].reg), rn = base_reg(in->src[0].reg);
      if (rd < 0 || rn < 0 || in->src[1].kind != OPND_IMMED_INT || in->src[1].imm < 0 || in->src[1].imm > 4095)
        return 0;
      if (in->nsrc > 3 && in->src[3].imm != 0) return 0;
      return add_imm(rd, rn, static_cast<uint32_t>(in->src[1].imm));
    }
    case OP_mrs: {
      const int rt = gpr(in->dst[0].reg), sr = sysreg(in->src[0].reg);
      return rt < 0 || sr < 0 ? 0 : mrs(rt, sr);
    }
    case OP_msr: {
      const int rt = gpr(in->src[0].reg), sr = sysreg(in->dst[0].reg);
      return rt < 0 || sr < 0 ? 0 : msr(rt, sr);
    }
    default:
      return 0;
  }
}

bool branch_in_range(uint64_t from, uint64_t to) {
  const int64_t d = static_cast<int64_t>(to - from);
  return d % 4 == 0 && d >= -(int64_t(1) << 27) && d < (int64_t(1) << 27);
}

uint32_t encode_branch(uint64_t from, uint64_t to) {
  if (!branch_in_range(from, to)) return 0;
  return 0x14000000u | (static_cast<uint32_t>(static_cast<int64_t>(to - from) / 4) & 0x3FFFFFFu);
}

size_t encode_sequence(const instrlist_t* ilist, const encode_env& env, uint32_t* out, size_t cap) {
  emitter e{out, cap, 0, true};
  emit_entry(e, env);
  for (const instr_t* in = ilist->first; in; in = in->next) {
    switch (in->opcode) {
      case OP_quern_emulation_start:
      case OP_quern_emulation_end:
        break;
      case OP_quern_call:
        emit_call(e, in);
        break;
      default:
        if (in->app) {
          // An application instruction the pass kept runs as it is.
          e.put(in->raw);
          break;
        }
        e.put(encode_instr(in));
    }
  }
  emit_exit(e);
  e.put(encode_branch(env.code_addr + 4 * e.n, env.next_pc));
  return e.ok ? e.n : 0;
}
