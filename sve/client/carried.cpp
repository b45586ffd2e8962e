// Ordinary integer instructions carried inside runs. See carried.h.
//
// A table of encoding classes, each with the register fields it names, a test
// for the encodings the architecture leaves unallocated (and for a write of
// SP, which a run does not carry), and its operation on cpu_state. The
// operations follow the architecture's pseudocode: operands are read at the
// instruction's width, 32-bit results are zero-extended into the X register,
// and register 31 is XZR except where a field names SP.
#include "sve/client/carried.h"

#include "sve/dispatch/adapter_support.h"
#include "sve/predicate/pred_flags.h"

namespace {

// ---- fields and registers -----------------------------------------------------------

constexpr uint32_t bits(uint32_t w, unsigned hi, unsigned lo) { return (w >> lo) & ((2u << (hi - lo)) - 1u); }
constexpr unsigned rd(uint32_t w) { return bits(w, 4, 0); }
constexpr unsigned rn(uint32_t w) { return bits(w, 9, 5); }
constexpr unsigned rm(uint32_t w) { return bits(w, 20, 16); }
constexpr unsigned ra(uint32_t w) { return bits(w, 14, 10); }
constexpr bool sf(uint32_t w) { return (w >> 31) & 1u; }

uint64_t trunc(uint64_t v, bool wide) { return wide ? v : static_cast<uint32_t>(v); }
uint64_t xr(const cpu_state* cs, unsigned n, bool wide) { return trunc(adapter::arg_x(cs, n), wide); }
uint64_t xsp(const cpu_state* cs, unsigned n, bool wide) { return trunc(adapter::arg_xsp(cs, n), wide); }
void put(cpu_state* cs, unsigned n, uint64_t v, bool wide) { adapter::put_x(cs, n, trunc(v, wide)); }
uint64_t sign_extend(uint64_t v, unsigned width) {
  return width >= 64 ? v : static_cast<uint64_t>(static_cast<int64_t>(v << (64 - width)) >> (64 - width));
}
uint64_t ror(uint64_t v, unsigned amount, unsigned width) {
  amount %= width;
  return amount == 0 ? v : trunc((v >> amount) | (v << (width - amount)), width == 64);
}

// ---- flags -------------------------------------------------------------------------------

void set_nz(cpu_state* cs, uint64_t result, bool wide, uint64_t cv) {
  const unsigned top = wide ? 63 : 31;
  cs->nzcv = ((result >> top) & 1u ? kFlagN : 0) | (trunc(result, wide) == 0 ? kFlagZ : 0) | cv;
}

// a + b + carry at the instruction's width (a and b within it), with C and V.
uint64_t add_with_carry(uint64_t a, uint64_t b, unsigned carry, bool wide, uint64_t* cv) {
  const unsigned width = wide ? 64 : 32;
  const unsigned __int128 sum = static_cast<unsigned __int128>(a) + b + carry;
  const uint64_t result = trunc(static_cast<uint64_t>(sum), wide);
  const bool c = static_cast<uint64_t>(sum >> width) & 1u;
  const bool v = ((~(a ^ b) & (a ^ result)) >> (width - 1)) & 1u;
  *cv = (c ? kFlagC : 0) | (v ? kFlagV : 0);
  return result;
}

bool condition_holds(uint64_t nzcv, unsigned cond) {
  const bool n = nzcv & kFlagN, z = nzcv & kFlagZ, c = nzcv & kFlagC, v = nzcv & kFlagV;
  bool r;
  switch (cond >> 1) {
    case 0: r = z; break;
    case 1: r = c; break;
    case 2: r = n; break;
    case 3: r = v; break;
    case 4: r = c && !z; break;
    case 5: r = n == v; break;
    case 6: r = n == v && !z; break;
    default: r = true; break;
  }
  return (cond & 1u) && cond != 15 ? !r : r;
}

// ---- operand forms ---------------------------------------------------------------------

uint64_t shift_reg(uint64_t v, unsigned type, unsigned amount, bool wide) {
  const unsigned width = wide ? 64 : 32;
  if (type == 0) return trunc(v << amount, wide);
  if (type == 1) return v >> amount;
  if (type == 2) return trunc(static_cast<uint64_t>(static_cast<int64_t>(sign_extend(v, width)) >> amount), wide);
  return ror(v, amount, width);
}

uint64_t extend_reg(uint64_t v, unsigned option, unsigned shift, bool wide) {
  const unsigned size = 8u << (option & 3u);
  const uint64_t low = size == 64 ? v : v & ((uint64_t(1) << size) - 1);
  return trunc((option & 4u ? sign_extend(low, size) : low) << shift, wide);
}

// The wmask and tmask of the architecture's DecodeBitMasks; false for the
// encodings it leaves undefined.
bool bit_masks(unsigned n, unsigned imms, unsigned immr, bool immediate, uint64_t* wmask, uint64_t* tmask) {
  const unsigned combined = n << 6 | (~imms & 0x3Fu);
  int len = -1;
  for (int i = 6; i >= 0; --i)
    if (combined >> i & 1u) {
      len = i;
      break;
    }
  if (len < 1) return false;
  const unsigned esize = 1u << len, levels = esize - 1, s = imms & levels, r = immr & levels;
  if (immediate && s == levels) return false;
  const unsigned d = (s - r) & levels;
  const auto ones = [](unsigned k) { return k >= 64 ? ~uint64_t(0) : (uint64_t(1) << k) - 1; };
  const uint64_t emask = ones(esize), run = ones(s + 1);
  uint64_t welem = r == 0 ? run : ((run >> r) | (run << (esize - r))) & emask, telem = ones(d + 1);
  for (unsigned width = esize; width < 64; width *= 2) {
    welem |= welem << width;
    telem |= telem << width;
  }
  *wmask = welem;
  *tmask = telem;
  return true;
}

// ---- the classes ------------------------------------------------------------------------

// Register fields a class names.
enum : uint8_t { kD = 1, kNf = 2, kM = 4, kA = 8, kNsp = 16 /* Rn 31 is SP */ };

// ADD, SUB, ADDS, SUBS (bit 30 subtracts, bit 29 sets the flags) of a second
// operand already formed at the instruction's width.
void add_sub(cpu_state* cs, uint32_t w, uint64_t a, uint64_t b) {
  const bool wide = sf(w), sub = (w >> 30) & 1u;
  uint64_t cv;
  const uint64_t r = add_with_carry(a, trunc(sub ? ~b : b, wide), sub, wide, &cv);
  if ((w >> 29) & 1u) set_nz(cs, r, wide, cv);
  put(cs, rd(w), r, wide);
}

void add_sub_imm(cpu_state* cs, uint32_t w) {
  add_sub(cs, w, xsp(cs, rn(w), sf(w)), uint64_t(bits(w, 21, 10)) << (bits(w, 22, 22) ? 12 : 0));
}

// The loop counter's two forms, ADD Xd, Xn, Xm and ADD Xd, Xn|SP, #imm, on a
// short way of their own.
void add_x(cpu_state* cs, uint32_t w) { put(cs, rd(w), xr(cs, rn(w), true) + xr(cs, rm(w), true), true); }
void add_x_imm(cpu_state* cs, uint32_t w) { put(cs, rd(w), xsp(cs, rn(w), true) + bits(w, 21, 10), true); }

void add_sub_shifted(cpu_state* cs, uint32_t w) {
  add_sub(cs, w, xr(cs, rn(w), sf(w)), shift_reg(xr(cs, rm(w), sf(w)), bits(w, 23, 22), bits(w, 15, 10), sf(w)));
}

void add_sub_extended(cpu_state* cs, uint32_t w) {
  add_sub(cs, w, xsp(cs, rn(w), sf(w)), extend_reg(xr(cs, rm(w), true), bits(w, 15, 13), bits(w, 12, 10), sf(w)));
}

uint64_t logical_op(cpu_state* cs, unsigned opc, uint64_t a, uint64_t b, bool wide) {
  uint64_t r;
  switch (opc) {
    case 0: r = a & b; break;
    case 1: r = a | b; break;
    case 2: r = a ^ b; break;
    default:
      r = a & b;
      set_nz(cs, r, wide, 0);
      break;
  }
  return trunc(r, wide);
}

void logical_shifted(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  uint64_t b = shift_reg(xr(cs, rm(w), wide), bits(w, 23, 22), bits(w, 15, 10), wide);
  if ((w >> 21) & 1u) b = trunc(~b, wide);
  put(cs, rd(w), logical_op(cs, bits(w, 30, 29), xr(cs, rn(w), wide), b, wide), wide);
}

void logical_imm(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  uint64_t imm, unused;
  bit_masks(bits(w, 22, 22), bits(w, 15, 10), bits(w, 21, 16), true, &imm, &unused);
  put(cs, rd(w), logical_op(cs, bits(w, 30, 29), xr(cs, rn(w), wide), trunc(imm, wide), wide), wide);
}

void move_wide(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  const unsigned pos = 16 * bits(w, 22, 21);
  const uint64_t imm = uint64_t(bits(w, 20, 5)) << pos;
  uint64_t r;
  switch (bits(w, 30, 29)) {
    case 0: r = ~imm; break;                                                   // MOVN
    case 2: r = imm; break;                                                    // MOVZ
    default: r = (xr(cs, rd(w), true) & ~(uint64_t(0xFFFF) << pos)) | imm;    // MOVK
  }
  put(cs, rd(w), r, wide);
}

void bitfield(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  const unsigned opc = bits(w, 30, 29), r = bits(w, 21, 16), s = bits(w, 15, 10), width = wide ? 64 : 32;
  uint64_t wmask, tmask;
  bit_masks(bits(w, 22, 22), s, r, false, &wmask, &tmask);
  const uint64_t src = xr(cs, rn(w), wide), dst = opc == 1 ? xr(cs, rd(w), wide) : 0;   // BFM keeps Rd
  const uint64_t bot = (dst & ~wmask) | (ror(src, r, width) & wmask);
  const uint64_t top = opc == 0 && (src >> s & 1u) ? ~uint64_t(0) : opc == 0 ? 0 : dst;   // SBFM replicates
  put(cs, rd(w), (top & ~tmask) | (bot & tmask), wide);
}

void extract(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  const unsigned lsb = bits(w, 15, 10), width = wide ? 64 : 32;
  const uint64_t hi = xr(cs, rn(w), wide), lo = xr(cs, rm(w), wide);
  put(cs, rd(w), lsb == 0 ? lo : (lo >> lsb) | (hi << (width - lsb)), wide);
}

void cond_select(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w), inv = (w >> 30) & 1u, inc = (w >> 10) & 1u;
  uint64_t r;
  if (condition_holds(cs->nzcv, bits(w, 15, 12))) {
    r = xr(cs, rn(w), wide);
  } else {
    r = xr(cs, rm(w), wide);
    if (inv) r = ~r;
    if (inc) r += 1;
  }
  put(cs, rd(w), r, wide);
}

