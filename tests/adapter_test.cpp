// Rows whose operation has not landed, and the print-only fast handlers: the
// report and the result the client sees.
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

// ---- roads as a whole -----------------------------------------------------------

const decode_row* first_row(bool (*pred)(const decode_row&)) {
  for (const decode_row& r : decode_rows)
    if (pred(r)) return &r;
  return nullptr;
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

}  // namespace
