// The adapters' shared machinery: predicate packing, immediate expansion, the
// generic road's moves, the no-op road and the report of unlanded rows.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/decode.h"
#include "decode_decls.h"
#include "test_state.h"

namespace {

using namespace adapter;

TEST(Predicates, PackUsesBitZeroOfEachByteOnly) {
  unsigned char bytes[48];
  for (unsigned i = 0; i < 48; ++i) bytes[i] = static_cast<unsigned char>(i % 4);   // 0,1,2,3,...
  const PredV p = pack_pred(bytes);
  for (unsigned i = 0; i < 48; ++i) EXPECT_EQ(pred_bit(p, i), (i % 4) == 1 || (i % 4) == 3) << i;
  EXPECT_EQ(p.w[0] >> 48, 0u);
  EXPECT_EQ(p.w[1] | p.w[2] | p.w[3], 0u);
}

TEST(Predicates, UnpackWritesZeroOrOneAndStaysInsideTheRegister) {
  cpu_state s;
  std::memset(&s, 0x77, sizeof s);
  PredV p;
  p.w[0] = 0xFFFF'0000'0000'0000ull | 0x8000'0000'0001ull;   // bits 0, 47 and 48..63
  p.w[1] = p.w[2] = p.w[3] = ~0ull;
  unpack_pred(p, s.p[5]);
  for (unsigned i = 0; i < 48; ++i) EXPECT_EQ(s.p[5][i], (i == 0 || i == 47) ? 1 : 0) << i;
  for (unsigned i = 0; i < 48; ++i) {
    EXPECT_EQ(s.p[4][i], 0x77);
    EXPECT_EQ(s.p[6][i], 0x77);
  }
}

// Any byte values: only bit 0 of each survives the round trip.
TEST(Predicates, RoundTrip) {
  std::mt19937_64 rng(3);
  for (int t = 0; t < 100; ++t) {
    unsigned char a[48], b[48];
    for (auto& x : a) x = static_cast<unsigned char>(rng());
    unpack_pred(pack_pred(a), b);
    for (unsigned i = 0; i < 48; ++i) ASSERT_EQ(b[i], a[i] & 1u) << i;
  }
}

TEST(GeneralRegisters, ZeroRegisterAndStackPointer) {
  cpu_state s;
  std::memset(&s, 0, sizeof s);
  for (int i = 0; i < 31; ++i) s.x[i] = 100 + i;
  s.sp = 0x7000;
  EXPECT_EQ(read_x(&s, ireg(31, kRX)), 0u);
  EXPECT_EQ(read_x(&s, ireg(30, kRX)), 130u);
  EXPECT_EQ(read_xsp(&s, rspreg(31)), 0x7000u);
  const cpu_state before = s;
  write_x(&s, ireg(31, kRX), 5);
  EXPECT_TRUE(quern_test::describe_diff(before, s).empty());
  write_xsp(&s, rspreg(31), 0x6000);
  EXPECT_EQ(s.sp, 0x6000u);
}

struct BitmaskCase {
  uint32_t n, immr, imms;
  uint64_t value;
};

// Values as the architecture's DecodeBitMasks gives them (and as the
// assembler prints them for AND/ORR/EOR/DUPM).
TEST(Immediates, BitmaskExpansion) {
  const BitmaskCase cases[] = {
      {1, 0, 0, 0x1ull},                       // one bit in a 64-bit element
      {1, 1, 0, 0x8000000000000000ull},        // rotated right once
      {1, 0, 62, 0x7FFFFFFFFFFFFFFFull},       // 63 ones
      {0, 0, 0x3C, 0x5555555555555555ull},     // 2-bit elements, one bit each
      {0, 1, 0x3C, 0xAAAAAAAAAAAAAAAAull},
      {0, 0, 0x38, 0x1111111111111111ull},     // 4-bit elements
      {0, 0, 0x07, 0x000000FF000000FFull},     // 32-bit elements, 8 ones
      {0, 4, 0x07, 0xF000000FF000000Full},     // rotated right by 4 in the element
      {0, 0, 0x27, 0x00FF00FF00FF00FFull},     // 16-bit elements
      {0, 0, 0x30, 0x0101010101010101ull},     // 8-bit elements, one bit
      {0, 0, 0x3E, ~0ull},                     // element size 1: the expansion gives all ones
      {0, 0, 0x3F, 0},                         // no element size at all: nothing, and no hang
  };
  for (const BitmaskCase& c : cases)
    EXPECT_EQ(decode_bitmask(c.n, c.immr, c.imms), c.value) << c.n << " " << c.immr << " " << c.imms;
  // Through the word: bits 17 (N), 16..11 (immr), 10..5 (imms).
  EXPECT_EQ(expand_bitmask(1u << 17 | 0u << 11 | 7u << 5).value, 0xFFull);
}

TEST(Immediates, FloatingPointImm8) {
  struct Case {
    uint32_t imm8;
    uint16_t half;
    uint32_t single;
    double value;
  } cases[] = {
      {0x70, 0x3C00, 0x3F800000, 1.0},   {0x00, 0x4000, 0x40000000, 2.0},
      {0xF0, 0xBC00, 0xBF800000, -1.0},  {0x60, 0x3800, 0x3F000000, 0.5},
      {0x7F, 0x3FC0, 0x3FF80000, 1.9375}, {0x4F, 0x33C0, 0x3E780000, 0.2421875},
      {0x30, 0x4C00, 0x41800000, 16.0},  {0x1F, 0x47C0, 0x40F80000, 7.75},
  };
  for (const Case& c : cases) {
    const aarch64_sve_fp_dup_imm e = expand_fpimm8(c.imm8 << 5);
    EXPECT_EQ(e.half_bits, c.half) << c.imm8;
    EXPECT_EQ(e.single_bits, c.single) << c.imm8;
    EXPECT_EQ(e.double_value, c.value) << c.imm8;
    uint64_t dbits;
    std::memcpy(&dbits, &c.value, 8);
    EXPECT_EQ(fpimm8_bits(c.imm8 << 5, 64), dbits) << c.imm8;
    EXPECT_EQ(fpimm8_bits(c.imm8 << 5, 16), c.half) << c.imm8;
  }
}

TEST(Immediates, ShiftedByteImmediates) {
  EXPECT_EQ(uimm8sh(0xFFu << 5), 0xFFu);
  EXPECT_EQ(uimm8sh(1u << 13 | 0xFFu << 5), 0xFF00u);
  EXPECT_EQ(simm8sh(0x80u << 5), -128);
  EXPECT_EQ(simm8sh(1u << 13 | 0xFFu << 5), -256);
  EXPECT_EQ(simm8sh(1u << 13 | 0x7Fu << 5), 0x7F00);
  EXPECT_EQ(sext(0x1F, 5), -1);
  EXPECT_EQ(sext(0x0F, 5), 15);
}

// ---- the generic road's moves ------------------------------------------------

TEST(GenericRoad, ContextCarriesMaskedFpcrAndLowNzcv) {
  cpu_state s;
  std::mt19937_64 rng(1);
  quern_test::random_state(s, rng);
  s.nzcv = 0xFFFFFFFF60000000ull;
  s.fpcr = 0xFFFFFFFFu;   // Len and Stride set among everything else
  const CpuContext c = make_context(&s);
  EXPECT_EQ(c.nzcv, 0x60000000u);
  EXPECT_EQ(c.fpcr, 0x07C89F00u);
  EXPECT_EQ(c.fpcr & 0x00370000u, 0u);   // Len (18..16), Stride (21..20)
  EXPECT_EQ(c.vl, 6u);
  EXPECT_EQ(c.ffr.w[0], pack_pred(s.ffr).w[0]);
}

TEST(GenericRoad, FinishCopiesFlagsStatusAndFfrButNeverFpcr) {
  cpu_state s;
  std::mt19937_64 rng(2);
  quern_test::random_state(s, rng);
  s.fpcr = 0x03C00000u;
  CpuContext c = make_context(&s);
  c.nzcv = 0x80000000u;
  c.fpsr = 0x10u;
  c.fpcr = 0;
  c.ffr = PredV{{0x3ull, 0, 0, 0}};
  finish_context(&s, c);
  EXPECT_EQ(s.nzcv, 0x80000000u);
  EXPECT_EQ(s.fpsr, 0x10u);
  EXPECT_EQ(s.fpcr, 0x03C00000u);
  for (unsigned i = 0; i < 48; ++i) EXPECT_EQ(s.ffr[i], i < 2 ? 1 : 0);
}

TEST(GenericRoad, ResultsGoToTheirRegisters) {
  cpu_state s;
  std::mt19937_64 rng(4);
  quern_test::random_state(s, rng);
  const cpu_state before = s;
  put_x(&s, 31, 99);   // the zero register takes nothing
  EXPECT_TRUE(quern_test::describe_diff(before, s).empty());
  put_x(&s, 3, 0xFFFFFFFFull);
  EXPECT_EQ(s.x[3], 0xFFFFFFFFull);
  for (unsigned bytes : {1u, 2u, 4u, 8u}) {
    put_elem(&s, 9, 0x1122334455667788ull, bytes);
    for (unsigned i = 0; i < 48; ++i) {
      const unsigned char want = i < bytes ? static_cast<unsigned char>(0x88 - 0x11 * i) : 0;
      EXPECT_EQ(s.z[9][i], want) << bytes << " " << i;
    }
    EXPECT_EQ(std::memcmp(s.z[8], before.z[8], 48), 0);
    EXPECT_EQ(std::memcmp(s.z[10], before.z[10], 48), 0);
  }
  EXPECT_EQ(arg_elem(&s, 9, 8), 0x1122334455667788ull);
  EXPECT_EQ(arg_x(&s, 31), 0u);
  EXPECT_EQ(arg_xsp(&s, 31), s.sp);
}

// ---- roads as a whole -----------------------------------------------------------

const decode_row* first_row(bool (*pred)(const decode_row&)) {
  for (const decode_row& r : decode_rows)
    if (pred(r)) return &r;
  return nullptr;
}

TEST(Roads, PrefetchTouchesNothing) {
  unsigned seen = 0;
  std::mt19937_64 rng(6);
  for (const decode_row& r : decode_rows) {
    if (r.road[0] != 'N') continue;
    ++seen;
    EXPECT_NE(strstr(r.adapter, "Prefetch"), nullptr) << r.adapter;
    cpu_state s;
    quern_test::random_state(s, rng);
    s.encoding = 0x1234;
    const cpu_state before = s;
    const uint32_t w = r.value | (static_cast<uint32_t>(rng()) & ~r.mask);
    EXPECT_EQ(r.fn(&s, w), AARCH64_DECODE_OK);
    EXPECT_TRUE(quern_test::describe_diff(before, s).empty()) << r.adapter;
  }
  EXPECT_EQ(seen, 36u);
}

// A row whose operation has not landed reports itself, returns 2 and changes nothing.
TEST(Roads, UnlandedRowReportsUnimplemented) {
  for (bool generic : {false, true}) {
    const decode_row* r = generic ? first_row([](const decode_row& x) { return x.road[0] == 'G' && !x.target; })
                                  : first_row([](const decode_row& x) { return x.road[0] == 's' && !x.target; });
    if (!r) continue;   // everything of this road has landed
    cpu_state s;
    std::mt19937_64 rng(7);
    quern_test::random_state(s, rng);
    s.pc = reinterpret_cast<unsigned char*>(0x400abc);
    const cpu_state before = s;
    testing::internal::CaptureStderr();
    EXPECT_EQ(r->fn(&s, r->value), AARCH64_DECODE_UNIMPLEMENTED);
    const std::string err = testing::internal::GetCapturedStderr();
    std::string name = r->road[0] == 'G' ? r->adapter : r->road;
    if (name.back() == '+') name.pop_back();
    char want[200];
    snprintf(want, sizeof want, "Unimplemented instruction: [  400abc:\t %08x\t %s  ]\n", r->value, name.c_str());
    EXPECT_EQ(err, want);
    EXPECT_TRUE(quern_test::describe_diff(before, s).empty()) << r->adapter;
  }
}

TEST(Roads, PrintOnlyHandlersReportThemselves) {
  cpu_state s;
  std::memset(&s, 0, sizeof s);
  s.pc = reinterpret_cast<unsigned char*>(0x1000);
  s.encoding = 0x0416A000;   // abs z0.b, p0/m, z0.b
  testing::internal::CaptureStderr();
  EXPECT_EQ(sve_abs_zpz(&s), AARCH64_DECODE_UNIMPLEMENTED);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Unimplemented instruction: [  1000:\t 0416a000\t sve_abs_zpz  ]\n");
}

// The fast road stores the word into `encoding` before the handler runs.
TEST(Roads, FastRoadWritesEncoding) {
  cpu_state s;
  std::mt19937_64 rng(8);
  quern_test::random_state(s, rng);
  s.encoding = 0;
  const uint32_t add = 0x04000000u | 3u << 5 | 1u;   // add z1.b, p0/m, z1.b, z3.b
  ASSERT_EQ(quern_test::run_word(s, add), AARCH64_DECODE_OK);
  EXPECT_EQ(s.encoding, add);
}

}  // namespace