void two_source(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  const unsigned width = wide ? 64 : 32, op = bits(w, 15, 10);
  const uint64_t a = xr(cs, rn(w), wide), b = xr(cs, rm(w), wide);
  uint64_t r;
  switch (op) {
    case 2: r = b == 0 ? 0 : a / b; break;
    case 3: {
      const int64_t sa = static_cast<int64_t>(sign_extend(a, width)), sb = static_cast<int64_t>(sign_extend(b, width));
      // Round toward zero; INT_MIN / -1 wraps to INT_MIN.
      r = sb == 0 ? 0 : sb == -1 ? 0 - static_cast<uint64_t>(sa) : static_cast<uint64_t>(sa / sb);
      break;
    }
    default: r = shift_reg(a, op - 8, static_cast<unsigned>(b % width), wide); break;
  }
  put(cs, rd(w), r, wide);
}

void one_source(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w);
  const unsigned width = wide ? 64 : 32, op = bits(w, 15, 10);
  const uint64_t a = xr(cs, rn(w), wide);
  uint64_t r = 0;
  if (op <= 3) {
    // RBIT, REV16, REV32, REV: reverse the bits (RBIT) or the bytes within
    // containers of 16, 32 or 64 bits.
    const unsigned container = op == 0 ? width : 8u << op;
    for (unsigned base = 0; base < width; base += container)
      for (unsigned i = 0; i < container; ++i) {
        const unsigned from = op == 0 ? container - 1 - i : (container / 8 - 1 - i / 8) * 8 + i % 8;
        r |= (a >> (base + from) & 1u) << (base + i);
      }
  } else {
    // CLZ, and CLS: leading bits equal to the sign, the sign not counted.
    const uint64_t v = op == 4 ? a : trunc((a ^ (a << 1)) | 1u, wide);
    unsigned k = 0;
    while (k < width && !(v >> (width - 1 - k) & 1u)) ++k;
    r = k;
  }
  put(cs, rd(w), r, wide);
}

