// Floating-point vector arithmetic: the corners that random operands reach only
// by luck. Flush-to-zero on input and output, default NaN, inactive lanes that
// hold signalling NaNs, and a destination that is also a source. Each case runs
// at every width through the decode table, so half precision takes the generic
// road and single and double the fast one (the host's instructions on AArch64,
// the library under the application's FPCR elsewhere).
#include <gtest/gtest.h>

#include <cstring>

#include "sve/dispatch/decode.h"
#include "test_state.h"

namespace {

constexpr uint32_t kFZ = 1u << 24, kDN = 1u << 25, kFZ16 = 1u << 19;
constexpr uint32_t kIOC = 1, kUFC = 8, kIXC = 16, kIDC = 128;

// Words with Zdn = z0, Pg = p1, Zm = z2; the size code goes in bits 23..22.
constexpr uint32_t kFaddZpz = 0x65008440u, kFmulZpz = 0x65028440u, kFabdZpz = 0x65088440u;
constexpr uint32_t kFmaxnmZpi0 = 0x651c8400u;   // FMAXNM Zdn, Pg/m, Zdn, #0.0

// Runs a word with the application's FPCR in force, as it would be in the
// emulated program: cpu_state.fpcr, and on AArch64 the host FPCR too, since
// the fast road computes under the latter.
aarch64_decode_rc run_under_fpcr(cpu_state& s, uint32_t word) {
#if defined(__aarch64__)
  uint64_t saved;
  __asm__ volatile("mrs %0, fpcr" : "=r"(saved));
  const uint64_t fpcr = s.fpcr;
  __asm__ volatile("msr fpcr, %0" : : "r"(fpcr));
  const aarch64_decode_rc rc = quern_test::run_word(s, word);
  __asm__ volatile("msr fpcr, %0" : : "r"(saved));
  return rc;
#else
  return quern_test::run_word(s, word);
#endif
}

struct Width {
  unsigned size;   // size code
  unsigned bytes;
  uint32_t fz;     // the control bit that flushes this width
  bool idc;        // whether a flushed input raises IDC (not for half precision)
  uint64_t min_normal, denormal, snan, default_nan, inf, one;
};
const Width kWidths[] = {
    {1, 2, kFZ16, false, 0x0400, 0x0001, 0x7d01, 0x7e00, 0x7c00, 0x3c00},
    {2, 4, kFZ, true, 0x00800000, 0x00000001, 0x7f800001, 0x7fc00000, 0x7f800000, 0x3f800000},
    {3, 8, kFZ, true, 0x0010000000000000, 0x1, 0x7ff0000000000001, 0x7ff8000000000000, 0x7ff0000000000000,
     0x3ff0000000000000},
};

uint64_t get(const unsigned char* z, const Width& w, unsigned i) {
  uint64_t v = 0;
  std::memcpy(&v, z + i * w.bytes, w.bytes);
  return v;
}
void fill(unsigned char* z, const Width& w, uint64_t v) {
  for (unsigned i = 0; i < 48; i += w.bytes) std::memcpy(z + i, &v, w.bytes);
}
void all_active(cpu_state& s, const Width& w) {
  std::memset(s.p[1], 0, 48);
  for (unsigned i = 0; i < 48; i += w.bytes) s.p[1][i] = 1;
}

// Every lane gets the same operands; all lanes must give `want` and the
// flags must be exactly `flags` (IDC only where the width raises it).
TEST(FpArith, FlushAndDefaultNaNAtEveryWidth) {
  struct Row {
    const char* what;
    uint32_t word;
    bool fz, dn;
    uint64_t Width::*a;
    uint64_t Width::*b;
    uint64_t Width::*want;   // nullptr: +0
    uint32_t flags;          // plus IDC where the width raises it, if input_flushed
    bool input_flushed;
  };
  const Row rows[] = {
      // Denormal input under flush-to-zero: taken as zero, result +0.
      {"denormal + denormal, flushed", kFaddZpz, true, false, &Width::denormal, &Width::denormal, nullptr, 0, true},
      // Without flush-to-zero the same sum is exact and raises nothing.
      {"denormal * 1, kept", kFmulZpz, false, false, &Width::denormal, &Width::one, &Width::denormal, 0, false},
      // A signalling NaN: quieted with its payload, or the default NaN under DN.
      {"sNaN + 1, default NaN", kFaddZpz, false, true, &Width::snan, &Width::one, &Width::default_nan, kIOC, false},
      // inf - inf is invalid; FABD clears the sign of the default NaN.
      {"|inf - inf|", kFabdZpz, false, false, &Width::inf, &Width::inf, &Width::default_nan, kIOC, false},
  };
  for (const Width& w : kWidths)
    for (const Row& r : rows) {
      SCOPED_TRACE(testing::Message() << r.what << ", size " << w.size);
      cpu_state s;
      std::memset(&s, 0, sizeof s);
      s.fpcr = (r.fz ? w.fz : 0) | (r.dn ? kDN : 0);
      fill(s.z[0], w, w.*r.a);
      fill(s.z[2], w, w.*r.b);
      all_active(s, w);
      ASSERT_EQ(run_under_fpcr(s, r.word | w.size << 22), AARCH64_DECODE_OK);
      const uint64_t want = r.want ? w.*r.want : 0;
      for (unsigned i = 0; i < 48 / w.bytes; ++i) ASSERT_EQ(get(s.z[0], w, i), want) << "lane " << i;
      EXPECT_EQ(s.fpsr, r.flags | (r.input_flushed && w.idc ? kIDC : 0));
      EXPECT_EQ(s.fpcr, (r.fz ? w.fz : 0) | (r.dn ? kDN : 0));
    }
}

// The quieted NaN keeps its payload when DN is clear.
TEST(FpArith, SignallingNaNIsQuietedWithPayload) {
  for (const Width& w : kWidths) {
    cpu_state s;
    std::memset(&s, 0, sizeof s);
    fill(s.z[0], w, w.snan);
    fill(s.z[2], w, w.one);
    all_active(s, w);
    ASSERT_EQ(run_under_fpcr(s, kFaddZpz | w.size << 22), AARCH64_DECODE_OK);
    const uint64_t quiet_bit = (w.default_nan & ~w.inf);
    EXPECT_EQ(get(s.z[0], w, 0), w.snan | quiet_bit) << "size " << w.size;
    EXPECT_EQ(s.fpsr, kIOC) << "size " << w.size;
  }
}

// Output flush: the smallest normal halved is a denormal. With flush-to-zero
// it becomes +0 and raises UFC alone; without, it is exact.
TEST(FpArith, TinyResultFlushedToZero) {
  for (const Width& w : kWidths)
    for (bool fz : {false, true}) {
      SCOPED_TRACE(testing::Message() << "size " << w.size << (fz ? " FZ" : ""));
      cpu_state s;
      std::memset(&s, 0, sizeof s);
      s.fpcr = fz ? w.fz : 0;
      const uint64_t half = w.one - (w.size == 1 ? 0x0400 : w.size == 2 ? 0x00800000 : 0x0010000000000000);
      fill(s.z[0], w, w.min_normal);
      fill(s.z[2], w, half);
      all_active(s, w);
      ASSERT_EQ(run_under_fpcr(s, kFmulZpz | w.size << 22), AARCH64_DECODE_OK);
      EXPECT_EQ(get(s.z[0], w, 0), fz ? 0 : w.min_normal >> 1);
      EXPECT_EQ(s.fpsr, fz ? kUFC : 0u);
    }
}

// Inactive lanes hold signalling NaNs and denormals under FZ: they raise
// nothing and keep their bits; the one active lane computes.
TEST(FpArith, InactiveLanesRaiseNothing) {
  for (const Width& w : kWidths)
    for (uint32_t word : {kFaddZpz, kFmulZpz, kFabdZpz, kFmaxnmZpi0}) {
      SCOPED_TRACE(testing::Message() << std::hex << word << " size " << w.size);
      cpu_state s;
      std::memset(&s, 0, sizeof s);
      s.fpcr = w.fz;
      fill(s.z[0], w, w.snan);
      fill(s.z[2], w, w.denormal);
      std::memcpy(s.z[0], &w.one, w.bytes);
      std::memcpy(s.z[2], &w.one, w.bytes);
      std::memset(s.p[1], 0, 48);
      s.p[1][0] = 1;
      ASSERT_EQ(run_under_fpcr(s, word | w.size << 22), AARCH64_DECODE_OK);
      for (unsigned i = 1; i < 48 / w.bytes; ++i) ASSERT_EQ(get(s.z[0], w, i), w.snan) << "lane " << i;
      EXPECT_EQ(s.fpsr & (kIOC | kIDC | kIXC), 0u);
    }
}

// FMAXNM with #0.0 takes the number over a quiet NaN.
TEST(FpArith, MaxNumImmediateOverQuietNaN) {
  for (const Width& w : kWidths) {
    cpu_state s;
    std::memset(&s, 0, sizeof s);
    fill(s.z[0], w, w.default_nan);
    all_active(s, w);
    ASSERT_EQ(run_under_fpcr(s, kFmaxnmZpi0 | w.size << 22), AARCH64_DECODE_OK);
    EXPECT_EQ(get(s.z[0], w, 0), 0u) << "size " << w.size;
    EXPECT_EQ(s.fpsr, 0u) << "size " << w.size;
  }
}

// FADD z0, z0, z0 (all three the same register) doubles every lane.
TEST(FpArith, DestinationAlsoSource) {
  cpu_state s;
  std::memset(&s, 0, sizeof s);
  const Width& w = kWidths[1];
  for (unsigned i = 0; i < 12; ++i) {
    const uint32_t v = 0x3f800000u + (i << 23);   // 1, 2, 4, ...
    std::memcpy(s.z[0] + 4 * i, &v, 4);
  }
  ASSERT_EQ(run_under_fpcr(s, 0x65800000u), AARCH64_DECODE_OK);
  for (unsigned i = 0; i < 12; ++i) EXPECT_EQ(get(s.z[0], w, i), 0x40000000u + (i << 23)) << "lane " << i;
}

}  // namespace
