// The emulated machine: the per-thread register file and the by-value operand
// types that adapters hand to fast handlers and generic routines.
//
// The vector length is fixed at 384 bits: a Z register is 48 bytes and a
// predicate covers 48 byte lanes. The field order of cpu_state is an ABI: the
// rewritten application code stores into it by offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr unsigned kVecBytes = 48;     // bytes of one Z register
constexpr unsigned kVecUnits = 6;      // vector length in 64-bit units (CpuContext::vl)
constexpr unsigned kVecVBytes = 256;   // the largest architectural vector, 2048 bits
constexpr unsigned kPredVWords = 4;    // 2048 predicate bits in 64-bit words

struct cpu_state {
  uint64_t x[31];                          // X0..X30; no slot for the zero register
  uint64_t sp;
  unsigned char* pc;                       // address of the instruction being emulated
  uint64_t nzcv;                           // N bit 31, Z 30, C 29, V 28
  uint32_t fpsr;
  uint32_t fpcr;                           // unmasked, as last written by the application
  alignas(16) unsigned char z[32][kVecBytes];
  unsigned char p[16][kVecBytes];          // one byte per predicate bit, 0 or 1
  unsigned char ffr[kVecBytes];
  uint64_t encoding;                       // word of the instruction, set by fast adapters
};

// Offsets that generated machine code relies on.
static_assert(offsetof(cpu_state, x) == 0, "cpu_state layout");
static_assert(offsetof(cpu_state, sp) == 248, "cpu_state layout");
static_assert(offsetof(cpu_state, pc) == 256, "cpu_state layout");
static_assert(offsetof(cpu_state, nzcv) == 264, "cpu_state layout");
static_assert(offsetof(cpu_state, fpsr) == 272, "cpu_state layout");
static_assert(offsetof(cpu_state, fpcr) == 276, "cpu_state layout");
static_assert(offsetof(cpu_state, z) == 288, "cpu_state layout");
static_assert(offsetof(cpu_state, p) == 288 + 32 * 48, "cpu_state layout");
static_assert(offsetof(cpu_state, ffr) == 288 + 48 * 48, "cpu_state layout");
static_assert(offsetof(cpu_state, encoding) == 288 + 49 * 48, "cpu_state layout");

// Size codes. The code that stands for "absent" differs by type and must stay so.
enum : int32_t {
  kZB = 0, kZH = 1, kZS = 2, kZD = 3, kZQ = 4, kZAbsent = 5,
  kPB = 0, kPH = 1, kPS = 2, kPD = 3, kPMerge = 4, kPZero = 5, kPGov = 6, kPAbsent = 7,
  kRB = 0, kRH = 1, kRW = 2, kRX = 3, kRAbsent = 4,
};

// A register operand of a fast handler. A read-only or write-only operand has
// `size`; a destructive (read and write) one has in_size == out_size and `size`
// absent. Handlers read the field that belongs to their form.
struct aarch64_z_reg { int32_t number, size, in_size, out_size; };
struct aarch64_p_reg { int32_t number, size, in_size, out_size; };
struct aarch64_i_reg { int32_t number, size, in_size, out_size; };   // 31 = XZR
struct aarch64_i_rsp_reg { int32_t number, size; };                  // 31 = SP

struct aarch64_sve_logical64_imm { uint64_t value; };   // expanded bitmask immediate
struct aarch64_sve_fp_dup_imm {                         // 8-bit FP immediate, all widths
  uint16_t half_bits;
  uint32_t single_bits;
  double double_value;
};
struct aarch64_sve_fp_arith_imm { uint8_t value; };     // 0 or 1, unexpanded

enum aarch64_decode_rc : int32_t {
  AARCH64_DECODE_OK = 0,
  AARCH64_DECODE_UNIMPLEMENTED = 2,
};

