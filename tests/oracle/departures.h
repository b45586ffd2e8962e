// The allowlist of the differential test: results in which quern differs from
// the reference processor on purpose, and the comparison of two machine
// states that honours it.
//
// An entry names the rows it applies to, the exact piece of state it exempts
// and, optionally, the condition under which it does; nothing else of a trial
// is excused by it. See departures.txt for the file's syntax.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"

namespace oracle {

// ---- entries -------------------------------------------------------------------

enum class state_kind { x, sp, nzcv, fpsr, fpcr, z, p, ffr, memory, signal };

// Which lanes of a Z register or of FFR an exemption covers.
enum class lane_rule {
  all,         // the whole register
  nan,         // Z: lanes of lane_bytes where both results are NaNs
  ff_unknown,  // from the first FFR bit that the reference cleared (its load stopped there)
  given_up,    // from the first FFR bit that quern cleared; for FFR only the bits that
               // quern cleared and the reference kept
};

// One exempted piece of state.
struct exempt_state {
  state_kind kind = state_kind::x;
  bool reg_from_word = false;  // register number taken from word[hi:lo] ...
  unsigned hi = 0, lo = 0;
  unsigned reg = 0;            // ... or this fixed number (x, z, p)
  uint64_t bits = ~uint64_t(0);  // nzcv, fpsr, fpcr, x: the exempted bits
  lane_rule lanes = lane_rule::all;
  unsigned lane_bytes = 0;     // for lane_rule::nan: 2, 4 or 8
  std::string text;            // as written in the file
};

// One conjunct of a condition.
struct condition {
  enum source { word_bits, fpcr_bits, fault_trial } src = word_bits;
  unsigned hi = 0, lo = 0;     // bit range of the word or of FPCR
  uint32_t value = 0;
};

struct departure {
  int line = 0;
  std::vector<std::string> row_globs;
  std::vector<exempt_state> states;
  std::vector<condition> when;     // empty: always
  std::string reason;
  std::string states_text, when_text;
};

// Parses the allowlist text. `where` names the source in messages. Returns
// false with a message for a malformed line, an unknown state or condition, or
// a row glob that matches no row of the decode table.
bool parse_departures(const std::string& text, const std::string& where, std::vector<departure>& out,
                      std::string& error);
bool load_departures(const std::string& path, std::vector<departure>& out, std::string& error);

// Shell-style glob: '*' and '?' only.
bool glob_match(const char* pattern, const char* name);

// True if an entry applies to a row: one of its globs matches the row's
// adapter name, handler name (without the '+') or map name.
bool departure_applies(const departure& d, const decode_row& r);

// ---- one trial's comparison ----------------------------------------------------

// Everything the comparison and the conditions look at. Memory pointers may be
// null (a row that touches no memory); then memory is not compared.
struct trial_view {
  uint32_t word = 0;
  int emu_signal = 0;              // the emulated run raised this signal; its state is not compared
  bool fault_trial = false;        // some access was placed on the unmapped page
  const cpu_state* initial = nullptr;
  const cpu_state* ref = nullptr;
  const cpu_state* emu = nullptr;
  const unsigned char* ref_mem = nullptr;
  const unsigned char* emu_mem = nullptr;
  size_t mem_size = 0;
};

struct difference {
  std::string where;               // "x3", "z5", "nzcv", "mem", ...
  std::string detail;              // reference against emulated, for the report
  int exempted_by = -1;            // index into the departures given, or -1
};

// Compares reference against emulated. If the emulated run raised a signal,
// that alone is the difference ("signal"; only SIGSEGV and SIGBUS can be
// excused, by a `signal` entry). Otherwise: every X register, SP, NZCV, FPSR,
// FPCR, all 48 bytes of every Z register, every P register, FFR and the
// memory. A piece of state that differs is exempted only if every differing
// bit or byte of it is covered by the applicable departures whose condition
// holds; otherwise it is a difference. `applicable` holds indices into `all`.
std::vector<difference> compare_trial(const trial_view& t, const std::vector<departure>& all,
                                      const std::vector<int>& applicable);

// Whether a departure's condition holds for a trial.
bool condition_holds(const departure& d, const trial_view& t);

}  // namespace oracle
