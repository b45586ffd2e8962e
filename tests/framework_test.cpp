// The framework's encoder against the GNU assembler, and its fallback
// interpreter against the meaning of the same instructions.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "framework/encode.h"
#include "framework/interp.h"
#include "framework/thread_block.h"

namespace {

struct block_holder {
  alignas(16) quern_thread t{};
  std::vector<unsigned char> arena = std::vector<unsigned char>(1 << 16);
  block_holder() { t.arena = {arena.data(), arena.size(), 0}; }
  void* dc() { return &t; }
};

opnd_t r(reg_id_t x) { return opnd_create_reg(x); }
opnd_t m(reg_id_t base, int disp, opnd_size_t size) { return opnd_create_base_disp(base, DR_REG_NULL, 0, disp, size); }
reg_id_t X(int n) { return static_cast<reg_id_t>(DR_REG_X0 + n); }
reg_id_t W(int n) { return static_cast<reg_id_t>(DR_REG_W0 + n); }
reg_id_t Q(int n) { return static_cast<reg_id_t>(DR_REG_Q0 + n); }

instr_t* add0(void* dc, reg_id_t d, reg_id_t n) {
  return instr_create_1dst_4src(dc, OP_add, r(d), r(n), opnd_create_immed_int(0, OPSZ_4),
                                opnd_add_flags(opnd_create_immed_int(DR_SHIFT_LSL, OPSZ_4), DR_OPND_IS_SHIFT),
                                opnd_create_immed_int(0, OPSZ_1));
}

// Assembles `lines` with the GNU assembler; empty if it is not available.
std::vector<uint32_t> assemble(const std::vector<std::string>& lines) {
  const std::string dir = testing::TempDir();
  const std::string s = dir + "/fw_enc.s", o = dir + "/fw_enc.o", bin = dir + "/fw_enc.bin";
  std::ofstream(s) << [&] {
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    return text;
  }();
  const std::string cmd = "aarch64-linux-gnu-as -o " + o + " " + s + " 2>/dev/null && aarch64-linux-gnu-objcopy -O binary " +
                          o + " " + bin + " 2>/dev/null";
  if (std::system(cmd.c_str()) != 0) return {};
  std::ifstream in(bin, std::ios::binary);
  std::vector<uint32_t> words;
  uint32_t w;
  while (in.read(reinterpret_cast<char*>(&w), 4)) words.push_back(w);
  return words;
}

TEST(Encoder, ClientFormsMatchTheAssembler) {
  block_holder b;
  void* dc = b.dc();
  const struct {
    instr_t* in;
    const char* text;
  } cases[] = {
      {instr_create_1dst_1src(dc, OP_str, m(X(27), 248, OPSZ_8), r(X(26))), "str x26, [x27, #248]"},
      {instr_create_1dst_1src(dc, OP_ldr, r(X(26)), m(X(27), 248, OPSZ_8)), "ldr x26, [x27, #248]"},
      {instr_create_1dst_1src(dc, OP_str, m(X(27), 272, OPSZ_4), r(W(26))), "str w26, [x27, #272]"},
      {instr_create_1dst_1src(dc, OP_ldr, r(W(26)), m(X(27), 272, OPSZ_4)), "ldr w26, [x27, #272]"},
      {instr_create_1dst_1src(dc, OP_str, m(X(22), 276, OPSZ_4), r(DR_REG_WZR)), "str wzr, [x22, #276]"},
      {instr_create_1dst_1src(dc, OP_str, m(X(27), 288 + 48 * 31, OPSZ_16), r(Q(31))), "str q31, [x27, #1776]"},
      {instr_create_1dst_1src(dc, OP_ldr, r(Q(5)), m(X(27), 288 + 48 * 5, OPSZ_16)), "ldr q5, [x27, #528]"},
      {instr_create_1dst_2src(dc, OP_stp, m(X(27), 0, OPSZ_16), r(X(0)), r(X(1))), "stp x0, x1, [x27]"},
      {instr_create_1dst_2src(dc, OP_stp, m(X(27), 232, OPSZ_16), r(X(29)), r(X(30))), "stp x29, x30, [x27, #232]"},
      {instr_create_2dst_1src(dc, OP_ldp, r(X(24)), r(X(25)), m(X(27), 192, OPSZ_16)), "ldp x24, x25, [x27, #192]"},
      {add0(dc, X(26), DR_REG_XSP), "mov x26, sp"},
      {add0(dc, DR_REG_XSP, X(26)), "mov sp, x26"},
      {instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_NZCV)), "mrs x26, nzcv"},
      {instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_FPSR)), "mrs x26, fpsr"},
      {instr_create_1dst_1src(dc, OP_msr, r(DR_REG_NZCV), r(X(26))), "msr nzcv, x26"},
      {instr_create_1dst_1src(dc, OP_msr, r(DR_REG_FPSR), r(X(26))), "msr fpsr, x26"},
      {instr_create_1dst_1src(dc, OP_msr, r(DR_REG_FPCR), r(X(21))), "msr fpcr, x21"},
      {instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_FPCR)), "mrs x26, fpcr"},
      {instr_create_2dst_1src(dc, OP_ldp, r(X(26)), r(X(27)), m(X(27), 208, OPSZ_16)), "ldp x26, x27, [x27, #208]"},
  };
  std::vector<std::string> texts;
  for (const auto& c : cases) texts.push_back(c.text);
  const std::vector<uint32_t> want = assemble(texts);
  if (want.empty()) GTEST_SKIP() << "aarch64-linux-gnu-as is not available";
  ASSERT_EQ(want.size(), std::size(cases));
  for (size_t i = 0; i < want.size(); ++i)
    EXPECT_EQ(encode_instr(cases[i].in), want[i]) << cases[i].text << std::hex << " want " << want[i];
}