void three_source(cpu_state* cs, uint32_t w) {
  const bool wide = sf(w), sub = (w >> 15) & 1u;
  const uint64_t a = xr(cs, rn(w), true), b = xr(cs, rm(w), true), acc = xr(cs, ra(w), true);
  uint64_t product;
  switch (bits(w, 23, 21)) {
    case 0: product = trunc(trunc(a, wide) * trunc(b, wide), wide); break;
    case 1: product = sign_extend(a, 32) * sign_extend(b, 32); break;                 // SMADDL
    case 5: product = trunc(a, false) * trunc(b, false); break;                       // UMADDL
    case 2:
      put(cs, rd(w), static_cast<uint64_t>((static_cast<__int128>(static_cast<int64_t>(a)) *
                                           static_cast<int64_t>(b)) >> 64), true);   // SMULH
      return;
    default:
      put(cs, rd(w), static_cast<uint64_t>((static_cast<unsigned __int128>(a) * b) >> 64), true);   // UMULH
      return;
  }
  put(cs, rd(w), sub ? trunc(acc, wide) - product : trunc(acc, wide) + product, wide);
}

void pc_relative(cpu_state* cs, uint32_t w) {
  const uint64_t imm = sign_extend(bits(w, 23, 5) << 2 | bits(w, 30, 29), 21);
  const uint64_t pc = reinterpret_cast<uint64_t>(cs->pc);
  put(cs, rd(w), (w >> 31) & 1u ? (pc & ~uint64_t(0xFFF)) + (imm << 12) : pc + imm, true);
}

