// Operands, instructions and instruction lists.
#include "framework/ir.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

void* arena_alloc(arena_t* a, size_t bytes) {
  const size_t at = (a->used + 15) & ~size_t(15);
  if (at + bytes > a->size) {
    // A pass that outgrows its arena is a framework bug, not an application error.
    static const char msg[] = "quern: instruction arena exhausted\n";
    (void)!write(2, msg, sizeof msg - 1);
    abort();
  }
  a->used = at + bytes;
  return a->base + at;
}

// ---- operands -------------------------------------------------------------------

opnd_t opnd_create_reg(reg_id_t r) {
  opnd_t o{};
  o.kind = OPND_REG;
  o.reg = r;
  return o;
}

opnd_t opnd_create_immed_int(ptr_int_t i, opnd_size_t size) {
  opnd_t o{};
  o.kind = OPND_IMMED_INT;
  o.size = size;
  o.imm = i;
  return o;
}

opnd_t opnd_create_base_disp(reg_id_t base, reg_id_t index, int scale, int disp, opnd_size_t size) {
  (void)scale;
  opnd_t o{};
  o.kind = OPND_BASE_DISP;
  o.reg = base;
  o.index = index;
  o.disp = disp;
  o.size = size;
  return o;
}

opnd_t opnd_add_flags(opnd_t opnd, dr_opnd_flags_t flags) {
  opnd.flags = static_cast<uint16_t>(opnd.flags | flags);
  return opnd;
}

bool opnd_is_reg(opnd_t opnd) { return opnd.kind == OPND_REG; }
reg_id_t opnd_get_reg(opnd_t opnd) { return opnd.kind == OPND_REG ? opnd.reg : DR_REG_NULL; }

// ---- instructions -------------------------------------------------------------------

instr_t* instr_create(void* drcontext) {
  instr_t* in = static_cast<instr_t*>(arena_alloc(drcontext_arena(drcontext), sizeof(instr_t)));
  std::memset(in, 0, sizeof *in);
  in->opcode = OP_INVALID;
  return in;
}

void instr_destroy(void* drcontext, instr_t* instr) {
  // Arena memory goes back when the pass is over.
  (void)drcontext;
  (void)instr;
}

static instr_t* make(void* dc, int opcode, std::initializer_list<opnd_t> dsts, std::initializer_list<opnd_t> srcs) {
  instr_t* in = instr_create(dc);
  in->opcode = opcode;
  for (const opnd_t& d : dsts) in->dst[in->ndst++] = d;
  for (const opnd_t& s : srcs) in->src[in->nsrc++] = s;
  return in;
}

instr_t* instr_create_1dst_1src(void* dc, int opcode, opnd_t dst, opnd_t src) {
  return make(dc, opcode, {dst}, {src});
}
instr_t* instr_create_1dst_2src(void* dc, int opcode, opnd_t dst, opnd_t src1, opnd_t src2) {
  return make(dc, opcode, {dst}, {src1, src2});
}
instr_t* instr_create_2dst_1src(void* dc, int opcode, opnd_t dst1, opnd_t dst2, opnd_t src) {
  return make(dc, opcode, {dst1, dst2}, {src});
}
instr_t* instr_create_1dst_4src(void* dc, int opcode, opnd_t dst, opnd_t src1, opnd_t src2, opnd_t src3,
                                opnd_t src4) {
  return make(dc, opcode, {dst}, {src1, src2, src3, src4});
}

void instr_set_raw_bits(instr_t* instr, byte* addr, uint length) {
  uint32_t w = 0;
  std::memcpy(&w, addr, length < 4 ? length : 4);
  instr->raw = w;
  instr->pc = addr;
  instr_decode_app(instr, w);
}

void instr_set_raw_bits_valid(instr_t* instr, bool valid) { instr->raw_valid = valid; }
byte* instr_get_raw_bits(instr_t* instr) { return reinterpret_cast<byte*>(&instr->raw); }
app_pc instr_get_app_pc(instr_t* instr) { return instr->pc; }

instr_t* instr_set_translation(instr_t* instr, app_pc addr) {
  instr->translation = addr;
  return instr;
}

int instr_get_opcode(instr_t* instr) { return instr->opcode; }
int instr_num_dsts(instr_t* instr) { return instr->ndst; }
int instr_num_srcs(instr_t* instr) { return instr->nsrc; }
opnd_t instr_get_dst(instr_t* instr, uint pos) { return pos < instr->ndst ? instr->dst[pos] : opnd_t{}; }
opnd_t instr_get_src(instr_t* instr, uint pos) { return pos < instr->nsrc ? instr->src[pos] : opnd_t{}; }

// MSR <sysreg>, Xt is the one application instruction the pass looks into.
void instr_decode_app(instr_t* instr, uint32_t word) {
  instr->opcode = OP_UNDECODED;
  instr->ndst = instr->nsrc = 0;
  if ((word & 0xFFF00000u) != 0xD5100000u || ((word >> 19) & 1u) == 0) return;   // MSR (register)
  const uint32_t sysreg = (word >> 5) & 0x7FFFu;
  reg_id_t target;
  switch (sysreg) {
    case 0x5A20: target = DR_REG_FPCR; break;   // op0=3 op1=3 CRn=4 CRm=4 op2=0
    case 0x5A21: target = DR_REG_FPSR; break;
    case 0x5A10: target = DR_REG_NZCV; break;
    default: return;
  }
  instr->opcode = OP_msr;
  instr->dst[instr->ndst++] = opnd_create_reg(target);
  const uint32_t rt = word & 31u;
  instr->src[instr->nsrc++] = opnd_create_reg(static_cast<reg_id_t>(rt == 31 ? DR_REG_XZR : DR_REG_X0 + rt));
}

instr_t* instr_create_app(void* drcontext, app_pc pc) {
  instr_t* in = instr_create(drcontext);
  in->app = true;
  instr_set_raw_bits(in, pc, 4);
  in->raw_valid = true;
  in->translation = pc;
  return in;
}

// ---- lists --------------------------------------------------------------------------------

instrlist_t* instrlist_create(void* drcontext) {
  instrlist_t* l = static_cast<instrlist_t*>(arena_alloc(drcontext_arena(drcontext), sizeof(instrlist_t)));
  l->first = l->last = nullptr;
  return l;
}

void instrlist_append(instrlist_t* ilist, instr_t* instr) {
  instr->prev = ilist->last;
  instr->next = nullptr;
  (ilist->last ? ilist->last->next : ilist->first) = instr;
  ilist->last = instr;
}

void instrlist_preinsert(instrlist_t* ilist, instr_t* where, instr_t* instr) {
  if (!where) {
    instrlist_append(ilist, instr);
    return;
  }
  instr->next = where;
  instr->prev = where->prev;
  (where->prev ? where->prev->next : ilist->first) = instr;
  where->prev = instr;
}

void instrlist_remove(instrlist_t* ilist, instr_t* instr) {
  (instr->prev ? instr->prev->next : ilist->first) = instr->next;
  (instr->next ? instr->next->prev : ilist->last) = instr->prev;
  instr->prev = instr->next = nullptr;
}

instr_t* instrlist_first_app(instrlist_t* ilist) {
  for (instr_t* in = ilist->first; in; in = in->next)
    if (in->app) return in;
  return nullptr;
}

instr_t* instr_get_next_app(instr_t* instr) {
  for (instr_t* in = instr->next; in; in = in->next)
    if (in->app) return in;
  return nullptr;
}

unsigned instrlist_length(const instrlist_t* ilist) {
  unsigned n = 0;
  for (const instr_t* in = ilist->first; in; in = in->next) ++n;
  return n;
}
