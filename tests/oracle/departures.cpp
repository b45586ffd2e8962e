// The allowlist parser and the state comparison of the differential test.
#include "tests/oracle/departures.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace oracle {

namespace {

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r')) --e;
  return s.substr(b, e - b);
}

std::vector<std::string> split(const std::string& s, const char* seps) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : s) {
    if (std::strchr(seps, c)) {
      if (!trim(cur).empty()) out.push_back(trim(cur));
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!trim(cur).empty()) out.push_back(trim(cur));
  return out;
}

bool parse_uint(const std::string& s, uint64_t& v) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  v = std::strtoull(s.c_str(), &end, 0);
  return errno == 0 && end && *end == '\0' && s[0] != '-';
}

// "[hi:lo]" or "[b]" at s, with `pos` just past the '['. Leaves pos after ']'.
bool parse_range(const std::string& s, size_t& pos, unsigned& hi, unsigned& lo) {
  const size_t close = s.find(']', pos);
  if (close == std::string::npos) return false;
  const std::string inner = s.substr(pos, close - pos);
  pos = close + 1;
  const size_t colon = inner.find(':');
  uint64_t a, b;
  if (colon == std::string::npos) {
    if (!parse_uint(inner, a) || a > 31) return false;
    hi = lo = static_cast<unsigned>(a);
    return true;
  }
  if (!parse_uint(inner.substr(0, colon), a) || !parse_uint(inner.substr(colon + 1), b) || a > 31 || b > a)
    return false;
  hi = static_cast<unsigned>(a);
  lo = static_cast<unsigned>(b);
  return true;
}

struct named_bits {
  const char* name;
  unsigned hi, lo;
};
constexpr named_bits kNzcvBits[] = {{"N", 31, 31}, {"Z", 30, 30}, {"C", 29, 29}, {"V", 28, 28}};
constexpr named_bits kFpsrBits[] = {{"IOC", 0, 0}, {"DZC", 1, 1}, {"OFC", 2, 2}, {"UFC", 3, 3},
                                    {"IXC", 4, 4}, {"IDC", 7, 7}, {"QC", 27, 27}};
constexpr named_bits kFpcrBits[] = {{"FZ16", 19, 19}, {"RMode", 23, 22}, {"FZ", 24, 24},
                                    {"DN", 25, 25},   {"AHP", 26, 26}};

template <size_t N>
const named_bits* find_bits(const named_bits (&table)[N], const std::string& name) {
  for (const auto& b : table)
    if (name == b.name) return &b;
  return nullptr;
}

uint64_t range_mask(unsigned hi, unsigned lo) {
  const unsigned width = hi - lo + 1;
  return (width >= 64 ? ~uint64_t(0) : ((uint64_t(1) << width) - 1)) << lo;
}