void nop(cpu_state*, uint32_t) {}

// Encodings the architecture leaves unallocated within a class, and writes of SP.
bool add_sub_imm_ok(uint32_t w) { return (w >> 29 & 1u) || rd(w) != 31; }
bool shifted_ok(uint32_t w) { return sf(w) || !(w >> 15 & 1u); }
bool add_sub_shifted_ok(uint32_t w) { return shifted_ok(w) && bits(w, 23, 22) != 3; }
bool add_sub_extended_ok(uint32_t w) { return bits(w, 12, 10) <= 4 && ((w >> 29 & 1u) || rd(w) != 31); }
bool logical_imm_ok(uint32_t w) {
  uint64_t a, b;
  return (sf(w) || !(w >> 22 & 1u)) && (bits(w, 30, 29) == 3 || rd(w) != 31) &&
         bit_masks(bits(w, 22, 22), bits(w, 15, 10), bits(w, 21, 16), true, &a, &b);
}
bool move_wide_ok(uint32_t w) { return bits(w, 30, 29) != 1 && (sf(w) || !(w >> 22 & 1u)); }
bool bitfield_ok(uint32_t w) {
  return bits(w, 30, 29) != 3 && bits(w, 22, 22) == bits(w, 31, 31) && (sf(w) || ((w >> 21 | w >> 15) & 1u) == 0);
}
bool extract_ok(uint32_t w) { return bits(w, 22, 22) == bits(w, 31, 31) && (sf(w) || !(w >> 15 & 1u)); }
bool two_source_ok(uint32_t w) {
  const unsigned op = bits(w, 15, 10);
  return op == 2 || op == 3 || (op >= 8 && op <= 11);
}
bool one_source_ok(uint32_t w) {
  const unsigned op = bits(w, 15, 10);
  return op <= 5 && (op != 3 || sf(w));
}
bool three_source_ok(uint32_t w) {
  switch (bits(w, 23, 21)) {
    case 0: return true;
    case 1: case 5: return sf(w);
    case 2: case 6: return sf(w) && !(w >> 15 & 1u) && ra(w) == 31;
    default: return false;
  }
}
bool always(uint32_t) { return true; }

