// The allowlist of the differential test: parsing, row matching, and above all
// that an entry excuses exactly the state it names and nothing more.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/oracle/departures.h"

#ifndef QUERN_ORACLE_DEPARTURES
#error "QUERN_ORACLE_DEPARTURES must name the allowlist"
#endif

namespace {

using namespace oracle;

int failures = 0;

#define CHECK(cond)                                                          \
  do {                                                                       \
    if (!(cond)) {                                                           \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                            \
    }                                                                        \
  } while (0)

const decode_row* row_named(const char* adapter) {
  for (unsigned i = 0; i < kDecodeRows; ++i)
    if (std::strcmp(decode_rows[i].adapter, adapter) == 0) return &decode_rows[i];
  return nullptr;
}

std::vector<departure> parse_ok(const std::string& text) {
  std::vector<departure> d;
  std::string err;
  const bool ok = parse_departures(text, "test", d, err);
  if (!ok) std::fprintf(stderr, "unexpected parse error: %s\n", err.c_str());
  CHECK(ok);
  return d;
}

bool parse_fails(const std::string& text) {
  std::vector<departure> d;
  std::string err;
  const bool ok = parse_departures(text, "test", d, err);
  return !ok && !err.empty();
}

// A trial in which the emulated state starts equal to the reference's.
struct fixture {
  cpu_state initial{}, ref{}, emu{};
  unsigned char ref_mem[64]{}, emu_mem[64]{};
  trial_view view(uint32_t word, bool with_mem = false, bool fault = false) {
    trial_view v;
    v.word = word;
    v.fault_trial = fault;
    v.initial = &initial;
    v.ref = &ref;
    v.emu = &emu;
    if (with_mem) {
      v.ref_mem = ref_mem;
      v.emu_mem = emu_mem;
      v.mem_size = sizeof ref_mem;
    }
    return v;
  }
  fixture() {
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&ref);
    for (unsigned i = 0; i < sizeof(cpu_state); ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    for (auto& p : ref.p)
      for (auto& b : p) b &= 1;
    for (auto& b : ref.ffr) b = 1;
    initial = emu = ref;
  }
};

std::vector<int> all_of(const std::vector<departure>& d) {
  std::vector<int> v;
  for (size_t i = 0; i < d.size(); ++i) v.push_back(static_cast<int>(i));
  return v;
}

unsigned real_diffs(const std::vector<difference>& d) {
  unsigned n = 0;
  for (const auto& x : d) n += x.exempted_by < 0;
  return n;
}
unsigned exempt_diffs(const std::vector<difference>& d) {
  unsigned n = 0;
  for (const auto& x : d) n += x.exempted_by >= 0;
  return n;
}

void test_glob() {
  CHECK(glob_match("VecU8Add*", "VecU8AddVVM"));
  CHECK(glob_match("*LoadFF*", "VecU64LoadFF8VIZ"));
  CHECK(glob_match("sve_add_z?", "sve_add_zi"));
  CHECK(!glob_match("VecU8Add*", "VecU16AddVVM"));
  CHECK(!glob_match("VecU8AddVVM", "VecU8AddVVMX"));
  CHECK(!glob_match("sve_add_z?", "sve_add_zpz"));
}

void test_parse() {
  // The allowlist that ships must parse.
  std::vector<departure> shipped;
  std::string err;
  CHECK(load_departures(QUERN_ORACLE_DEPARTURES, shipped, err));

  const auto d = parse_ok("# comment\n\n"
                          "VecU8AddVIX, sve_sub_zi | fpsr.IDC, z[dest]:nan.s | word[13]=1 & fpcr.DN=1 | why\n");
  CHECK(d.size() == 1);
  CHECK(d[0].row_globs.size() == 2);
  CHECK(d[0].states.size() == 2);
  CHECK(d[0].when.size() == 2);
  CHECK(d[0].reason == "why");
  CHECK(d[0].line == 3);

  CHECK(parse_fails("VecU8AddVVM | fpsr | always\n"));                     // three fields
  CHECK(parse_fails("VecNoSuchRow | fpsr | always | r\n"));                // no such row
  CHECK(parse_fails("VecU8AddVVM | fpsr.XYZ | always | r\n"));             // no such flag
  CHECK(parse_fails("VecU8AddVVM | q3 | always | r\n"));                   // no such state
  CHECK(parse_fails("VecU8AddVVM | z32 | always | r\n"));                  // no such register
  CHECK(parse_fails("VecU8AddVVM | p16 | always | r\n"));
  CHECK(parse_fails("VecU8AddVVM | x3:nan.s | always | r\n"));             // lanes of a non-Z state
  CHECK(parse_fails("VecU8AddVVM | p3:given-up | always | r\n"));
  CHECK(parse_fails("VecU8AddVVM | ffr:nan.s | always | r\n"));
  CHECK(parse_fails("VecU8AddVVM | z3:nan.q | always | r\n"));
  CHECK(parse_fails("VecU8AddVVM | z3 | word[13]=2 | r\n"));               // value wider than the field
  CHECK(parse_fails("VecU8AddVVM | z3 | fpcr.XX=1 | r\n"));
  CHECK(parse_fails("VecU8AddVVM | z3 | sometimes | r\n"));
  CHECK(parse_fails("VecU8AddVVM | z3 | always | \n"));                    // no reason
  CHECK(parse_fails("VecU8AddVVM | | always | r\n"));                      // no state
  CHECK(parse_fails("VecU8AddVVM | z[9:2] | always | r\n"));               // field too wide for a register
}

void test_applies() {
  const auto d = parse_ok("VecU8AddVVM | nzcv | always | a\n"
                          "sve_add_zi | nzcv | always | b\n"
                          "decode_map__31_0 | nzcv | always | c\n");
  const decode_row* u8 = row_named("VecU8AddVVM");
  const decode_row* u16 = row_named("VecU16AddVVM");
  const decode_row* addi = row_named("VecU32AddVIX");
  const decode_row* setffr = row_named("VecPClearFFSR");
  CHECK(u8 && u16 && addi && setffr);
  if (!u8 || !u16 || !addi || !setffr) return;
  CHECK(departure_applies(d[0], *u8));
  CHECK(!departure_applies(d[0], *u16));
  CHECK(departure_applies(d[1], *addi));   // by handler name
  CHECK(!departure_applies(d[1], *u8));
  CHECK(departure_applies(d[2], *setffr)); // by map name
  CHECK(!departure_applies(d[2], *u8));
}

// Every piece of state is compared: changing any one gives one difference.
void test_every_component_compared() {
  const std::vector<departure> none;
  const std::vector<int> no_idx;
  auto one = [&](auto mutate, const char* where) {
    fixture f;
    mutate(f);
    const auto diffs = compare_trial(f.view(0, true), none, no_idx);
    CHECK(diffs.size() == 1);
    if (diffs.size() == 1) {
      CHECK(diffs[0].where == where);
      CHECK(diffs[0].exempted_by == -1);
    }
  };
  fixture same;
  CHECK(compare_trial(same.view(0, true), none, no_idx).empty());
  one([](fixture& f) { f.emu.x[0] ^= 1; }, "x0");
  one([](fixture& f) { f.emu.x[30] ^= uint64_t(1) << 63; }, "x30");
  one([](fixture& f) { f.emu.sp += 16; }, "sp");
  one([](fixture& f) { f.emu.nzcv ^= 1u << 29; }, "nzcv");
  one([](fixture& f) { f.emu.fpsr ^= 1u << 7; }, "fpsr");
  one([](fixture& f) { f.emu.fpcr ^= 1u << 25; }, "fpcr");
  one([](fixture& f) { f.emu.z[0][0] ^= 1; }, "z0");
  one([](fixture& f) { f.emu.z[31][47] ^= 0x80; }, "z31");
  one([](fixture& f) { f.emu.p[0][0] ^= 1; }, "p0");
  one([](fixture& f) { f.emu.p[15][47] ^= 1; }, "p15");
  one([](fixture& f) { f.emu.ffr[47] ^= 1; }, "ffr");
  one([](fixture& f) { f.emu_mem[63] ^= 1; }, "memory");
}

void test_flag_bits_exactly() {
  const auto d = parse_ok("VecU8AddVVM | fpsr.IDC | always | idc\n");
  const auto idx = all_of(d);
  fixture f;
  f.emu.fpsr ^= 1u << 7;  // IDC only: excused
  auto diffs = compare_trial(f.view(0), d, idx);
  CHECK(real_diffs(diffs) == 0 && exempt_diffs(diffs) == 1);
  f.emu.fpsr ^= 1u << 4;  // and IXC: not excused
  diffs = compare_trial(f.view(0), d, idx);
  CHECK(real_diffs(diffs) == 1 && exempt_diffs(diffs) == 0);
  fixture g;
  g.emu.fpsr ^= 1u << 4;  // IXC alone: not excused
  CHECK(real_diffs(compare_trial(g.view(0), d, idx)) == 1);
  fixture h;
  h.emu.nzcv ^= 1u << 31;  // another register altogether
  CHECK(real_diffs(compare_trial(h.view(0), d, idx)) == 1);
  // An entry that is not applicable to the row excuses nothing.
  CHECK(real_diffs(compare_trial(f.view(0), d, {})) == 1);
  fixture k;
  k.emu.fpsr ^= 1u << 7;
  CHECK(real_diffs(compare_trial(k.view(0), d, {})) == 1);
}

void test_registers_from_word() {
  const auto d = parse_ok("VecU8AddVVM | z[dest], x[9:5] | always | r\n");
  const auto idx = all_of(d);
  const uint32_t word = 3u | (7u << 5);  // dest 3, bits 9..5 = 7
  fixture f;
  f.emu.z[3][10] ^= 1;
  f.emu.x[7] ^= 1;
  auto diffs = compare_trial(f.view(word), d, idx);
  CHECK(real_diffs(diffs) == 0 && exempt_diffs(diffs) == 2);
  f.emu.z[4][0] ^= 1;  // a register the entry does not name
  f.emu.x[8] ^= 1;
  diffs = compare_trial(f.view(word), d, idx);
  CHECK(real_diffs(diffs) == 2 && exempt_diffs(diffs) == 2);
  // Same differences, another word: z3 and x7 are no longer the named ones.
  diffs = compare_trial(f.view(4u | (8u << 5)), d, idx);
  CHECK(real_diffs(diffs) == 2 && exempt_diffs(diffs) == 2);
  diffs = compare_trial(f.view(0), d, idx);
  CHECK(real_diffs(diffs) == 4);
}

void test_conditions() {
  const auto d = parse_ok("VecU8AddVVM | nzcv | word[13]=1 & fpcr.DN=1 | r\n"
                          "VecU8AddVVM | memory | fault-trial | m\n");
  const auto idx = all_of(d);
  fixture f;
  f.emu.nzcv ^= 1u << 30;
  f.initial.fpcr = 1u << 25;
  CHECK(real_diffs(compare_trial(f.view(1u << 13), d, idx)) == 0);
  CHECK(real_diffs(compare_trial(f.view(0), d, idx)) == 1);           // word bit clear
  f.initial.fpcr = 0;
  CHECK(real_diffs(compare_trial(f.view(1u << 13), d, idx)) == 1);    // DN clear in the initial FPCR
  f.initial.fpcr = 1u << 25;
  f.ref.fpcr = f.emu.fpcr = 0;  // the condition reads the initial FPCR, not a result
  CHECK(real_diffs(compare_trial(f.view(1u << 13), d, idx)) == 0);
  fixture m;
  m.emu_mem[5] ^= 1;
  CHECK(real_diffs(compare_trial(m.view(0, true, true), d, idx)) == 0);
  CHECK(real_diffs(compare_trial(m.view(0, true, false), d, idx)) == 1);
}

void put32(unsigned char* z, unsigned lane, uint32_t v) { std::memcpy(z + 4 * lane, &v, 4); }

void test_nan_lanes() {
  const auto d = parse_ok("VecU8AddVVM | z[dest]:nan.s | always | nan payloads\n");
  const auto idx = all_of(d);
  fixture f;
  put32(f.ref.z[2], 1, 0x7FC00001u);  // both NaNs, different payloads: excused
  put32(f.emu.z[2], 1, 0x7FC00000u);
  auto diffs = compare_trial(f.view(2), d, idx);
  CHECK(real_diffs(diffs) == 0 && exempt_diffs(diffs) == 1);
  put32(f.ref.z[2], 5, 0x7F800001u);  // NaN against infinity: not excused
  put32(f.emu.z[2], 5, 0x7F800000u);
  CHECK(real_diffs(compare_trial(f.view(2), d, idx)) == 1);
  fixture g;
  put32(g.ref.z[2], 0, 0x3F800000u);  // numbers: not excused
  put32(g.emu.z[2], 0, 0x3F800001u);
  CHECK(real_diffs(compare_trial(g.view(2), d, idx)) == 1);
}

void test_ff_unknown_lanes() {
  const auto d = parse_ok("VecU8AddVVM | z[dest]:ff-unknown | always | ff\n");
  const auto idx = all_of(d);
  fixture f;
  for (unsigned i = 16; i < kVecBytes; ++i) f.ref.ffr[i] = f.emu.ffr[i] = 0;  // the reference gave up at byte 16
  f.emu.z[1][16] ^= 1;
  f.emu.z[1][47] ^= 1;
  CHECK(real_diffs(compare_trial(f.view(1), d, idx)) == 0);
  f.emu.z[1][15] ^= 1;  // below the first lane not loaded
  CHECK(real_diffs(compare_trial(f.view(1), d, idx)) == 1);
  fixture g;  // nothing cleared: every lane is compared
  g.emu.z[1][47] ^= 1;
  CHECK(real_diffs(compare_trial(g.view(1), d, idx)) == 1);
  fixture h;  // FFR clear on entry and no access on the unmapped page: compared
  for (unsigned i = 8; i < kVecBytes; ++i) h.initial.ffr[i] = h.ref.ffr[i] = h.emu.ffr[i] = 0;
  h.emu.z[1][40] ^= 1;
  CHECK(real_diffs(compare_trial(h.view(1, false, false), d, idx)) == 1);
  CHECK(real_diffs(compare_trial(h.view(1, false, true), d, idx)) == 0);
  // FFR itself is never excused by a Z entry.
  fixture k;
  for (unsigned i = 16; i < kVecBytes; ++i) k.ref.ffr[i] = 0;
  CHECK(real_diffs(compare_trial(k.view(1), d, idx)) == 1);
}

void test_given_up_lanes() {
  const auto d = parse_ok("VecU8AddVVM | ffr:given-up, z[dest]:given-up | always | stops early\n");
  const auto idx = all_of(d);
  fixture f;  // quern stopped at byte 24, the reference loaded everything
  for (unsigned i = 24; i < kVecBytes; ++i) f.emu.ffr[i] = 0;
  f.emu.z[6][30] ^= 1;
  auto diffs = compare_trial(f.view(6), d, idx);
  CHECK(real_diffs(diffs) == 0 && exempt_diffs(diffs) == 2);
  f.emu.z[6][23] ^= 1;  // a lane below the stop is compared
  CHECK(real_diffs(compare_trial(f.view(6), d, idx)) == 1);
  fixture g;  // not a clean stop: a set bit after the first cleared one
  for (unsigned i = 24; i < kVecBytes; ++i) g.emu.ffr[i] = 0;
  g.emu.ffr[40] = 1;
  CHECK(real_diffs(compare_trial(g.view(6), d, idx)) == 1);
  fixture h;  // quern set a bit that the reference cleared: never excused
  for (unsigned i = 24; i < kVecBytes; ++i) h.ref.ffr[i] = 0;
  CHECK(real_diffs(compare_trial(h.view(6), d, idx)) == 1);
}

void test_ffr_unknown_lanes() {
  const auto d = parse_ok("VecU8AddVVM | ffr:ff-unknown | always | per lane\n");
  const auto idx = all_of(d);
  fixture f;  // the reference cleared from 12; quern kept some of those bits
  for (unsigned i = 12; i < kVecBytes; ++i) f.ref.ffr[i] = 0;
  for (unsigned i = 12; i < kVecBytes; i += 3) f.emu.ffr[i] = 0;
  CHECK(real_diffs(compare_trial(f.view(0), d, idx)) == 0);
  f.emu.ffr[11] = 0;  // below: compared
  CHECK(real_diffs(compare_trial(f.view(0), d, idx)) == 1);
}

void test_signal() {
  const auto d = parse_ok("VecU8AddVVM | signal | fault-trial | straddling element\n");
  const auto idx = all_of(d);
  fixture f;
  trial_view v = f.view(0, true, true);
  v.emu_signal = SIGSEGV;
  auto diffs = compare_trial(v, d, idx);
  CHECK(diffs.size() == 1 && diffs[0].where == "signal" && diffs[0].exempted_by == 0);
  v.emu_signal = SIGBUS;
  CHECK(real_diffs(compare_trial(v, d, idx)) == 0);
  v.emu_signal = SIGILL;  // never excused
  CHECK(real_diffs(compare_trial(v, d, idx)) == 1);
  v.emu_signal = SIGSEGV;
  v.fault_trial = false;  // condition does not hold
  CHECK(real_diffs(compare_trial(v, d, idx)) == 1);
  v.fault_trial = true;
  CHECK(real_diffs(compare_trial(v, {}, {})) == 1);  // no entry
  // A crash without an entry is a difference even when the states happen to agree.
  fixture g;
  trial_view w = g.view(0);
  w.emu_signal = SIGSEGV;
  CHECK(real_diffs(compare_trial(w, {}, {})) == 1);
}

}  // namespace

int main() {
  test_glob();
  test_parse();
  test_applies();
  test_every_component_compared();
  test_flag_bits_exactly();
  test_registers_from_word();
  test_conditions();
  test_nan_lanes();
  test_ff_unknown_lanes();
  test_given_up_lanes();
  test_ffr_unknown_lanes();
  test_signal();
  if (failures) {
    std::fprintf(stderr, "%d checks failed\n", failures);
    return 1;
  }
  std::printf("departures: all checks passed\n");
  return 0;
}