// One state selector: nzcv[.F], fpsr[.FLAG], fpcr, sp, ffr, memory,
// x<n> | x[hi:lo], z<n> | z[dest] | z[hi:lo] [:nan.h|:nan.s|:nan.d|:ff-unknown],
// p<n> | p[dest] | p[hi:lo].
bool parse_state(const std::string& text, exempt_state& st, std::string& err) {
  st = exempt_state{};
  st.text = text;
  std::string sel = text, lanes;
  const size_t colon = text.find(':', text.find(']') == std::string::npos ? 0 : text.find(']'));
  if (colon != std::string::npos) {
    sel = text.substr(0, colon);
    lanes = text.substr(colon + 1);
  }
  auto flag_of = [&](const std::string& base, auto& table, state_kind kind) -> bool {
    st.kind = kind;
    if (sel == base) return true;
    if (sel.compare(0, base.size() + 1, base + ".") != 0) return false;
    const named_bits* b = find_bits(table, sel.substr(base.size() + 1));
    if (!b) {
      err = "unknown bit '" + sel.substr(base.size() + 1) + "' of " + base;
      return false;
    }
    st.bits = range_mask(b->hi, b->lo);
    return true;
  };
  bool ok = false;
  if (sel.compare(0, 4, "nzcv") == 0) {
    ok = flag_of("nzcv", kNzcvBits, state_kind::nzcv);
  } else if (sel.compare(0, 4, "fpsr") == 0) {
    ok = flag_of("fpsr", kFpsrBits, state_kind::fpsr);
  } else if (sel.compare(0, 4, "fpcr") == 0) {
    ok = flag_of("fpcr", kFpcrBits, state_kind::fpcr);
  } else if (sel == "sp") {
    st.kind = state_kind::sp;
    ok = true;
  } else if (sel == "ffr") {
    st.kind = state_kind::ffr;
    ok = true;
  } else if (sel == "memory") {
    st.kind = state_kind::memory;
    ok = true;
  } else if (sel == "signal") {
    st.kind = state_kind::signal;
    ok = true;
  } else if (!sel.empty() && (sel[0] == 'x' || sel[0] == 'z' || sel[0] == 'p')) {
    st.kind = sel[0] == 'x' ? state_kind::x : sel[0] == 'z' ? state_kind::z : state_kind::p;
    const unsigned limit = st.kind == state_kind::p ? 16 : st.kind == state_kind::x ? 31 : 32;
    if (sel == std::string(1, sel[0]) + "[dest]") {
      st.reg_from_word = true;
      st.hi = st.kind == state_kind::p ? 3 : 4;
      st.lo = 0;
      ok = true;
    } else if (sel.size() > 1 && sel[1] == '[') {
      size_t pos = 2;
      ok = parse_range(sel, pos, st.hi, st.lo) && pos == sel.size() && st.hi - st.lo < 5;
      st.reg_from_word = true;
      if (!ok) err = "bad register field in '" + sel + "'";
    } else {
      uint64_t n;
      ok = parse_uint(sel.substr(1), n) && n < limit;
      st.reg = static_cast<unsigned>(n);
      if (!ok) err = "bad register in '" + sel + "'";
    }
  } else {
    err = "unknown state '" + text + "'";
    return false;
  }
  if (!ok) {
    if (err.empty()) err = "unknown state '" + text + "'";
    return false;
  }
  if (!lanes.empty()) {
    if (st.kind != state_kind::z && st.kind != state_kind::ffr) {
      err = "lane qualifier on a state that is neither a Z register nor FFR: '" + text + "'";
      return false;
    }
    if (st.kind == state_kind::z && (lanes == "nan.h" || lanes == "nan.s" || lanes == "nan.d")) {
      st.lanes = lane_rule::nan;
      st.lane_bytes = lanes[4] == 'h' ? 2 : lanes[4] == 's' ? 4 : 8;
    } else if (lanes == "ff-unknown") {
      st.lanes = lane_rule::ff_unknown;
    } else if (lanes == "given-up") {
      st.lanes = lane_rule::given_up;
    } else {
      err = "unknown lane qualifier '" + lanes + "'";
      return false;
    }
  }
  return true;
}

// One conjunct: word[hi:lo]=v, word[b]=v, fpcr.NAME=v, fault-trial.
bool parse_condition(const std::string& text, condition& c, std::string& err) {
  c = condition{};
  if (text == "fault-trial") {
    c.src = condition::fault_trial;
    return true;
  }
  const size_t eq = text.find('=');
  uint64_t v;
  if (eq == std::string::npos || !parse_uint(trim(text.substr(eq + 1)), v)) {
    err = "bad condition '" + text + "'";
    return false;
  }
  const std::string lhs = trim(text.substr(0, eq));
  if (lhs.compare(0, 5, "word[") == 0) {
    size_t pos = 5;
    if (!parse_range(lhs, pos, c.hi, c.lo) || pos != lhs.size()) {
      err = "bad bit range in '" + text + "'";
      return false;
    }
    c.src = condition::word_bits;
  } else if (lhs.compare(0, 5, "fpcr.") == 0) {
    const named_bits* b = find_bits(kFpcrBits, lhs.substr(5));
    if (!b) {
      err = "unknown FPCR field in '" + text + "'";
      return false;
    }
    c.src = condition::fpcr_bits;
    c.hi = b->hi;
    c.lo = b->lo;
  } else {
    err = "bad condition '" + text + "'";
    return false;
  }
  if (v > (range_mask(c.hi, c.lo) >> c.lo)) {
    err = "value too wide in '" + text + "'";
    return false;
  }
  c.value = static_cast<uint32_t>(v);
  return true;
}

const char* handler_name(const decode_row& r, char* buf, size_t n) {
  std::snprintf(buf, n, "%s", r.road);
  const size_t len = std::strlen(buf);
  if (len && buf[len - 1] == '+') buf[len - 1] = '\0';
  return buf;
}

bool glob_matches_row(const std::string& g, const decode_row& r) {
  char handler[96];
  return glob_match(g.c_str(), r.adapter) || glob_match(g.c_str(), handler_name(r, handler, sizeof handler)) ||
         glob_match(g.c_str(), decode_maps[r.map].name);
}

}  // namespace