TEST(Encoder, RefusesWhatItCannotEncode) {
  block_holder b;
  void* dc = b.dc();
  EXPECT_EQ(encode_instr(instr_create_1dst_1src(dc, OP_str, m(X(27), 4, OPSZ_8), r(X(0)))), 0u);       // misaligned
  EXPECT_EQ(encode_instr(instr_create_1dst_1src(dc, OP_str, m(X(27), 40000, OPSZ_8), r(X(0)))), 0u);   // too far
  EXPECT_EQ(encode_instr(instr_create_1dst_2src(dc, OP_stp, m(X(27), 512, OPSZ_16), r(X(0)), r(X(1)))), 0u);
  EXPECT_EQ(encode_instr(instr_create_1dst_1src(dc, OP_mrs, r(X(0)), r(Q(0)))), 0u);
}

TEST(Encoder, BranchesAndTheirRange) {
  EXPECT_EQ(encode_branch(0x1000, 0x1004), 0x14000001u);
  EXPECT_EQ(encode_branch(0x1004, 0x1000), 0x17FFFFFFu);
  EXPECT_TRUE(branch_in_range(0, (1ull << 27) - 4));
  EXPECT_FALSE(branch_in_range(0, 1ull << 27));
  EXPECT_EQ(encode_branch(0, 1ull << 27), 0u);
}

// A whole sequence: entry, the list, exit, branch back; checked by running it
// through the disassembler's eyes would need the runtime; here its frame.
TEST(Encoder, SequenceEndsWithTheBranchBack) {
  block_holder b;
  void* dc = b.dc();
  instrlist_t* il = instrlist_create(dc);
  instrlist_append(il, instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_NZCV)));
  uint32_t code[512];
  const encode_env env{0x10000, 0x20004, 16};
  const size_t n = encode_sequence(il, env, code, 512);
  ASSERT_GT(n, 10u);
  EXPECT_EQ(code[n - 1], encode_branch(0x10000 + 4 * (n - 1), 0x20004));
  EXPECT_EQ(code[0], 0xF81F0FFCu);   // str x28, [sp, #-16]!
  EXPECT_EQ(encode_sequence(il, env, code, 5), 0u);                              // no room
  EXPECT_EQ(encode_sequence(il, encode_env{0, 1ull << 40, 16}, code, 512), 0u);   // out of range
}