// What a run's table calls for a carried instruction: its class's operation
// directly, so that a carried instruction costs one call, like an SVE word.
template <void (*Op)(cpu_state*, uint32_t)>
aarch64_decode_rc entry(cpu_state* cs, unsigned int word) {
  Op(cs, word);
  return AARCH64_DECODE_OK;
}

struct carried_class {
  uint32_t mask, value;
  uint8_t fields;
  bool (*ok)(uint32_t);
  sve_handler_fn run;
};

constexpr carried_class kClasses[] = {
    {0xFFFFFFFFu, 0xD503201Fu, 0, always, entry<nop>},
    {0xFFE0FC00u, 0x8B000000u, kD | kNf | kM, always, entry<add_x>},
    {0xFFC00000u, 0x91000000u, kD | kNf | kNsp, add_sub_imm_ok, entry<add_x_imm>},
    {0x1F800000u, 0x11000000u, kD | kNf | kNsp, add_sub_imm_ok, entry<add_sub_imm>},
    {0x1F200000u, 0x0B000000u, kD | kNf | kM, add_sub_shifted_ok, entry<add_sub_shifted>},
    {0x1FE00000u, 0x0B200000u, kD | kNf | kM | kNsp, add_sub_extended_ok, entry<add_sub_extended>},
    {0x1F000000u, 0x0A000000u, kD | kNf | kM, shifted_ok, entry<logical_shifted>},
    {0x1F800000u, 0x12000000u, kD | kNf, logical_imm_ok, entry<logical_imm>},
    {0x1F800000u, 0x12800000u, kD, move_wide_ok, entry<move_wide>},
    {0x1F800000u, 0x13000000u, kD | kNf, bitfield_ok, entry<bitfield>},
    {0x7FA00000u, 0x13800000u, kD | kNf | kM, extract_ok, entry<extract>},
    {0x3FE00800u, 0x1A800000u, kD | kNf | kM, always, entry<cond_select>},
    {0x7FE00000u, 0x1AC00000u, kD | kNf | kM, two_source_ok, entry<two_source>},
    {0x7FFF0000u, 0x5AC00000u, kD | kNf, one_source_ok, entry<one_source>},
    {0x7F000000u, 0x1B000000u, kD | kNf | kM | kA, three_source_ok, entry<three_source>},
    {0x1F000000u, 0x10000000u, kD, always, entry<pc_relative>},
};

const carried_class* class_of(uint32_t w) {
  for (const carried_class& c : kClasses)
    if ((w & c.mask) == c.value) return c.ok(w) ? &c : nullptr;
  return nullptr;
}

}  // namespace

sve_handler_fn carried_instruction(uint32_t word, register_use* use) {
  const carried_class* c = class_of(word);
  if (!c) return nullptr;
  const auto name = [&](unsigned n, bool may_be_sp) {
    if (n != 31) use->x |= 1u << n;
    else if (may_be_sp) use->sp = true;
  };
  if (c->fields & kD) name(rd(word), false);
  if (c->fields & kNf) name(rn(word), c->fields & kNsp);
  if (c->fields & kM) name(rm(word), false);
  if (c->fields & kA) name(ra(word), false);
  return c->run;
}