bool glob_match(const char* p, const char* s) {
  // Iterative matcher with one backtrack point for the last '*'.
  const char *star = nullptr, *resume = nullptr;
  while (*s) {
    if (*p == '*') {
      star = p++;
      resume = s;
    } else if (*p == '?' || *p == *s) {
      ++p;
      ++s;
    } else if (star) {
      p = star + 1;
      s = ++resume;
    } else {
      return false;
    }
  }
  while (*p == '*') ++p;
  return *p == '\0';
}

bool departure_applies(const departure& d, const decode_row& r) {
  for (const auto& g : d.row_globs)
    if (glob_matches_row(g, r)) return true;
  return false;
}

bool parse_departures(const std::string& text, const std::string& where, std::vector<departure>& out,
                      std::string& error) {
  out.clear();
  std::istringstream in(text);
  std::string line;
  int lineno = 0;
  while (std::getline(in, line)) {
    ++lineno;
    const std::string t = trim(line);
    if (t.empty() || t[0] == '#') continue;
    const std::string at = where + ":" + std::to_string(lineno) + ": ";
    std::vector<std::string> fields;
    {
      std::string cur;
      for (char c : t) {
        if (c == '|' && fields.size() < 3) {
          fields.push_back(trim(cur));
          cur.clear();
        } else {
          cur += c;
        }
      }
      fields.push_back(trim(cur));
    }
    if (fields.size() != 4) {
      error = at + "expected 'ROWS | STATE | WHEN | REASON'";
      return false;
    }
    departure d;
    d.line = lineno;
    d.row_globs = split(fields[0], ", \t");
    d.states_text = fields[1];
    d.when_text = fields[2];
    d.reason = fields[3];
    if (d.row_globs.empty()) {
      error = at + "no rows named";
      return false;
    }
    for (const auto& g : d.row_globs) {
      bool any = false;
      for (unsigned i = 0; i < kDecodeRows && !any; ++i) any = glob_matches_row(g, decode_rows[i]);
      if (!any) {
        error = at + "'" + g + "' matches no row of the decode table";
        return false;
      }
    }
    for (const auto& s : split(fields[1], ",")) {
      exempt_state st;
      std::string err;
      if (!parse_state(s, st, err)) {
        error = at + err;
        return false;
      }
      d.states.push_back(st);
    }
    if (d.states.empty()) {
      error = at + "no state named";
      return false;
    }
    if (fields[2] != "always") {
      for (const auto& c : split(fields[2], "&")) {
        condition cond;
        std::string err;
        if (!parse_condition(c, cond, err)) {
          error = at + err;
          return false;
        }
        d.when.push_back(cond);
      }
      if (d.when.empty()) {
        error = at + "empty condition (write 'always')";
        return false;
      }
    }
    if (d.reason.empty()) {
      error = at + "no reason given";
      return false;
    }
    out.push_back(std::move(d));
  }
  return true;
}

bool load_departures(const std::string& path, std::vector<departure>& out, std::string& error) {
  std::ifstream f(path);
  if (!f) {
    error = "cannot read " + path;
    return false;
  }
  std::stringstream ss;
  ss << f.rdbuf();
  return parse_departures(ss.str(), path, out, error);
}

bool condition_holds(const departure& d, const trial_view& t) {
  for (const auto& c : d.when) {
    switch (c.src) {
      case condition::fault_trial:
        if (!t.fault_trial) return false;
        break;
      case condition::word_bits:
        if (((t.word & range_mask(c.hi, c.lo)) >> c.lo) != c.value) return false;
        break;
      case condition::fpcr_bits:
        if (((t.initial->fpcr & range_mask(c.hi, c.lo)) >> c.lo) != c.value) return false;
        break;
    }
  }
  return true;
}

// ---- comparison ------------------------------------------------------------------

