// Helpers shared by the unit tests: random machine states and running a word.
#pragma once

#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"

namespace quern_test {

// Random registers, with Z lanes that mix random bits and the values where
// arithmetic goes wrong (0, 1, all ones, the signed extremes), and predicates
// in canonical 0/1 form with some all-true and all-false ones.
inline void random_state(cpu_state& s, std::mt19937_64& rng) {
  std::memset(&s, 0, sizeof s);
  for (auto& x : s.x) x = rng();
  s.sp = rng() & ~15ull;
  s.nzcv = rng() & 0xF0000000u;
  s.fpsr = static_cast<uint32_t>(rng()) & 0xF800009Fu;
  s.fpcr = 0;
  static const uint64_t special[] = {0, 1, ~0ull, 0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull,
                                     0x7F7F7F7F7F7F7F7Full, 0x8080808080808080ull};
  for (auto& z : s.z)
    for (unsigned i = 0; i < 48; i += 8) {
      const uint64_t v = (rng() % 4 == 0) ? special[rng() % 7] : rng();
      std::memcpy(z + i, &v, 8);
    }
  for (auto& p : s.p) {
    const unsigned kind = rng() % 5;
    for (unsigned i = 0; i < 48; ++i) p[i] = kind == 0 ? 1 : kind == 1 ? 0 : rng() & 1;
  }
  for (unsigned i = 0; i < 48; ++i) s.ffr[i] = rng() & 1;
  s.encoding = 0;
}

inline aarch64_decode_rc run_word(cpu_state& s, uint32_t word) {
  const sve_handler_fn h = get_sve_handler(word);
  if (!h) return static_cast<aarch64_decode_rc>(-1);
  return h(&s, word);
}

// Which parts of two states differ, for failure messages.
inline std::string describe_diff(const cpu_state& want, const cpu_state& got) {
  std::ostringstream o;
  for (int i = 0; i < 31; ++i)
    if (want.x[i] != got.x[i]) o << "\n  x" << i << " want " << std::hex << want.x[i] << " got " << got.x[i];
  if (want.sp != got.sp) o << "\n  sp differs";
  if (want.nzcv != got.nzcv) o << "\n  nzcv want " << std::hex << want.nzcv << " got " << got.nzcv;
  if (want.fpsr != got.fpsr) o << "\n  fpsr want " << std::hex << want.fpsr << " got " << got.fpsr;
  if (want.fpcr != got.fpcr) o << "\n  fpcr differs";
  for (int i = 0; i < 32; ++i)
    if (std::memcmp(want.z[i], got.z[i], 48)) o << "\n  z" << i << " differs";
  for (int i = 0; i < 16; ++i)
    if (std::memcmp(want.p[i], got.p[i], 48)) o << "\n  p" << i << " differs";
  if (std::memcmp(want.ffr, got.ffr, 48)) o << "\n  ffr differs";
  if (want.encoding != got.encoding) o << "\n  encoding differs";
  if (want.pc != got.pc) o << "\n  pc differs";
  return o.str();
}

}  // namespace quern_test
