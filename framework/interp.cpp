// The fallback interpreter. It knows exactly the forms that encode.cpp
// encodes, with the same meaning, so that both ways give the same results.
#include "framework/interp.h"

#include <cstring>

#include "framework/thread_block.h"

namespace {

struct machine {
  reg_file& r;

  uint64_t& xref(reg_id_t reg) {
    static uint64_t sink;
    if (reg >= DR_REG_X0 && reg <= DR_REG_X0 + 30) return r.x[reg - DR_REG_X0];
    if (reg >= DR_REG_W0 && reg <= DR_REG_W0 + 30) return r.x[reg - DR_REG_W0];
    if (reg == DR_REG_XSP) return r.sp;
    sink = 0;   // XZR/WZR: reads 0, writes vanish
    return sink;
  }
  uint64_t read(reg_id_t reg) {
    if (reg == DR_REG_XZR || reg == DR_REG_WZR) return 0;
    const uint64_t v = xref(reg);
    return reg >= DR_REG_W0 && reg <= DR_REG_WZR ? static_cast<uint32_t>(v) : v;
  }
  void write(reg_id_t reg, uint64_t v) {
    if (reg >= DR_REG_W0 && reg <= DR_REG_WZR) v = static_cast<uint32_t>(v);
    xref(reg) = v;
  }
  unsigned char* addr(const opnd_t& m) { return reinterpret_cast<unsigned char*>(read(m.reg) + m.disp); }

  bool load_store(const instr_t* in) {
    const bool load = in->opcode == OP_ldr;
    const opnd_t reg = load ? in->dst[0] : in->src[0];
    const opnd_t m = load ? in->src[0] : in->dst[0];
    if (reg.kind != OPND_REG || m.kind != OPND_BASE_DISP) return false;
    unsigned char* p = addr(m);
    if (reg.reg >= DR_REG_Q0 && reg.reg < DR_REG_Q0 + 32) {
      unsigned char* q = r.q[reg.reg - DR_REG_Q0];
      load ? std::memcpy(q, p, 16) : std::memcpy(p, q, 16);
      return true;
    }
    const size_t bytes = reg.reg >= DR_REG_W0 && reg.reg <= DR_REG_WZR ? 4 : 8;
    if (load) {
      uint64_t v = 0;
      std::memcpy(&v, p, bytes);
      write(reg.reg, v);
    } else {
      const uint64_t v = read(reg.reg);
      std::memcpy(p, &v, bytes);
    }
    return true;
  }

  bool sysreg_move(const instr_t* in) {
    const bool to_sys = in->opcode == OP_msr;
    const reg_id_t sys = to_sys ? in->dst[0].reg : in->src[0].reg;
    const reg_id_t gp = to_sys ? in->src[0].reg : in->dst[0].reg;
    if (to_sys) {
      const uint64_t v = read(gp);
      if (sys == DR_REG_NZCV) r.nzcv = v & 0xF0000000u;
      else if (sys == DR_REG_FPSR) r.fpsr = static_cast<uint32_t>(v);
      else if (sys == DR_REG_FPCR) r.fpcr = static_cast<uint32_t>(v);
      else return false;
    } else {
      if (sys == DR_REG_NZCV) write(gp, r.nzcv);
      else if (sys == DR_REG_FPSR) write(gp, r.fpsr);
      else if (sys == DR_REG_FPCR) write(gp, r.fpcr);
      else return false;
    }
    return true;
  }

  bool step(const instr_t* in) {
    switch (in->opcode) {
      case OP_ldr:
      case OP_str:
        return load_store(in);
      case OP_stp:
      case OP_ldp: {
        const bool load = in->opcode == OP_ldp;
        const opnd_t m = load ? in->src[0] : in->dst[0];
        unsigned char* p = addr(m);
        for (int i = 0; i < 2; ++i) {
          if (load) {
            uint64_t v;
            std::memcpy(&v, p + 8 * i, 8);
            write(in->dst[i].reg, v);
          } else {
            const uint64_t v = read(in->src[i].reg);
            std::memcpy(p + 8 * i, &v, 8);
          }
        }
        return true;
      }
      case OP_add:
        write(in->dst[0].reg, read(in->src[0].reg) + static_cast<uint64_t>(in->src[1].imm));
        return true;
      case OP_mrs:
      case OP_msr:
        return sysreg_move(in);
      case OP_quern_call: {
        uint64_t a[kMaxCallArgs] = {};
        for (int i = 0; i < in->nsrc; ++i)
          a[i] = in->src[i].kind == OPND_REG ? read(in->src[i].reg) : static_cast<uint64_t>(in->src[i].imm);
        reinterpret_cast<void (*)(uint64_t, uint64_t, uint64_t, uint64_t)>(in->callee)(a[0], a[1], a[2], a[3]);
        return true;
      }
      case OP_quern_emulation_start:
      case OP_quern_emulation_end:
        return true;
      default:
        return false;
    }
  }
};

}  // namespace

bool interpret_sequence(const instrlist_t* ilist, reg_file& regs, void* block) {
  quern_thread* t = static_cast<quern_thread*>(block);
  t->app_x28 = regs.x[28];
  regs.x[28] = reinterpret_cast<uint64_t>(block);
  machine m{regs};
  bool ok = true;
  for (const instr_t* in = ilist->first; in && ok; in = in->next) {
    if (in->app) ok = false;   // the fallback runs only what the pass built
    else ok = m.step(in);
  }
  regs.x[28] = t->app_x28;
  return ok;
}