namespace {

bool is_nan(const unsigned char* p, unsigned bytes) {
  uint64_t v = 0;
  std::memcpy(&v, p, bytes);
  switch (bytes) {
    case 2: return (v & 0x7C00u) == 0x7C00u && (v & 0x3FFu);
    case 4: return (v & 0x7F800000u) == 0x7F800000u && (v & 0x7FFFFFu);
    default: return (v & 0x7FF0000000000000ull) == 0x7FF0000000000000ull && (v & 0xFFFFFFFFFFFFFull);
  }
}

// The byte index from which a first-fault or non-fault load's lanes are
// unknown: the first FFR bit that the reference cleared (or, in a trial that
// placed an access on the unmapped page, found clear), else 48.
unsigned ff_unknown_start(const trial_view& t) {
  for (unsigned i = 0; i < kVecBytes; ++i)
    if (!t.ref->ffr[i] && (t.initial->ffr[i] || t.fault_trial)) return i;
  return kVecBytes;
}

// The first FFR bit that quern cleared, else 48.
unsigned given_up_start(const trial_view& t) {
  for (unsigned i = 0; i < kVecBytes; ++i)
    if (!t.emu->ffr[i] && t.initial->ffr[i]) return i;
  return kVecBytes;
}

// Bits `start` to 47.
uint64_t from(unsigned start) {
  const uint64_t all48 = (uint64_t(1) << kVecBytes) - 1;
  return start >= kVecBytes ? 0 : all48 & ~((uint64_t(1) << start) - 1);
}

unsigned resolve_reg(const exempt_state& s, uint32_t word) {
  return s.reg_from_word ? static_cast<unsigned>((word & range_mask(s.hi, s.lo)) >> s.lo) : s.reg;
}

// The part of a component that the holding departures exempt. `reg` is the
// register number for x, z and p; `zmask` callers get byte masks.
struct exemption {
  uint64_t mask = 0;
  int first = -1;
};

template <typename MaskFn>
exemption exempted(const trial_view& t, const std::vector<departure>& all, const std::vector<int>& applicable,
                   state_kind kind, unsigned reg, MaskFn mask_of) {
  exemption e;
  for (int i : applicable) {
    const departure& d = all[static_cast<size_t>(i)];
    if (!condition_holds(d, t)) continue;
    for (const auto& s : d.states) {
      if (s.kind != kind) continue;
      if ((kind == state_kind::x || kind == state_kind::z || kind == state_kind::p) && resolve_reg(s, t.word) != reg)
        continue;
      const uint64_t m = mask_of(s);
      if (m && e.first < 0) e.first = i;
      e.mask |= m;
    }
  }
  return e;
}

std::string hex64(uint64_t v) {
  char b[24];
  std::snprintf(b, sizeof b, "0x%016" PRIx64, v);
  return b;
}

std::string bits48(const unsigned char* p) {
  std::string s;
  for (unsigned i = 0; i < kVecBytes; ++i) {
    if (i && i % 8 == 0) s += '_';
    s += p[i] ? '1' : '0';
  }
  return s;
}

void add(std::vector<difference>& out, const std::string& where, const std::string& detail, uint64_t diff,
         const exemption& e) {
  difference d;
  d.where = where;
  d.detail = detail;
  d.exempted_by = (diff & ~e.mask) == 0 ? e.first : -1;
  out.push_back(d);
}

uint64_t all_bits(const exempt_state& s) { return s.bits; }

}  // namespace