// A vector value of the generic road: room for 2048 bits, only the first 48
// bytes carry data here. Bytes 48..255 of an argument must not affect a result.
//
// The copy constructor is written out, which makes VecV non-trivial for the
// purpose of calls: a VecV argument is then built in place where the callee
// finds it. For a trivially copyable VecV, GCC builds each argument of a
// generic routine in a temporary and copies all 256 bytes once more.
struct VecV {
  alignas(16) unsigned char b[kVecVBytes];

  VecV() = default;
  VecV(const VecV& other) { std::memcpy(b, other.b, sizeof b); }
  VecV& operator=(const VecV&) = default;
};

// A packed predicate: bit i is bit i%64 of word i/64.
struct PredV {
  uint64_t w[kPredVWords];
};

struct CpuContext {
  uint32_t nzcv;
  uint32_t fpsr;
  uint32_t fpcr;   // application FPCR & kCtxFpcrMask
  uint32_t vl;     // vector length in 64-bit units; read as a 26-bit field
  PredV ffr;
};

// Trap enables, FZ16, RMode, FZ, DN, AHP. Len and Stride never reach a routine.
constexpr uint32_t kCtxFpcrMask = 0x07C89F00u;

inline uint32_t ctx_vl(const CpuContext* c) { return c->vl & 0x3FFFFFFu; }

// The process-wide context (vl 2). Nothing reads it; SVEInitialize sets it up.
extern CpuContext cpu_ctxt;
extern CpuContext* ctxt;

using sve_handler_fn = aarch64_decode_rc (*)(cpu_state*, unsigned int);

// ---- predicate packing -----------------------------------------------------

// Eight predicate bytes at a time. Packing keeps bit 0 of each byte and gathers
// byte i's bit at bit 56 + i of the product (no two partial products meet below
// bit 56, so nothing carries into the result); unpacking looks the byte up.
namespace pred_detail {
struct spread_table {
  uint64_t v[256];
  constexpr spread_table() : v{} {
    for (unsigned b = 0; b < 256; ++b)
      for (unsigned i = 0; i < 8; ++i) v[b] |= uint64_t((b >> i) & 1u) << (8 * i);
  }
};
inline constexpr spread_table kSpread{};
}  // namespace pred_detail

// Both run on every generic instruction (FFR goes in and comes back), so
// they are unrolled: a loop costs a branch per step under an emulator.
inline PredV pack_pred(const unsigned char (&bytes)[kVecBytes]) {
  PredV v{};
#pragma GCC unroll 6
  for (unsigned i = 0; i < kVecBytes; i += 8) {
    uint64_t chunk;
    std::memcpy(&chunk, bytes + i, 8);   // little-endian host
    chunk &= 0x0101010101010101ull;
    v.w[0] |= ((chunk * 0x0102040810204080ull) >> 56) << i;
  }
  return v;
}

inline void unpack_pred(const PredV& v, unsigned char (&bytes)[kVecBytes]) {
#pragma GCC unroll 6
  for (unsigned i = 0; i < kVecBytes; i += 8) {
    const uint64_t chunk = pred_detail::kSpread.v[(v.w[0] >> i) & 0xFFu];
    std::memcpy(bytes + i, &chunk, 8);
  }
}

inline bool pred_bit(const PredV& v, unsigned bit) {
  return (v.w[bit / 64] >> (bit % 64)) & 1u;
}

// ---- general registers -----------------------------------------------------

inline uint64_t read_x(const cpu_state* cs, aarch64_i_reg r) {
  return r.number == 31 ? 0 : cs->x[r.number];
}
inline void write_x(cpu_state* cs, aarch64_i_reg r, uint64_t v) {
  if (r.number != 31) cs->x[r.number] = v;
}
inline uint64_t read_xsp(const cpu_state* cs, aarch64_i_rsp_reg r) {
  return r.number == 31 ? cs->sp : cs->x[r.number];
}
inline void write_xsp(cpu_state* cs, aarch64_i_rsp_reg r, uint64_t v) {
  (r.number == 31 ? cs->sp : cs->x[r.number]) = v;
}