// The call that keeps nothing itself: the stack switch, the arguments (a
// register first), the callee, the way back; nothing else.
TEST(Encoder, CallWithoutSavesMatchesTheAssembler) {
  block_holder b;
  void* dc = b.dc();
  const encode_env env{0x10000, 0x20004, 16};
  uint32_t frame[64], code[128];
  const size_t bare = encode_sequence(instrlist_create(dc), env, frame, 64);   // entry, exit, branch
  instrlist_t* il = instrlist_create(dc);
  // Q0..Q2 and Q5 kept: a pair, a single, a single; back in reverse order.
  dr_insert_call_quern_ex(dc, il, nullptr, nullptr, reinterpret_cast<void*>(0x123456789ABCull),
                          DR_CLEANCALL_SAVE_NONE, 0x27, 3, r(X(27)), opnd_create_immed_int(0x25E0C020, OPSZ_4),
                          opnd_create_immed_int(0x4000, OPSZ_8));
  const size_t n = encode_sequence(il, env, code, 128);
  ASSERT_GT(n, bare);
  const size_t entry = bare - 6;   // the exit is five words and the branch back
  const std::string sp = std::to_string(kAppSpOffset), top = std::to_string(kStackTopOffset);
  const std::vector<uint32_t> want = assemble({
      "mov x16, sp", "str x16, [x28, #" + sp + "]", "ldr x16, [x28, #" + top + "]", "mov sp, x16",
      "stp q0, q1, [sp, #-32]!", "str q2, [sp, #-16]!", "str q5, [sp, #-16]!",
      "mov x0, x27", "movz x1, #0xc020", "movk x1, #0x25e0, lsl #16", "movz x2, #0x4000",
      "movz x16, #0x9abc", "movk x16, #0x5678, lsl #16", "movk x16, #0x1234, lsl #32", "blr x16",
      "ldr q5, [sp], #16", "ldr q2, [sp], #16", "ldp q0, q1, [sp], #32",
      "ldr x16, [x28, #" + sp + "]", "mov sp, x16"});
  if (want.empty()) GTEST_SKIP() << "aarch64-linux-gnu-as is not available";
  ASSERT_EQ(n - bare, want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(code[entry + i], want[i]) << "word " << i;
  // Only callee-saved registers can be arguments: X0 would be overwritten first.
  instrlist_t* bad = instrlist_create(dc);
  dr_insert_call_quern_ex(dc, bad, nullptr, nullptr, reinterpret_cast<void*>(0x1000), DR_CLEANCALL_SAVE_NONE, 0, 2,
                          opnd_create_immed_int(1, OPSZ_8), r(X(0)));
  EXPECT_EQ(encode_sequence(bad, env, code, 128), 0u);
}

// ---- the fallback interpreter ----------------------------------------------------------------------

uint64_t seen_args[4];
void record_call(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  seen_args[0] = a;
  seen_args[1] = b;
  seen_args[2] = c;
  seen_args[3] = d;
}

TEST(Interpreter, CarriesOutTheRepertoire) {
  block_holder b;
  void* dc = b.dc();
  alignas(16) unsigned char record[2048] = {};
  b.t.tls[0] = record;
  reg_file regs{};
  for (int i = 0; i < 31; ++i) regs.x[i] = 0x100 + i;
  regs.sp = 0x7000;
  regs.nzcv = 0x60000000;
  regs.fpsr = 0x10;
  regs.fpcr = 0x00C00000;
  for (int i = 0; i < 32; ++i) std::memset(regs.q[i], i, 16);

  instrlist_t* il = instrlist_create(dc);
  dr_save_reg(dc, il, nullptr, X(26), SPILL_SLOT_1);
  dr_insert_get_stolen_reg_value(dc, il, nullptr, X(27));
  dr_save_reg(dc, il, nullptr, X(27), SPILL_SLOT_3);
  drmgr_insert_read_tls_field(dc, 0, il, nullptr, X(27));
  instrlist_append(il, add0(dc, X(26), DR_REG_XSP));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_str, m(X(27), 248, OPSZ_8), r(X(26))));
  instrlist_append(il, instr_create_1dst_2src(dc, OP_stp, m(X(27), 0, OPSZ_16), r(X(0)), r(X(1))));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_str, m(X(27), 288, OPSZ_16), r(Q(7))));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_NZCV)));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_str, m(X(27), 264, OPSZ_8), r(X(26))));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_mrs, r(X(26)), r(DR_REG_FPCR)));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_str, m(X(27), 276, OPSZ_4), r(W(26))));
  dr_insert_call_quern_ex(dc, il, nullptr, nullptr, reinterpret_cast<void*>(&record_call), DR_CLEANCALL_SAVE_NONE, 0, 4,
                          r(X(27)), opnd_create_immed_int(0x25E0C020, OPSZ_4), opnd_create_immed_int(0x4000, OPSZ_8),
                          opnd_create_immed_int(0x1234, OPSZ_8));
  instrlist_append(il, instr_create_2dst_1src(dc, OP_ldp, r(X(3)), r(X(4)), m(X(27), 0, OPSZ_16)));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_msr, r(DR_REG_FPSR), r(DR_REG_XZR)));
  instrlist_append(il, instr_create_1dst_1src(dc, OP_ldr, r(Q(9)), m(X(27), 288, OPSZ_16)));
  dr_restore_reg(dc, il, nullptr, X(26), SPILL_SLOT_1);

  ASSERT_TRUE(interpret_sequence(il, regs, dc));
  uint64_t v;
  std::memcpy(&v, record + 248, 8);
  EXPECT_EQ(v, 0x7000u);                               // SP through X26
  std::memcpy(&v, record + 0, 8);
  EXPECT_EQ(v, 0x100u);
  std::memcpy(&v, record + 264, 8);
  EXPECT_EQ(v, 0x60000000u);
  uint32_t fpcr;
  std::memcpy(&fpcr, record + 276, 4);
  EXPECT_EQ(fpcr, 0x00C00000u);                        // the live FPCR, read by MRS
  EXPECT_EQ(seen_args[0], reinterpret_cast<uint64_t>(record));   // a register argument
  EXPECT_EQ(seen_args[1], 0x25E0C020u);
  EXPECT_EQ(seen_args[2], 0x4000u);
  EXPECT_EQ(seen_args[3], 0x1234u);
  EXPECT_EQ(regs.x[3], 0x100u);
  EXPECT_EQ(regs.x[4], 0x101u);
  EXPECT_EQ(regs.fpsr, 0u);
  EXPECT_EQ(regs.q[9][0], 7);
  EXPECT_EQ(regs.x[26], 0x100u + 26);                  // restored from its slot
  EXPECT_EQ(regs.x[27], reinterpret_cast<uint64_t>(record));
  EXPECT_EQ(regs.x[28], 0x100u + 28);                  // the application's X28 is back
  EXPECT_EQ(b.t.spill[2], 0x100u + 28);                // and it was what the list saw as stolen
}

