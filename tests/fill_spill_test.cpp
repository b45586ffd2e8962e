// LDR and STR of whole registers, at the edges the differential test does
// not reach: an image that ends at an unmapped page, and the bit order of the
// predicate image.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "test_state.h"

namespace {

uint32_t ldr_p(unsigned pt, unsigned xn, int imm) {
  const uint32_t i = uint32_t(imm) & 0x1FFu;
  return 0x85800000u | (i >> 3) << 16 | (i & 7u) << 10 | xn << 5 | pt;
}
uint32_t str_p(unsigned pt, unsigned xn, int imm) { return ldr_p(pt, xn, imm) | 0x60000000u; }
uint32_t ldr_z(unsigned zt, unsigned xn, int imm) { return ldr_p(zt, xn, imm) | 0x4000u; }
uint32_t str_z(unsigned zt, unsigned xn, int imm) { return str_p(zt, xn, imm) | 0x4000u; }

// Two pages, the second one unmapped: images are placed to end at the border.
struct Edge {
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  unsigned char* base = static_cast<unsigned char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  Edge() { mprotect(base + page, page, PROT_NONE); }
  ~Edge() { munmap(base, 2 * page); }
  unsigned char* end() { return base + page; }
};

TEST(FillSpill, PredicateImageEndingAtAnUnmappedPage) {
  Edge edge;
  cpu_state s;
  std::mt19937_64 rng(5);
  quern_test::random_state(s, rng);
  for (unsigned i = 0; i < 48; ++i) s.p[2][i] = (i % 3 == 0) | (i == 47);
  s.x[4] = reinterpret_cast<uint64_t>(edge.end() - 6 * 3);   // #2, MUL VL ends at the border
  ASSERT_EQ(quern_test::run_word(s, str_p(2, 4, 2)), AARCH64_DECODE_OK);
  const unsigned char* image = edge.end() - 6;
  EXPECT_EQ(image[0], 0x49);   // bits 0, 3, 6
  EXPECT_EQ(image[5] & 0x80, 0x80);   // predicate byte 47 is bit 7 of the last byte
  std::memset(s.p[9], 7, 48);
  ASSERT_EQ(quern_test::run_word(s, ldr_p(9, 4, 2)), AARCH64_DECODE_OK);
  EXPECT_EQ(std::memcmp(s.p[9], s.p[2], 48), 0);
}

TEST(FillSpill, VectorImageEndingAtAnUnmappedPageAndNegativeOffsets) {
  Edge edge;
  cpu_state s;
  std::mt19937_64 rng(6);
  quern_test::random_state(s, rng);
  s.sp = reinterpret_cast<uint64_t>(edge.end() + 48 * 4);    // base SP, offset #-5: ends at the border
  ASSERT_EQ(quern_test::run_word(s, str_z(7, 31, -5)), AARCH64_DECODE_OK);
  EXPECT_EQ(std::memcmp(edge.end() - 48, s.z[7], 48), 0);
  ASSERT_EQ(quern_test::run_word(s, ldr_z(1, 31, -5)), AARCH64_DECODE_OK);
  EXPECT_EQ(std::memcmp(s.z[1], s.z[7], 48), 0);
}

}  // namespace