std::vector<difference> compare_trial(const trial_view& t, const std::vector<departure>& all,
                                      const std::vector<int>& applicable) {
  std::vector<difference> out;
  if (t.emu_signal) {
    const bool memory_fault = t.emu_signal == SIGSEGV || t.emu_signal == SIGBUS;
    add(out, "signal",
        "the emulated run raised signal " + std::to_string(t.emu_signal) + " (" + strsignal(t.emu_signal) + ")", 1,
        memory_fault ? exempted(t, all, applicable, state_kind::signal, 0, all_bits) : exemption{});
    return out;
  }
  const cpu_state& r = *t.ref;
  const cpu_state& m = *t.emu;
  auto scalar = [&](state_kind kind, unsigned reg, const std::string& name, uint64_t a, uint64_t b) {
    if (a == b) return;
    add(out, name, "ref " + hex64(a) + " emu " + hex64(b), a ^ b, exempted(t, all, applicable, kind, reg, all_bits));
  };
  for (unsigned i = 0; i < 31; ++i) scalar(state_kind::x, i, "x" + std::to_string(i), r.x[i], m.x[i]);
  scalar(state_kind::sp, 0, "sp", r.sp, m.sp);
  scalar(state_kind::nzcv, 0, "nzcv", r.nzcv, m.nzcv);
  scalar(state_kind::fpsr, 0, "fpsr", r.fpsr, m.fpsr);
  scalar(state_kind::fpcr, 0, "fpcr", r.fpcr, m.fpcr);

  for (unsigned n = 0; n < 32; ++n) {
    uint64_t diff = 0;
    for (unsigned i = 0; i < kVecBytes; ++i)
      if (r.z[n][i] != m.z[n][i]) diff |= uint64_t(1) << i;
    if (!diff) continue;
    const exemption e = exempted(t, all, applicable, state_kind::z, n, [&](const exempt_state& s) {
      uint64_t mask = 0;
      if (s.lanes == lane_rule::all) {
        mask = (uint64_t(1) << kVecBytes) - 1;
      } else if (s.lanes == lane_rule::nan) {
        for (unsigned i = 0; i < kVecBytes; i += s.lane_bytes)
          if (is_nan(r.z[n] + i, s.lane_bytes) && is_nan(m.z[n] + i, s.lane_bytes))
            mask |= ((uint64_t(1) << s.lane_bytes) - 1) << i;
      } else if (s.lanes == lane_rule::ff_unknown) {
        mask = from(ff_unknown_start(t));
      } else {
        mask = from(given_up_start(t));
      }
      return mask;
    });
    std::string detail;
    for (unsigned k = 0; k < kVecBytes / 8; ++k) {
      if (!((diff >> (8 * k)) & 0xFF)) continue;
      uint64_t a, b;
      std::memcpy(&a, r.z[n] + 8 * k, 8);
      std::memcpy(&b, m.z[n] + 8 * k, 8);
      if (!detail.empty()) detail += "; ";
      detail += ".d[" + std::to_string(k) + "] ref " + hex64(a) + " emu " + hex64(b);
    }
    add(out, "z" + std::to_string(n), detail, diff, e);
  }

  auto pred = [&](state_kind kind, unsigned reg, const std::string& name, const unsigned char* a,
                  const unsigned char* b) {
    uint64_t diff = 0;
    for (unsigned i = 0; i < kVecBytes; ++i)
      if (a[i] != b[i]) diff |= uint64_t(1) << i;
    if (!diff) return;
    const exemption e = exempted(t, all, applicable, kind, reg,
                                 [](const exempt_state&) { return (uint64_t(1) << kVecBytes) - 1; });
    add(out, name, "ref " + bits48(a) + " emu " + bits48(b) + " (lane 0 first)", diff, e);
  };
  for (unsigned n = 0; n < 16; ++n) pred(state_kind::p, n, "p" + std::to_string(n), r.p[n], m.p[n]);
  {
    uint64_t diff = 0, cleared_by_emu = 0;
    for (unsigned i = 0; i < kVecBytes; ++i) {
      if (r.ffr[i] != m.ffr[i]) diff |= uint64_t(1) << i;
      if (r.ffr[i] && !m.ffr[i]) cleared_by_emu |= uint64_t(1) << i;
    }
    if (diff) {
      const exemption e = exempted(t, all, applicable, state_kind::ffr, 0, [&](const exempt_state& s) {
        switch (s.lanes) {
          case lane_rule::ff_unknown: return from(ff_unknown_start(t));
          case lane_rule::given_up: {
            // Only a clean stop: from its first cleared bit on, quern's FFR is all clear.
            const unsigned start = given_up_start(t);
            for (unsigned i = start; i < kVecBytes; ++i)
              if (m.ffr[i]) return uint64_t(0);
            return from(start) & cleared_by_emu;
          }
          default: return (uint64_t(1) << kVecBytes) - 1;
        }
      });
      add(out, "ffr", "ref " + bits48(r.ffr) + " emu " + bits48(m.ffr) + " (lane 0 first)", diff, e);
    }
  }

  if (t.ref_mem && t.emu_mem && std::memcmp(t.ref_mem, t.emu_mem, t.mem_size) != 0) {
    size_t count = 0;
    std::string detail;
    for (size_t i = 0; i < t.mem_size; ++i) {
      if (t.ref_mem[i] == t.emu_mem[i]) continue;
      if (++count <= 6) {
        char b[64];
        std::snprintf(b, sizeof b, "%s+0x%zx ref %02x emu %02x", count > 1 ? "; " : "", i, t.ref_mem[i],
                      t.emu_mem[i]);
        detail += b;
      }
    }
    detail = std::to_string(count) + " bytes differ: " + detail + (count > 6 ? "; ..." : "");
    add(out, "memory", detail, 1, exempted(t, all, applicable, state_kind::memory, 0, all_bits));
  }
  return out;
}

}  // namespace oracle
