// The registers that each row of the decode table touches (which runs of
// words park and reload) against the GNU disassembler: every register that
// the disassembly of a word names must be in the row's set, and nothing else.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "sve/dispatch/decode.h"

namespace {

// Disassembles `words` with objdump; one text per word ("" where objdump had
// no instruction), or nothing when objdump is not available.
std::vector<std::string> disassemble(const std::vector<uint32_t>& words) {
  const std::string bin = testing::TempDir() + "/register_use.bin";
  std::ofstream(bin, std::ios::binary).write(reinterpret_cast<const char*>(words.data()),
                                             static_cast<std::streamsize>(4 * words.size()));
  const std::string cmd = "aarch64-linux-gnu-objdump -D -b binary -m aarch64 " + bin + " 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return {};
  std::vector<std::string> text(words.size());
  char line[512];
  bool any = false;
  while (fgets(line, sizeof line, p)) {
    unsigned long at;
    unsigned word;
    char rest[480] = "";
    if (sscanf(line, " %lx: %x %479[^\n]", &at, &word, rest) < 2 || at % 4 || at / 4 >= words.size()) continue;
    text[at / 4] = rest;
    any = true;
  }
  pclose(p);
  if (!any) return {};
  return text;
}

// The Z (b/h/s/d/q/v/z views) and X (w/x views) registers and SP that a
// disassembly names; false for a word objdump did not decode.
bool named_registers(const std::string& text, register_use& use) {
  if (text.empty() || text.find(".inst") != std::string::npos || text.find("undefined") != std::string::npos)
    return false;
  const size_t gap = text.find_first_of(" \t");
  const std::string ops = gap == std::string::npos ? "" : text.substr(gap);
  static const std::regex range(R"(\bz(\d+)\.[bhsdq]-z(\d+)\.[bhsdq])");
  for (std::sregex_iterator i(ops.begin(), ops.end(), range), end; i != end; ++i)
    for (unsigned n = std::stoul((*i)[1]), last = std::stoul((*i)[2]);; n = (n + 1) % 32) {
      use.z |= 1u << n;
      if (n == last) break;
    }
  static const std::regex reg(R"(\b([zbhsdqvwx])(\d+)\b|\b(w?sp)\b)");
  for (std::sregex_iterator i(ops.begin(), ops.end(), reg), end; i != end; ++i) {
    if ((*i)[3].matched) {
      use.sp = true;
      continue;
    }
    const unsigned n = std::stoul((*i)[2]);
    if (n > 31) continue;
    const char kind = (*i)[1].str()[0];
    if (kind == 'w' || kind == 'x') use.x |= 1u << n;
    else use.z |= 1u << n;
  }
  return true;
}

std::string describe(const register_use& u) {
  std::ostringstream s;
  s << std::hex << "z=0x" << u.z << " x=0x" << u.x << (u.sp ? " sp" : "");
  return s.str();
}

TEST(RegisterUse, EveryRowAgreesWithTheDisassembler) {
  std::mt19937 rng(7);
  std::vector<uint32_t> words;
  std::vector<const decode_row*> rows;
  for (const decode_row& r : decode_rows) {
    if (r.road[0] == 'N') continue;   // prefetches touch nothing when emulated
    // All-ones fields give register 31 (SP, the zero register, Z31 with wrap).
    for (uint32_t fields : {~0u, 0u, uint32_t(rng()), uint32_t(rng()), uint32_t(rng()), uint32_t(rng())}) {
      words.push_back(r.value | (fields & ~r.mask));
      rows.push_back(&r);
    }
  }
  const std::vector<std::string> text = disassemble(words);
  if (text.empty()) GTEST_SKIP() << "aarch64-linux-gnu-objdump is not available";
  int checked = 0;
  for (size_t i = 0; i < words.size(); ++i) {
    register_use want{};
    if (!named_registers(text[i], want)) continue;
    register_use got{};
    add_register_use(*rows[i], words[i], got);
    ++checked;
    EXPECT_TRUE(got.z == want.z && got.x == want.x && got.sp == want.sp)
        << rows[i]->adapter << " " << std::hex << words[i] << " \"" << text[i] << "\": table " << describe(got)
        << ", disassembly " << describe(want);
  }
  EXPECT_GT(checked, 5000);
}

}  // namespace
