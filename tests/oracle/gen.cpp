// Random trials: words, machine states, bounded memory operands.
#include "tests/oracle/gen.h"

#include <cstring>
#include <vector>

namespace oracle {

// ---- random numbers ----------------------------------------------------------------

namespace {

uint64_t splitmix(uint64_t& x) {
  uint64_t z = (x += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

uint64_t rotl(uint64_t v, int k) { return (v << k) | (v >> (64 - k)); }

}  // namespace

uint64_t rng::next() {
  const uint64_t result = rotl(s[1] * 5, 7) * 9;
  const uint64_t t = s[1] << 17;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= t;
  s[3] = rotl(s[3], 45);
  return result;
}

uint64_t rng::below(uint64_t n) {
  // Rejection keeps the result unbiased for every n.
  const uint64_t limit = ~uint64_t(0) - (~uint64_t(0) % n);
  uint64_t v;
  do v = next();
  while (v >= limit);
  return v % n;
}

int64_t rng::between(int64_t lo, int64_t hi) {
  return lo + static_cast<int64_t>(below(static_cast<uint64_t>(hi - lo) + 1));
}

rng trial_rng(uint64_t seed, const char* row_name, unsigned trial) {
  uint64_t h = 0xCBF29CE484222325ull;  // FNV-1a of the adapter name
  for (const char* c = row_name; *c; ++c) h = (h ^ static_cast<unsigned char>(*c)) * 0x100000001B3ull;
  uint64_t x = seed ^ rotl(h, 17) ^ (uint64_t(trial) * 0xD1B54A32D192ED03ull);
  rng g;
  for (auto& w : g.s) w = splitmix(x);
  return g;
}

// ---- the plan of a memory row ---------------------------------------------------------

namespace {

struct token {
  std::string kind;  // "Z", "V", "S", "XSP", "R", "X", "P", "PV", ...
  int hi = -1, lo = -1;
  char size = 0;     // 'b', 'h', 's', 'd', 'x' after a '.'
  bool result = false;
};

std::vector<token> parse_tokens(const char* operands) {
  static const char* const kinds[] = {"XSP", "Zrw", "Prw", "Rrw", "PV", "Z", "P", "R", "S", "X", "V", "E"};
  std::vector<token> out;
  const char* p = operands;
  while (*p) {
    while (*p == ' ') ++p;
    const char* start = p;
    while (*p && *p != ' ') ++p;
    std::string t(start, p);
    if (t.empty() || t == "|") continue;
    token tok;
    if (t.compare(0, 2, "=>") == 0) {
      tok.result = true;
      t = t.substr(2);
    }
    for (const char* k : kinds) {
      const size_t n = std::strlen(k);
      if (t.compare(0, n, k) == 0 && t.size() > n && t[n] >= '0' && t[n] <= '9') {
        tok.kind = k;
        if (tok.kind == "Zrw") tok.kind = "Z";
        if (tok.kind == "Prw") tok.kind = "P";
        if (tok.kind == "Rrw") tok.kind = "R";
        size_t i = n;
        tok.hi = tok.lo = std::atoi(t.c_str() + i);
        while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
        if (i < t.size() && t[i] == ':') {
          tok.lo = std::atoi(t.c_str() + i + 1);
          ++i;
          while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
        }
        if (i + 1 < t.size() && t[i] == '.') tok.size = t[i + 1];
        break;
      }
    }
    if (!tok.kind.empty()) out.push_back(tok);
  }
  return out;
}

bool contains(const char* s, const char* sub) { return std::strstr(s, sub) != nullptr; }

// Bytes of the register element: the number after Vec<letter> in the adapter name.
unsigned name_esize(const char* adapter) {
  const char* p = adapter + 4;  // past "Vec" and the type letter
  const int bits = std::atoi(p);
  return bits >= 8 ? static_cast<unsigned>(bits / 8) : 0;
}

// The memory element size (the digit after Load/Store/Prefetch and its
// letters) and what follows it, e.g. "XSVZ".
unsigned name_msize(const char* adapter, const char** suffix) {
  const char* p = nullptr;
  for (const char* w : {"Load", "Store", "Prefetch"})
    if ((p = std::strstr(adapter, w)) != nullptr) {
      p += std::strlen(w);
      break;
    }
  *suffix = "";
  if (!p) return 0;
  while (*p && !(*p >= '0' && *p <= '9')) ++p;
  if (!*p) return 0;
  *suffix = p + 1;
  return static_cast<unsigned>(*p - '0');
}

}  // namespace

bool plan_row(const decode_row& r, row_plan& plan, std::string& error) {
  plan = row_plan{};
  const char* a = r.adapter;
  if (std::strcmp(r.subsystem, "fp") == 0) {
    const unsigned e = name_esize(a);
    plan.fp_bytes = e == 2 || e == 4 || e == 8 ? e : 4;
  }
  plan.memory = contains(a, "Load") || contains(a, "Store") || contains(a, "Prefetch") || contains(a, "Fill") ||
                contains(a, "Spill");
  if (!plan.memory) return true;
  plan.prefetch = contains(a, "Prefetch");
  plan.first_fault = contains(a, "LoadFF") || contains(a, "LoadNF");
  plan.esize = name_esize(a);
  const char* suffix = "";
  plan.msize = name_msize(a, &suffix);
  if (plan.prefetch) return true;  // never faults, never writes: nothing to bound

  bool has_index = false, has_vec = false;
  for (const token& t : parse_tokens(r.operands)) {
    if ((t.kind == "S" || t.kind == "XSP") && plan.base_hi < 0) {
      plan.base_hi = t.hi;
      plan.base_lo = t.lo;
    } else if (t.kind == "R" || t.kind == "X") {
      plan.index_hi = t.hi;
      plan.index_lo = t.lo;
      has_index = true;
    } else if ((t.kind == "Z" || t.kind == "V") && !t.result && t.lo != 0) {
      plan.vec_hi = t.hi;
      plan.vec_lo = t.lo;
      plan.vec_bytes = t.size == 's' ? 4 : t.size == 'd' ? 8 : plan.esize;
      has_vec = true;
    }
  }
  if (plan.base_hi >= 0)
    plan.form = has_vec ? addr_form::scalar_vector : has_index ? addr_form::scalar_scalar : addr_form::scalar_imm;
  else if (has_vec)
    plan.form = addr_form::vector_imm;

  if (plan.form == addr_form::none) {
    error = "memory row without a base operand";
    return false;
  }
  if (has_vec && plan.vec_bytes != 4 && plan.vec_bytes != 8) {
    error = "vector address operand of unknown element size";
    return false;
  }
  if (plan.form == addr_form::scalar_vector) {
    // Adapter names: ...<msize>[X|Y](VS|SV)Z. X is sxtw, Y uxtw; without a
    // letter 32-bit lanes are uxtw and 64-bit lanes are plain 64-bit offsets.
    // SV scales the index by the memory size, VS does not.
    const char* s = suffix;
    const char ext = (*s == 'X' || *s == 'Y') ? *s++ : 0;
    plan.vec_signed = ext == 'X' || (ext == 0 && plan.vec_bytes == 8);
    plan.vec_scaled = s[0] == 'S' && s[1] == 'V';
    // A fast row's handler says the same in words; hold the two together.
    if (r.road[0] == 's') {
      const bool sxtw = contains(r.road, "sxtw"), uxtw = contains(r.road, "uxtw");
      const bool want_signed = sxtw || (!uxtw && plan.vec_bytes == 8);
      if (want_signed != plan.vec_signed || contains(r.road, "scaled") != plan.vec_scaled) {
        error = std::string("offset form of the name disagrees with handler ") + r.road;
        return false;
      }
    }
  }
  if (r.road[0] == 's' && plan.msize) {
    // The handler's mnemonic ends in the memory size letter: ld1sw, st1h, ldff1b.
    const char* m = r.road + 4;
    const char* end = std::strchr(m, '_');
    const char last = end && end > m ? end[-1] : 0;
    const unsigned want = last == 'b' ? 1 : last == 'h' ? 2 : last == 'w' ? 4 : last == 'd' ? 8 : 0;
    if (want && want != plan.msize) {
      error = std::string("memory size of the name disagrees with handler ") + r.road;
      return false;
    }
  }
  return true;
}

// ---- values ----------------------------------------------------------------------------

namespace {

uint64_t width_mask(unsigned bytes) { return bytes >= 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * bytes)) - 1; }

// Integers where arithmetic goes wrong, at a width.
uint64_t int_special(unsigned bytes, rng& g) {
  const unsigned bits = 8 * bytes;
  const uint64_t mask = width_mask(bytes);
  const uint64_t sign = uint64_t(1) << (bits - 1);
  switch (g.below(10)) {
    case 0: return 0;
    case 1: return 1;
    case 2: return mask;              // -1
    case 3: return sign - 1;          // signed maximum
    case 4: return sign;              // signed minimum
    case 5: return sign + 1;
    case 6: return mask - 1;
    case 7: return g.below(17);                   // small
    case 8: return (0 - g.below(17)) & mask;      // small negative
    default: return (uint64_t(1) << g.below(bits)) & mask;  // one bit
  }
}

// Floating-point values where arithmetic goes wrong, at one width: zeros,
// denormals, infinities, quiet and signalling NaNs, extremes, and values next
// to the boundaries where a result rounds (half and quarter ulps of 1, all-ones
// mantissas, x.5, the integer limits of conversions, the edge of underflow).
uint64_t fp_special(unsigned bytes, rng& g) {
  const unsigned ebits = bytes == 2 ? 5 : bytes == 4 ? 8 : 11;
  const unsigned mbits = bytes == 2 ? 10 : bytes == 4 ? 23 : 52;
  const uint64_t mmask = (uint64_t(1) << mbits) - 1;
  const uint64_t emax = (uint64_t(1) << ebits) - 1;
  const uint64_t bias = emax >> 1;
  const uint64_t sign = g.one_in(2) ? uint64_t(1) << (ebits + mbits) : 0;
  // Taken as one braced list, so that the exponent's draws come before the
  // mantissa's in every build (arguments of a call have no order).
  struct fields { uint64_t e, m; };
  auto make = [&](fields f) { return sign | (f.e << mbits) | (f.m & mmask); };
  // An exponent relative to 1.0, held inside the finite range.
  auto near_one = [&](int64_t d) {
    const int64_t e = static_cast<int64_t>(bias) + d;
    return static_cast<uint64_t>(e < 1 ? 1 : e > static_cast<int64_t>(emax) - 1 ? static_cast<int64_t>(emax) - 1 : e);
  };
  const uint64_t quiet = uint64_t(1) << (mbits - 1);
  switch (g.below(26)) {
    case 0: return make({0, 0});                                   // zero
    case 1: return make({0, 1});                                   // smallest denormal
    case 2: return make({0, mmask});                               // largest denormal
    case 3: return make({0, g.next() | 1});                        // some denormal
    case 4: return make({1, 0});                                   // smallest normal
    case 5: return make({emax, 0});                                // infinity
    case 6: return make({emax, quiet | (g.next() & (quiet - 1))}); // quiet NaN
    case 7: return make({emax, (g.next() & (quiet - 1)) | 1});     // signalling NaN
    case 8: return make({emax - 1, mmask});                        // largest finite
    case 9: return make({bias, 0});                                // 1.0
    case 10: return make({bias, 1});                               // 1 + ulp
    case 11: return make({bias + 1, quiet});                       // 3.0 (integer .5 cases below)
    case 12: return make({bias + g.below(mbits / 2 + 1), quiet | (g.next() & 1)}); // x.5 and near
    case 13: return make({bias - 1 - g.below(4), g.next()});       // in (0, 1)
    case 14: return make({emax - 1 - g.below(3), g.next()});       // near overflow
    case 15: return make({1 + g.below(3), g.next()});              // near underflow
    case 16: return make({near_one(-static_cast<int64_t>(mbits) - 1 - static_cast<int64_t>(g.below(2))), g.below(2)}); // half, quarter ulp of 1
    case 17: return make({near_one(g.between(-4, 4)), mmask - g.below(2)});  // just below a power of two
    case 18: return make({near_one(g.between(-8, 8)), (g.next() & ~uint64_t(3)) | 2});  // a tie one bit down
    case 19: return make({0, quiet | (g.next() & (quiet - 1))});   // denormal near the normal range
    case 20: {                                                   // integer limits of conversions
      static const int kPow[] = {15, 16, 31, 32, 63, 64};
      const int p = kPow[g.below(6)];
      return make({near_one(p - static_cast<int>(g.below(2))), g.one_in(2) ? 0 : mmask - g.below(2)});
    }
    case 21: return make({near_one(static_cast<int64_t>(mbits + g.below(2))), g.next()}); // where the spacing reaches 1 or 2
    case 22: return make({near_one(static_cast<int64_t>(bias) / 2 + g.between(-1, 1)), g.next()}); // products overflow
    case 23: return make({near_one(-static_cast<int64_t>(bias) / 2 + g.between(-1, 1)), g.next()}); // products underflow
    case 24: return make({near_one(g.between(-2, 2)), g.next() & ~((uint64_t(1) << (mbits / 2)) - 1)}); // short mantissas
    default: return make({near_one(g.between(-3, 3)), g.below(8) << (mbits - 3)}); // small dyadics: exact sums
  }
}

// One Z register. fp_bytes == 0: an element size at random and a mix of random
// bits, integers and floating-point values. Otherwise mostly values of that
// width (sometimes another, for conversions), random, special, or taken from
// the trial's pool, negated at times.
void random_z(unsigned char* z, rng& g, unsigned fp_bytes, const uint64_t* pool, unsigned pool_n) {
  unsigned bytes = 1u << g.below(4);
  unsigned mode = static_cast<unsigned>(g.below(4));  // random, integers, floating point, mixed
  if (fp_bytes && !g.one_in(5)) {
    bytes = g.one_in(4) ? 2u << g.below(3) : fp_bytes;
    mode = g.one_in(2) ? 4 : 2;                         // pool, or floating point
  }
  for (unsigned i = 0; i < kVecBytes; i += bytes) {
    uint64_t v = g.next();
    const unsigned kind = mode == 3 ? static_cast<unsigned>(g.below(3)) : mode;
    if (kind == 1 && !g.one_in(3)) v = int_special(bytes, g);
    if (kind == 2 && !g.one_in(4)) v = bytes == 1 ? int_special(1, g) : fp_special(bytes, g);
    if (kind == 4) {
      if (bytes == fp_bytes && !g.one_in(4)) {
        v = pool[g.below(pool_n)];
        if (g.one_in(4)) v ^= uint64_t(1) << (8 * bytes - 1);
      } else {
        v = fp_special(bytes, g);
      }
    }
    std::memcpy(z + i, &v, bytes);
  }
}

// A predicate in the byte-per-bit form: all true, all false, a first run,
// random, and non-canonical patterns (bits set inside wider elements).
void random_pred(unsigned char* p, rng& g) {
  const unsigned bytes = 1u << g.below(4);
  const unsigned kind = static_cast<unsigned>(g.below(7));
  const unsigned run = static_cast<unsigned>(g.below(kVecBytes / bytes + 1));
  for (unsigned i = 0; i < kVecBytes; ++i) {
    const bool first = i % bytes == 0;
    unsigned char b = 0;
    switch (kind) {
      case 0: b = first; break;                                  // all true at the size
      case 1: b = 0; break;                                      // all false
      case 2: b = first && i / bytes < run; break;               // first `run` elements
      case 3: b = first && g.one_in(2); break;                   // random, canonical
      case 4: b = static_cast<unsigned char>(g.below(2)); break; // random, any bit
      case 5: b = 1; break;                                      // every bit
      default: b = first ? i / bytes < run : g.one_in(3); break; // a run, with noise inside elements
    }
    p[i] = b;
  }
}

uint64_t random_x(rng& g) {
  switch (g.below(6)) {
    case 0: return g.below(65);
    case 1: return int_special(8, g);
    case 2: return int_special(4, g);
    default: return g.next();
  }
}

uint32_t random_fpcr(rng& g) {
  if (g.one_in(2)) return 0;
  uint32_t v = static_cast<uint32_t>(g.below(4)) << 22;  // RMode
  if (g.one_in(3)) v |= 1u << 24;                        // FZ
  if (g.one_in(3)) v |= 1u << 25;                        // DN
  if (g.one_in(4)) v |= 1u << 26;                        // AHP
  if (g.one_in(3)) v |= 1u << 19;                        // FZ16
  return v;
}

void set_xsp(cpu_state& s, unsigned n, uint64_t v) { (n == 31 ? s.sp : s.x[n]) = v; }

unsigned field(uint32_t word, int hi, int lo) {
  return (word >> lo) & ((1u << (hi - lo + 1)) - 1);
}

// The signed 4-bit multiple of the vector length of contiguous loads, bits 19..16.
int64_t imm4(uint32_t word) { return static_cast<int64_t>(field(word, 19, 16) ^ 8u) - 8; }

void put_lane(unsigned char* z, unsigned lane, unsigned bytes, uint64_t v) {
  std::memcpy(z + lane * bytes, &v, bytes);
}

}  // namespace

void random_state(cpu_state& s, rng& g, const scratch_area& scratch, bool first_fault, unsigned fp_bytes) {
  std::memset(&s, 0, sizeof s);
  for (auto& x : s.x) x = random_x(g);
  const uint64_t base = reinterpret_cast<uint64_t>(scratch.mem);
  const uint64_t mid = base + scratch.size / 2;
  // SP always points into the scratch area, 16-byte aligned.
  s.sp = (mid + static_cast<uint64_t>(g.between(-2048, 2048))) & ~uint64_t(15);
  s.nzcv = g.below(16) << 28;
  s.fpsr = g.one_in(2) ? 0 : static_cast<uint32_t>(g.next()) & 0x0800009Fu;
  s.fpcr = random_fpcr(g);
  uint64_t pool[6] = {};
  const unsigned pool_n = fp_bytes ? 1 + static_cast<unsigned>(g.below(6)) : 1;
  if (fp_bytes)
    for (unsigned i = 0; i < pool_n; ++i) pool[i] = g.one_in(4) ? g.next() & width_mask(fp_bytes) : fp_special(fp_bytes, g);
  for (auto& z : s.z) random_z(z, g, fp_bytes, pool, pool_n);
  for (auto& p : s.p) random_pred(p, g);
  // FFR: mostly a first run of set bits, as SETFFR and first-fault loads leave it.
  {
    const unsigned kind = static_cast<unsigned>(g.below(first_fault ? 4 : 5));
    const unsigned run = static_cast<unsigned>(g.below(kVecBytes + 1));
    for (unsigned i = 0; i < kVecBytes; ++i)
      s.ffr[i] = kind <= 1 ? 1 : kind <= 3 ? i < run : static_cast<unsigned char>(g.below(2));
  }
}

// ---- one trial -------------------------------------------------------------------------

void make_trial(const decode_row& r, const row_plan& plan, rng& g, const scratch_area& scratch, trial_input& t,
                unsigned char* mem) {
  // The word. With the same register as base and index no bound holds: draw
  // again, and in the end take another index register.
  for (int tries = 0;; ++tries) {
    t.word = r.value | (static_cast<uint32_t>(g.next()) & ~r.mask);
    if (plan.form != addr_form::scalar_scalar) break;
    const unsigned b = field(t.word, plan.base_hi, plan.base_lo), i = field(t.word, plan.index_hi, plan.index_lo);
    if (b != i || i == 31) break;
    if (tries == 16) {
      t.word ^= 1u << plan.index_lo;
      break;
    }
  }

  fill_trial(plan, g, scratch, t, mem);
}

void fill_trial(const row_plan& plan, rng& g, const scratch_area& scratch, trial_input& t, unsigned char* mem) {
  random_state(t.state, g, scratch, plan.first_fault, plan.fp_bytes);
  cpu_state& s = t.state;
  const uint64_t base = reinterpret_cast<uint64_t>(scratch.mem);
  const uint64_t mid = base + scratch.size / 2;
  t.fault_trial = false;
  if (!plan.memory || plan.prefetch) return;

  for (size_t i = 0; i < scratch.size; i += 8) {
    const uint64_t v = g.next();
    std::memcpy(mem + i, &v, 8);
  }

  const uint64_t end = base + scratch.size;       // first byte of the unmapped page
  t.fault_trial = plan.first_fault && g.one_in(3);
  const unsigned bnum = plan.base_hi >= 0 ? field(t.word, plan.base_hi, plan.base_lo) : 0;
  const unsigned align = g.one_in(2) ? 1 : (plan.msize ? plan.msize : 8);
  uint64_t b = (mid + static_cast<uint64_t>(g.between(-2048, 2048))) & ~uint64_t(align - 1);

  if (plan.form == addr_form::scalar_imm || plan.form == addr_form::scalar_scalar) {
    int64_t index = 0;
    const unsigned inum = plan.form == addr_form::scalar_scalar ? field(t.word, plan.index_hi, plan.index_lo) : 31;
    if (inum != 31) index = t.fault_trial ? g.between(0, 16) : g.between(-256, 256);
    if (t.fault_trial) {
      // Put the first element's address within one footprint of the end.
      const uint64_t footprint = (kVecBytes / plan.esize) * plan.msize;
      const uint64_t target = end - g.below(footprint + 1);
      const int64_t imm = plan.form == addr_form::scalar_imm ? imm4(t.word) : 0;
      b = target - static_cast<uint64_t>(imm * static_cast<int64_t>(footprint)) -
          static_cast<uint64_t>(index) * plan.msize;
    }
    if (plan.first_fault && !t.fault_trial) {
      // The reference gives up at a page boundary even between two readable
      // pages (the architecture lets a first-fault or non-fault load stop at
      // any element after the first): keep the footprint in one page.
      // SP must stay 16-byte aligned: align first, since aligning down can
      // carry a start near a page's first byte into the page below.
      const uint64_t footprint = (kVecBytes / plan.esize) * plan.msize;
      const int64_t imm = plan.form == addr_form::scalar_imm ? imm4(t.word) : 0;
      const uint64_t offset = static_cast<uint64_t>(imm * static_cast<int64_t>(footprint)) +
                              static_cast<uint64_t>(index) * plan.msize;
      if (bnum == 31) b &= ~uint64_t(15);
      const uint64_t in_page = (b + offset) & (scratch.page - 1);
      if (in_page + footprint > scratch.page) b -= in_page + footprint - scratch.page;
      if (bnum == 31) b &= ~uint64_t(15);   // moves down from the page's end: still inside it
    }
    if (bnum == 31) b &= ~uint64_t(15);
    set_xsp(s, bnum, b);
    if (inum != 31 && inum != bnum) s.x[inum] = static_cast<uint64_t>(index);
    // The reference (qemu 7.2) mis-reads the governing predicate of a
    // contiguous first-fault or non-fault load whose first active element
    // starts at register byte 8 or above: it tests the bits of later elements
    // at the wrong places. Keep an active element among the first 8 bytes.
    if (plan.first_fault) {
      unsigned char* pg = s.p[field(t.word, 12, 10)];
      bool low = false, any = false;
      for (unsigned i = 0; i < kVecBytes; i += plan.esize) {
        any = any || (pg[i] & 1);
        low = low || (i < 8 && (pg[i] & 1));
      }
      if (any && !low) pg[plan.esize * g.below(plan.esize < 8 ? 8 / plan.esize : 1)] = 1;
    }
  } else if (plan.form == addr_form::scalar_vector) {
    if (plan.first_fault) b &= ~uint64_t(plan.msize - 1);
    if (bnum == 31) b &= ~uint64_t(15);
    set_xsp(s, bnum, b);
    const unsigned vnum = field(t.word, plan.vec_hi, plan.vec_lo);
    const unsigned shift = plan.vec_scaled ? (plan.msize == 8 ? 3 : plan.msize == 4 ? 2 : plan.msize == 2 ? 1 : 0) : 0;
    for (unsigned lane = 0; lane < kVecBytes / plan.vec_bytes; ++lane) {
      int64_t idx = plan.vec_signed ? g.between(-512, 512) : g.between(0, 1024);
      // A first-fault gather of the reference gives up at an element that
      // straddles two pages, readable or not (the architecture lets it stop
      // anywhere after the first element): keep its elements aligned.
      if (plan.first_fault && !plan.vec_scaled) idx &= ~int64_t(plan.msize - 1);
      if (t.fault_trial && g.one_in(4))
        idx = static_cast<int64_t>((end + g.below(scratch.page / 2) - b) >> shift);
      put_lane(s.z[vnum], lane, plan.vec_bytes, static_cast<uint64_t>(idx));
    }
  } else {  // vector_imm: every lane an address, the immediate a multiple of msize
    const unsigned vnum = field(t.word, plan.vec_hi, plan.vec_lo);
    const uint64_t imm = field(t.word, 20, 16) * uint64_t(plan.msize);
    for (unsigned lane = 0; lane < kVecBytes / plan.vec_bytes; ++lane) {
      uint64_t addr = base + 64 + g.below(scratch.size - 512);
      if (g.one_in(2) || plan.first_fault) addr &= ~uint64_t(plan.msize - 1);
      if (t.fault_trial && g.one_in(4)) addr = end + g.below(scratch.page / 2) - imm;
      put_lane(s.z[vnum], lane, plan.vec_bytes, addr);
    }
  }
}

}  // namespace oracle