TEST(Interpreter, RefusesApplicationInstructions) {
  block_holder b;
  void* dc = b.dc();
  uint32_t word = 0x25E0C020;
  instrlist_t* il = instrlist_create(dc);
  instrlist_append(il, instr_create_app(dc, reinterpret_cast<app_pc>(&word)));
  reg_file regs{};
  EXPECT_FALSE(interpret_sequence(il, regs, dc));
}

TEST(Decode, RecognisesWritesOfFpcr) {
  block_holder b;
  void* dc = b.dc();
  const struct {
    uint32_t word;
    int opcode;
    reg_id_t dst, src;
  } cases[] = {
      {0xD51B4415, OP_msr, DR_REG_FPCR, X(21)},        // msr fpcr, x21
      {0xD51B441F, OP_msr, DR_REG_FPCR, DR_REG_XZR},   // msr fpcr, xzr
      {0xD51B4420, OP_msr, DR_REG_FPSR, X(0)},         // msr fpsr, x0
      {0xD53B4400, OP_UNDECODED, 0, 0},                // mrs x0, fpcr
      {0x25E0C020, OP_UNDECODED, 0, 0},                // an SVE word
  };
  for (const auto& c : cases) {
    uint32_t w = c.word;
    instr_t* in = instr_create_app(dc, reinterpret_cast<app_pc>(&w));
    EXPECT_EQ(instr_get_opcode(in), c.opcode) << std::hex << c.word;
    if (c.opcode != OP_msr) continue;
    EXPECT_EQ(instr_num_dsts(in), 1);
    EXPECT_EQ(opnd_get_reg(instr_get_dst(in, 0)), c.dst);
    EXPECT_EQ(opnd_get_reg(instr_get_src(in, 0)), c.src);
  }
}

}  // namespace
