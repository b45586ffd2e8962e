// Instruction decode: from a 32-bit word to the adapter that carries it out.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>

#include "sve/dispatch/cpu_state.h"

using decode_map = std::map<int, sve_handler_fn>;

// One row of the decode table.
struct decode_row {
  uint16_t map;                 // index into decode_maps
  uint32_t key;                 // the map's key for this row
  uint32_t mask, value;         // the row matches words with (word & mask) == value
  const char* adapter;          // adapter name, also the generic routine's name
  const char* road;             // handler name (with '+' for the FPSR bracket), G<n> or N
  const char* operands;         // operand tokens, see docs/decode_table.md
  const char* subsystem;        // int, predicate, memory or fp
  sve_handler_fn fn;            // the adapter
  void (*target)();             // the handler or routine it ends in; null until it lands
};

struct decode_map_info {
  const char* name;
  uint8_t nranges;
  uint8_t ranges[4][2];         // key bit ranges, most significant first
  uint16_t first_row, nrows;
};

constexpr unsigned kDecodeRows = 1483;
constexpr unsigned kDecodeMaps = 44;

extern const decode_row decode_rows[kDecodeRows];
extern const decode_map_info decode_maps[kDecodeMaps];

// Page size of the process, read once at load.
extern uint32_t page_size;

// The adapter for a word, or null if the word is not an emulated instruction.
// Takes no lock, allocates nothing, has no side effect.
sve_handler_fn get_sve_handler(unsigned int word);

// The same answer through the 44 ordered maps, searched in table order.
sve_handler_fn get_sve_handler_cascade(unsigned int word);

// The row of a word, or null. Used by tools; the emulator itself needs only the handler.
const decode_row* find_decode_row(unsigned int word);

// The key of a word in a map.
uint32_t decode_map_key(const decode_map_info& m, unsigned int word);

// A row's operation has landed when its handler or routine exists; no-op rows always have.
inline bool row_implemented(const decode_row& r) { return r.road[0] == 'N' || r.target != nullptr; }

// For tools and tests: the operands that a row's adapter extracts from a word,
// reported token by token (register numbers, or immediate values after
// expansion), through the very expressions that the adapter uses.
struct operand_sink {
  void (*emit)(void* context, const char* token, uint64_t value);
  void* context;
  void operator()(const char* token, uint64_t value) { emit(context, token, value); }
};
using operand_describer = void (*)(unsigned int word, operand_sink& out);
extern const operand_describer operand_describers[kDecodeRows];

// ---- entries for rewritten code ----------------------------------------------

// Row by row, the adapter without its test that the operation has landed: for
// code that makes that test once, when it is built. Only valid for a row whose
// row_implemented() is true; row_entry() chooses.
extern const sve_handler_fn decode_entries[kDecodeRows];

// What rewritten code should call for a row: the entry once its operation has
// landed, else the adapter, which reports the instruction as unimplemented.
inline sve_handler_fn row_entry(const decode_row& r) {
  return row_implemented(r) ? decode_entries[&r - decode_rows] : r.fn;
}

// The host registers a row touches: Z registers (whose low 128 bits are the
// host's Q registers) and X registers that it reads or writes, and whether
// SP is among them. P registers and FFR have no host state. From the row's
// operand tokens, generated with the table.
struct row_register { uint8_t kind, lo, width, count; };   // kind: 1 Z, 2 X (31: none), 3 X or SP (31)
struct row_registers {
  uint8_t n;
  row_register r[4];
};
extern const row_registers decode_row_registers[kDecodeRows];

struct register_use {
  uint32_t z;    // bit i: Zi
  uint32_t x;    // bit i: Xi
  bool sp;
  bool fp;       // FPCR is read or FPSR may change: a floating-point row
};

// Whether a row reads FPCR or may change FPSR. No other row does, whichever
// road it takes: generic adapters copy FPSR back unchanged, and the integer,
// predicate and memory code raises no floating-point flag.
inline bool row_touches_fp(const decode_row& row) {
  return row.subsystem[0] == 'f' || row.road[std::strlen(row.road) - 1] == '+';
}

inline void add_register_use(const decode_row& row, unsigned int word, register_use& use) {
  use.fp |= row_touches_fp(row);
  const row_registers& regs = decode_row_registers[&row - decode_rows];
  for (unsigned i = 0; i < regs.n; ++i) {
    const row_register& r = regs.r[i];
    const unsigned n = (word >> r.lo) & ((1u << r.width) - 1);
    if (r.kind == 1) {
      for (unsigned k = 0; k < r.count; ++k) use.z |= 1u << ((n + k) % 32);   // Zt, Zt+1, .. wrap at 31
    } else if (n != 31) {
      use.x |= 1u << n;
    } else if (r.kind == 3) {
      use.sp = true;
    }
  }
}
