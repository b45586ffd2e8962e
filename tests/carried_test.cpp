// The ordinary instructions that runs carry. Their results are held against
// the reference processor by the e2e random-runs case; what it cannot reach
// is here: the encodings a run must leave alone, and the forms that read SP
// or the PC, which differ from one processor to the other.
#include <gtest/gtest.h>

#include "sve/client/carried.h"

namespace {

TEST(Carried, LeavesAloneWhatItMustNotCarry) {
  const struct {
    uint32_t word;
    const char* what;
  } kRefused[] = {
      {0x9100403Fu, "add sp, x1, #16 (writes SP)"},
      {0xD10043FFu, "sub sp, sp, #16"},
      {0x92401C1Fu, "and sp, x0, #0xff"},
      {0xB24003FFu, "mov sp, #1 (orr immediate)"},
      {0x8B3F63FFu, "add sp, sp, xzr (extended)"},
      {0x8B020020u | 3u << 22, "add with shift 11"},
      {0x0B020020u | 32u << 10, "32-bit add shifted by 32"},
      {0x8B244BE3u | 5u << 10, "extended register shifted by 5"},
      {0x2A020020u | 32u << 10, "32-bit orr shifted by 32"},
      {0xB2800000u, "move wide with opc 01"},
      {0x52C00020u, "32-bit movz with lsl #32"},
      {0x12400020u, "32-bit logical immediate with N set"},
      {0x9240FC20u, "logical immediate of all ones"},
      {0x9200F820u, "logical immediate without element size"},
      {0xD3000020u, "64-bit bitfield with N clear"},
      {0x13008020u, "32-bit bitfield with imms 32"},
      {0x13828020u, "32-bit extr with lsb 32"},
      {0x9AC20020u, "two-source opcode 0"},
      {0x9AC25020u, "two-source opcode 010100 (CRC32 forms)"},
      {0x9B620020u, "three-source op31 011"},
      {0x9B420020u, "smulh with Ra not 31"},
      {0x1B220020u, "32-bit smaddl"},
      {0x5AC00C20u, "32-bit rev with opc 11"},
      {0x9A020020u, "adc (reads C)"},
      {0xFA410000u, "ccmp"},
      {0xF9400020u, "ldr x0, [x1]"},
      {0x14000000u, "b ."},
      {0xD53B4200u, "mrs x0, nzcv"},
      {0xD51B4200u, "msr nzcv, x0"},
      {0xD503203Fu, "yield"},
      {0x04A00020u, "an SVE word"},
  };
  for (const auto& r : kRefused) {
    register_use use{};
    EXPECT_FALSE(carried_instruction(r.word, &use)) << r.what;
  }
}

TEST(Carried, NamesItsRegisters) {
  register_use use{};
  ASSERT_TRUE(carried_instruction(0x8B1602B4u, &use));   // add x20, x21, x22
  ASSERT_TRUE(carried_instruction(0x1B0720C5u, &use));   // madd w5, w6, w7, w8
  EXPECT_EQ(use.x, 0x7u << 20 | 0xFu << 5);
  EXPECT_FALSE(use.sp);
  ASSERT_TRUE(carried_instruction(0xD503201Fu, &use));   // nop
  EXPECT_FALSE(use.sp);
  ASSERT_TRUE(carried_instruction(0x910043E1u, &use));   // add x1, sp, #16
  EXPECT_TRUE(use.sp);
}

// The forms whose operands come from SP or the PC.
TEST(Carried, ReadsSpAndPc) {
  cpu_state cs{};
  unsigned char code[8];
  cs.sp = 0x7FFFF000;
  cs.x[4] = 0xFFFFFFFF00000003ull;
  cs.pc = code;
  const struct {
    uint32_t word;
    unsigned reg;
    uint64_t want;
  } kCases[] = {
      {0x910043E1u, 1, 0x7FFFF010},                       // add x1, sp, #16
      {0x8B244BE3u, 3, 0x7FFFF00C},                       // add x3, sp, w4, uxtw #2
      {0x10FFFFE2u, 2, reinterpret_cast<uint64_t>(code) - 4},   // adr x2, .-4
      {0xD0000003u, 3, (reinterpret_cast<uint64_t>(code) & ~0xFFFull) + 0x2000},   // adrp x3, .+0x2000
  };
  for (const auto& c : kCases) {
    register_use use{};
    const sve_handler_fn entry = carried_instruction(c.word, &use);
    ASSERT_TRUE(entry) << std::hex << c.word;
    entry(&cs, c.word);
    EXPECT_EQ(cs.x[c.reg], c.want) << std::hex << c.word;
  }
  // cmp sp, #1: the flags of SP - 1, SP itself unchanged.
  register_use use{};
  carried_instruction(0xF10007FFu, &use)(&cs, 0xF10007FFu);
  EXPECT_EQ(cs.nzcv, 0x20000000u);
  EXPECT_EQ(cs.sp, 0x7FFFF000u);
}

}  // namespace
