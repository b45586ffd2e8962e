// The decode maps, their start-up, and the lookup of a word's adapter.
//
// Everything below is built by this file's static initialisers, in the order
// in which it is defined: the page size, the 44 maps, the bucket index, and
// last the fault handlers. All of it is read-only once the library is loaded.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iterator>
#include <utility>

#include "sve/client/sve_fault.h"
#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/call_out.h"
#include "sve/dispatch/decode.h"
#include "decode_decls.h"

uint32_t page_size = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));

CpuContext cpu_ctxt;
CpuContext* ctxt;

aarch64_decode_rc report_unimplemented(const cpu_state* cs, unsigned int word, const char* name) {
  call_out([&] {
    fprintf(stderr, "Unimplemented instruction: [  %tx:\t %08x\t %s  ]\n", reinterpret_cast<ptrdiff_t>(cs->pc), word,
            name);
  });
  return AARCH64_DECODE_UNIMPLEMENTED;
}

// The adapters, the row descriptors and the 44 maps.
#include "decode_gen.inc"

uint32_t decode_map_key(const decode_map_info& m, unsigned int word) {
  uint32_t key = 0;
  for (unsigned i = 0; i < m.nranges; ++i) {
    const unsigned hi = m.ranges[i][0], lo = m.ranges[i][1], width = hi - lo + 1;
    const uint32_t bits = width == 32 ? word : (word >> lo) & ((1u << width) - 1);
    key = width == 32 ? bits : (key << width) | bits;
  }
  return key;
}

sve_handler_fn get_sve_handler_cascade(unsigned int word) {
  for (unsigned i = 0; i < kDecodeMaps; ++i) {
    const decode_map& m = *decode_map_order[i];
    const auto it = m.find(static_cast<int>(decode_map_key(decode_maps[i], word)));
    if (it != m.end()) return it->second;
  }
  return nullptr;
}

namespace {

// Every row fixes bits 28..25 (the SVE group); no word outside it can match.
constexpr uint32_t kGroupMask = 0x1E000000u, kGroupValue = 0x04000000u;

// The bucket index: words are sorted by bits 31..21 and 15..13, which almost
// every row fixes. A row that leaves some of those bits open is filed under
// every bucket it can match. A bucket then holds at most a few dozen rows,
// which are tried in table order.
constexpr unsigned kIndexBits = 14;

constexpr unsigned bucket_of(uint32_t word) {
  return ((word >> 21) << 3) | ((word >> 13) & 7u);
}

struct bucket_index {
  std::array<uint16_t, (1u << kIndexBits) + 1> start{};
  std::array<uint16_t, 4096> rows{};
  unsigned used = 0;

  bucket_index() {
    constexpr uint32_t kIndexMask = 0xFFE0E000u;
    // Two passes: count, then fill, in table order within each bucket.
    std::array<uint16_t, (1u << kIndexBits)> count{};
    for (int pass = 0; pass < 2; ++pass) {
      for (unsigned r = 0; r < kDecodeRows; ++r) {
        const uint32_t open = kIndexMask & ~decode_rows[r].mask;
        const uint32_t base = decode_rows[r].value & kIndexMask;
        // Enumerate every setting of the open index bits (subsets of `open`).
        uint32_t sub = 0;
        do {
          const unsigned b = bucket_of(base | sub);
          if (pass == 0) ++count[b];
          else rows[start[b] + count[b]++] = static_cast<uint16_t>(r);
          sub = (sub - open) & open;
        } while (sub != 0);
      }
      if (pass == 0) {
        for (unsigned b = 0; b < count.size(); ++b) start[b + 1] = static_cast<uint16_t>(start[b] + count[b]);
        used = start.back();
        if (used > rows.size()) {
          fprintf(stderr, "quern: decode index overflow (%u rows)\n", used);
          abort();
        }
        count.fill(0);
      }
    }
  }
};

const bucket_index decode_index;

}  // namespace

const decode_row* find_decode_row(unsigned int word) {
  if ((word & kGroupMask) != kGroupValue) return nullptr;
  const unsigned b = bucket_of(word);
  for (unsigned i = decode_index.start[b]; i < decode_index.start[b + 1]; ++i) {
    const decode_row& r = decode_rows[decode_index.rows[i]];
    if ((word & r.mask) == r.value) return &r;
  }
  return nullptr;
}

sve_handler_fn get_sve_handler(unsigned int word) {
  const decode_row* r = find_decode_row(word);
  return r ? r->fn : nullptr;
}

// ---- floating-point status of the fast handlers -----------------------------

#if defined(__aarch64__)
void host_fpsr_merge(uint32_t flags) { host_fpsr_write((host_fpsr_read() | flags) & 0xF800009Fu); }
#else
namespace {
thread_local uint32_t soft_fpsr;
}
uint32_t host_fpsr_read() { return soft_fpsr; }
void host_fpsr_write(uint32_t value) { soft_fpsr = value; }
void host_fpsr_merge(uint32_t flags) { soft_fpsr = (soft_fpsr | flags) & 0xF800009Fu; }
#endif

// Last: the fault handlers exist before the first instruction is emulated.
static const int sve_initialized = SVEInitialize();
