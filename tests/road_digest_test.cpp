// Every row that does not touch memory, run on the differential test's random
// trials, must leave the same machine state in every build. The AArch64 build
// (the one the differential test holds against the reference processor) wrote
// road_digests.txt, one digest of the resulting states per row; the x86 build
// must reproduce it. That is where the x86 road of the fast handlers (the
// floating-point library under the application's FPCR instead of the host's
// instructions, the portable lane loops) meets known results.
//
//   road_digest_test FILE           compare with FILE
//   road_digest_test --write FILE   write FILE (from the AArch64 build only)
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "tests/oracle/gen.h"

namespace {

constexpr uint64_t kSeed = 20261123;
constexpr unsigned kTrials = 24;

uint64_t fnv(uint64_t h, const void* p, size_t n) {
  const unsigned char* b = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 0x100000001b3ull;
  return h;
}

// The whole architectural state, and the adapter's result.
uint64_t digest(uint64_t h, const cpu_state& s, int rc) {
  h = fnv(h, &rc, sizeof rc);
  h = fnv(h, s.x, sizeof s.x);
  h = fnv(h, &s.sp, sizeof s.sp);
  h = fnv(h, &s.nzcv, sizeof s.nzcv);
  h = fnv(h, &s.fpsr, sizeof s.fpsr);
  h = fnv(h, &s.fpcr, sizeof s.fpcr);
  h = fnv(h, s.z, sizeof s.z);
  h = fnv(h, s.p, sizeof s.p);
  h = fnv(h, s.ffr, sizeof s.ffr);
  return fnv(h, &s.encoding, sizeof s.encoding);
}

// The fast road computes under the host's FPCR on AArch64; set it to the
// application's, as the client does.
int run(sve_handler_fn fn, cpu_state& s, uint32_t word) {
#if defined(__aarch64__)
  uint64_t saved;
  __asm__ volatile("mrs %0, fpcr" : "=r"(saved));
  const uint64_t fpcr = s.fpcr;
  __asm__ volatile("msr fpcr, %0" : : "r"(fpcr));
  const int rc = fn(&s, word);
  __asm__ volatile("msr fpcr, %0" : : "r"(saved));
  return rc;
#else
  return fn(&s, word);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  const bool write = argc == 3 && std::strcmp(argv[1], "--write") == 0;
  if (argc != 2 && !write) {
    std::fprintf(stderr, "usage: road_digest_test [--write] FILE\n");
    return 2;
  }
  const char* path = argv[argc - 1];

  // Non-memory rows never touch the scratch area; SP only has to be the same
  // number in every build.
  oracle::scratch_area scratch;
  scratch.mem = reinterpret_cast<unsigned char*>(uintptr_t{0x40000000});
  scratch.size = oracle::kScratchBytes;
  scratch.page = 4096;

  std::map<std::string, uint64_t> got;
  for (unsigned i = 0; i < kDecodeRows; ++i) {
    const decode_row& r = decode_rows[i];
    oracle::row_plan plan;
    std::string error;
    if (!oracle::plan_row(r, plan, error)) {
      std::fprintf(stderr, "%s: %s\n", r.adapter, error.c_str());
      return 1;
    }
    if (plan.memory || !r.target) continue;
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned t = 0; t < kTrials; ++t) {
      oracle::rng g = oracle::trial_rng(kSeed, r.adapter, t);
      oracle::trial_input in;
      oracle::make_trial(r, plan, g, scratch, in, nullptr);
      in.state.pc = reinterpret_cast<unsigned char*>(&in.word);
      const int rc = run(r.fn, in.state, in.word);
      h = digest(h, in.state, rc);
    }
    got[r.adapter] = h;
  }

  if (write) {
    std::ofstream out(path);
    out << "# adapter digest: states after " << kTrials << " trials of seed " << kSeed
        << ", written by road_digest_test --write on the AArch64 build\n";
    for (const auto& [name, h] : got) out << name << ' ' << std::hex << h << std::dec << '\n';
    return out ? 0 : 1;
  }

  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path);
    return 1;
  }
  std::map<std::string, uint64_t> want;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream ls(line);
    std::string name;
    uint64_t h = 0;
    ls >> name >> std::hex >> h;
    want[name] = h;
  }
  unsigned bad = 0;
  for (const auto& [name, h] : got) {
    const auto it = want.find(name);
    if (it == want.end()) {
      std::printf("%s: not in %s\n", name.c_str(), path);
      ++bad;
    } else if (it->second != h) {
      std::printf("%s: states differ from the AArch64 build's\n", name.c_str());
      ++bad;
    }
  }
  for (const auto& [name, h] : want)
    if (!got.count(name)) {
      std::printf("%s: in %s but not run\n", name.c_str(), path);
      ++bad;
    }
  std::printf("%zu rows, %u differ\n", got.size(), bad);
  return bad ? 1 : 0;
}
