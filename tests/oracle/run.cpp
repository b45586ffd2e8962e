// The reference run: a generated stub loads a whole machine state, executes
// the word under test, and stores the whole state back. And the emulated run,
// with the same signal containment.
#if !defined(__aarch64__)
#error "the differential test runs on AArch64 only"
#endif

#include "tests/oracle/run.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include "sve/client/sve_fault.h"

#ifndef PR_SVE_SET_VL
#define PR_SVE_SET_VL 50
#endif

namespace oracle {

namespace {

// The state as the stub moves it: predicates and FFR packed, 6 bytes each, as
// STR (predicate) stores them at this vector length.
struct ref_block {
  uint64_t x[31];
  uint64_t sp;
  uint64_t nzcv;
  uint64_t fpsr;
  uint64_t fpcr;
  uint64_t host_sp;
  uint64_t host_tpidr;
  uint64_t host_fpcr;
  uint64_t host_x18;
  alignas(16) unsigned char z[32][kVecBytes];
  unsigned char p[16][kVecBytes / 8];
  unsigned char ffr[kVecBytes / 8];
};
static_assert(offsetof(ref_block, host_x18) < 504, "ldr/str offsets must fit");
static_assert(offsetof(ref_block, ffr) < 4096, "add offsets must fit");

ref_block blk;

// ---- instruction words ---------------------------------------------------------
// Encodings as the GNU assembler gives them (armv8.2-a+sve), fields filled in here.

constexpr uint32_t X0 = 0, X1 = 1;
uint32_t ldr_x(uint32_t rt, uint32_t rn, size_t off) { return 0xF9400000u | uint32_t(off / 8) << 10 | rn << 5 | rt; }
uint32_t str_x(uint32_t rt, uint32_t rn, size_t off) { return 0xF9000000u | uint32_t(off / 8) << 10 | rn << 5 | rt; }
uint32_t ldp_x(uint32_t a, uint32_t b, uint32_t rn, size_t off) {
  return 0xA9400000u | uint32_t(off / 8) << 15 | b << 10 | rn << 5 | a;
}
uint32_t stp_x(uint32_t a, uint32_t b, uint32_t rn, size_t off) {
  return 0xA9000000u | uint32_t(off / 8) << 15 | b << 10 | rn << 5 | a;
}
uint32_t ldp_d(uint32_t a, uint32_t b, uint32_t rn, size_t off) {
  return 0x6D400000u | uint32_t(off / 8) << 15 | b << 10 | rn << 5 | a;
}
uint32_t stp_d(uint32_t a, uint32_t b, uint32_t rn, size_t off) {
  return 0x6D000000u | uint32_t(off / 8) << 15 | b << 10 | rn << 5 | a;
}
uint32_t add_imm(uint32_t rd, uint32_t rn, size_t imm) { return 0x91000000u | uint32_t(imm) << 10 | rn << 5 | rd; }
constexpr uint32_t kSubSp = 0xD10003FFu;   // sub sp, sp, #imm (imm << 10 added)
constexpr uint32_t kAddSp = 0x910003FFu;   // add sp, sp, #imm
constexpr uint32_t kMovX1Sp = 0x910003E1u; // mov x1, sp
constexpr uint32_t kMovSpX1 = 0x9100003Fu; // mov sp, x1
constexpr uint32_t kRet = 0xD65F03C0u;
uint32_t msr_nzcv(uint32_t rt) { return 0xD51B4200u | rt; }
uint32_t mrs_nzcv(uint32_t rt) { return 0xD53B4200u | rt; }
uint32_t msr_fpsr(uint32_t rt) { return 0xD51B4420u | rt; }
uint32_t mrs_fpsr(uint32_t rt) { return 0xD53B4420u | rt; }
uint32_t msr_fpcr(uint32_t rt) { return 0xD51B4400u | rt; }
uint32_t mrs_fpcr(uint32_t rt) { return 0xD53B4400u | rt; }
uint32_t msr_tpidr(uint32_t rt) { return 0xD51BD040u | rt; }
uint32_t mrs_tpidr(uint32_t rt) { return 0xD53BD040u | rt; }
// ldr/str z and p, [xn, #imm, mul vl]: imm9 split into bits 21..16 and 12..10.
uint32_t vl_imm(uint32_t imm) { return (imm >> 3) << 16 | (imm & 7) << 10; }
uint32_t ldr_z(uint32_t zt, uint32_t rn, uint32_t imm) { return 0x85804000u | vl_imm(imm) | rn << 5 | zt; }
uint32_t str_z(uint32_t zt, uint32_t rn, uint32_t imm) { return 0xE5804000u | vl_imm(imm) | rn << 5 | zt; }
uint32_t ldr_p(uint32_t pt, uint32_t rn, uint32_t imm) { return 0x85800000u | vl_imm(imm) | rn << 5 | pt; }
uint32_t str_p(uint32_t pt, uint32_t rn, uint32_t imm) { return 0xE5800000u | vl_imm(imm) | rn << 5 | pt; }
constexpr uint32_t kWrffrP0 = 0x25289000u;   // wrffr p0.b
constexpr uint32_t kRdffrP0 = 0x2519F000u;   // rdffr p0.b
constexpr uint32_t kRdvlX0 = 0x04BF5020u;    // rdvl x0, #1
uint32_t branch(size_t from, size_t to) {
  const int64_t words = (static_cast<int64_t>(to) - static_cast<int64_t>(from)) / 4;
  return 0x14000000u | (static_cast<uint32_t>(words) & 0x3FFFFFFu);
}
uint32_t ldr_literal(uint32_t rt, size_t from, size_t to) {
  return 0x58000000u | (static_cast<uint32_t>((to - from) / 4) & 0x7FFFFu) << 5 | rt;
}

// ---- the stub ----------------------------------------------------------------------
// Three pages: loading, the word under test (followed by a branch), storing.
// Only the middle page is written per trial, so an emulator of the reference
// that caches translated code throws away only that page's.

unsigned char* code = nullptr;
size_t code_page = 0;
constexpr size_t kFrame = 176;  // x18..x30, d8..d15 of the caller

using stub_fn = void (*)(ref_block*);

void emit(std::vector<uint32_t>& v, uint32_t w) { v.push_back(w); }

void build_stub() {
  const size_t page = code_page;
  std::vector<uint32_t> a, c;
  // Page A: save the caller's registers, load the machine, branch to the word.
  emit(a, kSubSp | uint32_t(kFrame) << 10);
  for (uint32_t r = 19; r < 31; r += 2) emit(a, stp_x(r, r + 1, 31, (r - 19) * 8));
  for (uint32_t r = 8; r < 16; r += 2) emit(a, stp_d(r, r + 1, 31, 96 + (r - 8) * 8));
  emit(a, str_x(18, X0, offsetof(ref_block, host_x18)));
  emit(a, kMovX1Sp);
  emit(a, str_x(X1, X0, offsetof(ref_block, host_sp)));
  emit(a, mrs_tpidr(X1));
  emit(a, str_x(X1, X0, offsetof(ref_block, host_tpidr)));
  emit(a, mrs_fpcr(X1));
  emit(a, str_x(X1, X0, offsetof(ref_block, host_fpcr)));
  emit(a, add_imm(X1, X0, offsetof(ref_block, ffr)));
  emit(a, ldr_p(0, X1, 0));
  emit(a, kWrffrP0);
  emit(a, add_imm(X1, X0, offsetof(ref_block, z)));
  for (uint32_t i = 0; i < 32; ++i) emit(a, ldr_z(i, X1, i));
  emit(a, add_imm(X1, X0, offsetof(ref_block, p)));
  for (uint32_t i = 0; i < 16; ++i) emit(a, ldr_p(i, X1, i));
  emit(a, ldr_x(X1, X0, offsetof(ref_block, nzcv)));
  emit(a, msr_nzcv(X1));
  emit(a, ldr_x(X1, X0, offsetof(ref_block, fpsr)));
  emit(a, msr_fpsr(X1));
  emit(a, ldr_x(X1, X0, offsetof(ref_block, fpcr)));
  emit(a, msr_fpcr(X1));
  emit(a, ldr_x(X1, X0, offsetof(ref_block, sp)));
  emit(a, kMovSpX1);
  for (uint32_t r = 1; r < 31; r += 2) emit(a, ldp_x(r, r + 1, X0, r * 8));
  emit(a, ldr_x(X0, X0, 0));
  emit(a, branch(a.size() * 4, page));

  // Page C: the only free place for X0 is TPIDR_EL0, for the few
  // instructions until the block's address is in X0 again.
  emit(c, msr_tpidr(X0));
  const size_t lit_fixup = c.size();
  emit(c, 0);  // ldr x0, literal
  for (uint32_t r = 1; r < 31; r += 2) emit(c, stp_x(r, r + 1, X0, r * 8));
  emit(c, mrs_tpidr(X1));
  emit(c, str_x(X1, X0, 0));
  emit(c, ldr_x(X1, X0, offsetof(ref_block, host_tpidr)));
  emit(c, msr_tpidr(X1));
  emit(c, kMovX1Sp);
  emit(c, str_x(X1, X0, offsetof(ref_block, sp)));
  emit(c, mrs_nzcv(X1));
  emit(c, str_x(X1, X0, offsetof(ref_block, nzcv)));
  emit(c, mrs_fpsr(X1));
  emit(c, str_x(X1, X0, offsetof(ref_block, fpsr)));
  emit(c, mrs_fpcr(X1));
  emit(c, str_x(X1, X0, offsetof(ref_block, fpcr)));
  emit(c, ldr_x(X1, X0, offsetof(ref_block, host_sp)));
  emit(c, kMovSpX1);
  emit(c, add_imm(X1, X0, offsetof(ref_block, z)));
  for (uint32_t i = 0; i < 32; ++i) emit(c, str_z(i, X1, i));
  emit(c, add_imm(X1, X0, offsetof(ref_block, p)));
  for (uint32_t i = 0; i < 16; ++i) emit(c, str_p(i, X1, i));
  emit(c, kRdffrP0);
  emit(c, add_imm(X1, X0, offsetof(ref_block, ffr)));
  emit(c, str_p(0, X1, 0));
  emit(c, ldr_x(X1, X0, offsetof(ref_block, host_fpcr)));
  emit(c, msr_fpcr(X1));
  emit(c, ldr_x(18, X0, offsetof(ref_block, host_x18)));
  for (uint32_t r = 19; r < 31; r += 2) emit(c, ldp_x(r, r + 1, 31, (r - 19) * 8));
  for (uint32_t r = 8; r < 16; r += 2) emit(c, ldp_d(r, r + 1, 31, 96 + (r - 8) * 8));
  emit(c, kAddSp | uint32_t(kFrame) << 10);
  emit(c, kRet);
  if (c.size() % 2) emit(c, 0);  // align the literal
  const size_t lit = c.size() * 4;
  const uint64_t addr = reinterpret_cast<uint64_t>(&blk);
  emit(c, static_cast<uint32_t>(addr));
  emit(c, static_cast<uint32_t>(addr >> 32));
  c[lit_fixup] = ldr_literal(X0, lit_fixup * 4, lit);

  std::memcpy(code, a.data(), a.size() * 4);
  const uint32_t b[2] = {kRdvlX0, branch(page + 4, 2 * page)};  // the word's slot starts with a harmless word
  std::memcpy(code + page, b, sizeof b);
  std::memcpy(code + 2 * page, c.data(), c.size() * 4);
  __builtin___clear_cache(reinterpret_cast<char*>(code), reinterpret_cast<char*>(code + 3 * page));
}

// ---- signals ------------------------------------------------------------------------

enum phase_t { kIdle = 0, kReference, kEmulated };
volatile sig_atomic_t phase = kIdle;
volatile sig_atomic_t caught = 0;
sigjmp_buf jump;

constexpr int kSignals[] = {SIGILL, SIGSEGV, SIGBUS, SIGFPE, SIGTRAP, SIGABRT, SIGALRM};

void on_signal(int signo, siginfo_t* info, void* uc) {
  // A guarded read of a first-fault load: the emulator's own handler takes it.
  if ((signo == SIGSEGV || signo == SIGBUS) && SVEFaultRegion) {
    SVESigHandler(signo, info, uc);
    return;
  }
  if (phase != kIdle) {
    caught = signo;
    siglongjmp(jump, 1);
  }
  // A fault of the oracle itself: die of it.
  signal(signo, SIG_DFL);
  static const char msg[] = "quern-oracle: signal outside a trial\n";
  if (write(2, msg, sizeof msg - 1) < 0) {
  }
  if (signo == SIGALRM || signo == SIGABRT) raise(signo);
}

void install_handlers() {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = on_signal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (int s : kSignals) sigaction(s, &sa, nullptr);
}

uint64_t read_fpcr() {
  uint64_t v;
  __asm__ volatile("mrs %0, fpcr" : "=r"(v));
  return v;
}
void write_fpcr(uint64_t v) { __asm__ volatile("msr fpcr, %0" : : "r"(v)); }

// The current vector length in bytes, or 0 without SVE.
uint64_t vector_length() {
  uint64_t vl = 0;
  phase = kReference;
  if (sigsetjmp(jump, 1) == 0) {
    __asm__ volatile(".inst 0x04bf5020\n\tmov %0, x0" : "=r"(vl) : : "x0");  // rdvl x0, #1
  } else {
    vl = 0;
  }
  phase = kIdle;
  return vl;
}

// A mapping of `size` bytes below 4 GiB, tried at a few addresses.
unsigned char* map_low(size_t size) {
  for (uint64_t hint = 0x10000000; hint < 0xC0000000; hint += 0x10000000) {
    void* p = mmap(reinterpret_cast<void*>(hint), size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) continue;
    if (reinterpret_cast<uint64_t>(p) + size <= 0xFFFFFFFFull) return static_cast<unsigned char*>(p);
    munmap(p, size);
  }
  return nullptr;
}

bool same_machine(const cpu_state& a, const cpu_state& b) {
  return std::memcmp(a.x, b.x, sizeof a.x) == 0 && a.sp == b.sp && a.nzcv == b.nzcv && a.fpsr == b.fpsr &&
         a.fpcr == b.fpcr && std::memcmp(a.z, b.z, sizeof a.z) == 0 && std::memcmp(a.p, b.p, sizeof a.p) == 0 &&
         std::memcmp(a.ffr, b.ffr, sizeof a.ffr) == 0;
}

// The stub against words whose results are known without an emulator: every
// part of the state must reach the instruction and come back, predicates in
// the right bit order, SP and memory included.
bool check_stub(const scratch_area& scratch, std::string& error) {
  struct known {
    uint32_t word;
    const char* text;
    void (*expect)(cpu_state& s, unsigned char* mem_at_sp);
  };
  static const known words[] = {
      {0xD503201Fu, "nop", [](cpu_state&, unsigned char*) {}},
      {0xD53B4205u, "mrs x5, nzcv", [](cpu_state& s, unsigned char*) { s.x[5] = s.nzcv; }},
      {0xD53B4425u, "mrs x5, fpsr", [](cpu_state& s, unsigned char*) { s.x[5] = s.fpsr; }},
      {0xD53B4405u, "mrs x5, fpcr", [](cpu_state& s, unsigned char*) { s.x[5] = s.fpcr; }},
      {0x910003E5u, "mov x5, sp", [](cpu_state& s, unsigned char*) { s.x[5] = s.sp; }},
      {0xAA1E03E7u, "mov x7, x30", [](cpu_state& s, unsigned char*) { s.x[7] = s.x[30]; }},
      {0xAA0003FEu, "mov x30, x0", [](cpu_state& s, unsigned char*) { s.x[30] = s.x[0]; }},
      {0x2519F003u, "rdffr p3.b", [](cpu_state& s, unsigned char*) { std::memcpy(s.p[3], s.ffr, kVecBytes); }},
      {0x05110025u, "mov z5.b, p1/z, #1", [](cpu_state& s, unsigned char*) { std::memcpy(s.z[5], s.p[1], kVecBytes); }},
      {0xF94003E5u, "ldr x5, [sp]", [](cpu_state& s, unsigned char* m) { std::memcpy(&s.x[5], m, 8); }},
      {0xF90007E6u, "str x6, [sp, #8]", [](cpu_state& s, unsigned char* m) { std::memcpy(m + 8, &s.x[6], 8); }},
  };
  std::vector<unsigned char> want_mem(scratch.size);
  for (unsigned round = 0; round < 8; ++round) {
    for (const known& k : words) {
      rng g = trial_rng(round, k.text, 0);
      cpu_state in, out;
      random_state(in, g, scratch, false);
      in.fpcr = round & 1 ? 0x07C80000u : 0;  // AHP, DN, FZ, RMode, FZ16
      in.fpsr = round & 2 ? 0x0800009Fu : 0;
      for (size_t i = 0; i < scratch.size; ++i) scratch.mem[i] = static_cast<unsigned char>(g.next());
      std::memcpy(want_mem.data(), scratch.mem, scratch.size);
      cpu_state want = in;
      k.expect(want, want_mem.data() + (in.sp - reinterpret_cast<uint64_t>(scratch.mem)));
      int signo = 0;
      if (run_reference(k.word, in, out, signo) != outcome::ok || !same_machine(out, want) ||
          std::memcmp(want_mem.data(), scratch.mem, scratch.size) != 0) {
        error = std::string("the reference stub gets '") + k.text + "' wrong";
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool runner_init(scratch_area& scratch, std::string& error) {
  static std::vector<unsigned char> altstack(1 << 16);
  stack_t ss;
  std::memset(&ss, 0, sizeof ss);
  ss.ss_sp = altstack.data();
  ss.ss_size = altstack.size();
  if (sigaltstack(&ss, nullptr) != 0) {
    error = "sigaltstack failed";
    return false;
  }
  install_handlers();

  prctl(PR_SVE_SET_VL, kVecBytes, 0, 0, 0);  // on a processor with a longer vector
  const uint64_t vl = vector_length();
  if (vl != kVecBytes) {
    error = vl == 0 ? "the processor has no SVE" : "the vector length is " + std::to_string(vl * 8) + " bits, not 384";
    error += "; run under qemu-aarch64 -cpu max,sve-max-vq=3";
    return false;
  }

  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  code_page = page;
  void* c = mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (c == MAP_FAILED) {
    error = "cannot map writable and executable memory for the stub";
    return false;
  }
  code = static_cast<unsigned char*>(c);
  build_stub();

  scratch.page = page;
  scratch.size = kScratchBytes;
  unsigned char* area = map_low(scratch.size + 2 * page);
  if (!area) {
    error = "cannot map the scratch area below 4 GiB";
    return false;
  }
  scratch.mem = area + page;
  if (mprotect(scratch.mem, scratch.size, PROT_READ | PROT_WRITE) != 0) {
    error = "mprotect of the scratch area failed";
    return false;
  }

  // The emulator's first-fault loads must still contain their faults with the
  // oracle's handlers in place: a guarded read and a probe of the unmapped
  // page after the scratch area fail quietly, and of the area succeed.
  uint8_t v = 0;
  char* guard = reinterpret_cast<char*>(scratch.mem + scratch.size);
  if (guarded_load<uint8_t>(guard, v) || !guarded_load<uint8_t>(scratch.mem, v) ||
      addr_is_readable<char>(guard) || !addr_is_readable<char>(reinterpret_cast<char*>(scratch.mem))) {
    error = "the emulator's fault containment does not work under the oracle's signal handlers";
    return false;
  }
  return check_stub(scratch, error);
}

outcome run_reference(uint32_t word, const cpu_state& in, cpu_state& out, int& signo) {
  std::memcpy(blk.x, in.x, sizeof blk.x);
  blk.sp = in.sp;
  blk.nzcv = in.nzcv;
  blk.fpsr = in.fpsr;
  blk.fpcr = in.fpcr;
  std::memcpy(blk.z, in.z, sizeof blk.z);
  auto pack = [](const unsigned char* bytes, unsigned char* bits) {
    for (unsigned i = 0; i < kVecBytes / 8; ++i) {
      unsigned v = 0;
      for (unsigned j = 0; j < 8; ++j) v |= (bytes[8 * i + j] & 1u) << j;
      bits[i] = static_cast<unsigned char>(v);
    }
  };
  for (unsigned n = 0; n < 16; ++n) pack(in.p[n], blk.p[n]);
  pack(in.ffr, blk.ffr);

  std::memcpy(code + code_page, &word, 4);
  __builtin___clear_cache(reinterpret_cast<char*>(code + code_page), reinterpret_cast<char*>(code + code_page + 4));

  const uint64_t host_fpcr = read_fpcr();
  caught = 0;
  phase = kReference;
  if (sigsetjmp(jump, 1) == 0) {
    reinterpret_cast<stub_fn>(reinterpret_cast<uintptr_t>(code))(&blk);
    phase = kIdle;
  } else {
    phase = kIdle;
    write_fpcr(host_fpcr);
    signo = caught;
    return caught == SIGILL ? outcome::reserved : outcome::faulted;
  }

  std::memset(&out, 0, sizeof out);
  std::memcpy(out.x, blk.x, sizeof out.x);
  out.sp = blk.sp;
  out.nzcv = blk.nzcv;
  out.fpsr = static_cast<uint32_t>(blk.fpsr);
  out.fpcr = static_cast<uint32_t>(blk.fpcr);
  std::memcpy(out.z, blk.z, sizeof out.z);
  auto unpack = [](const unsigned char* bits, unsigned char* bytes) {
    for (unsigned i = 0; i < kVecBytes; ++i) bytes[i] = (bits[i / 8] >> (i % 8)) & 1u;
  };
  for (unsigned n = 0; n < 16; ++n) unpack(blk.p[n], out.p[n]);
  unpack(blk.ffr, out.ffr);
  out.pc = in.pc;
  out.encoding = in.encoding;
  signo = 0;
  return outcome::ok;
}

outcome run_emulated(sve_handler_fn fn, uint32_t word, cpu_state& s, int& rc, int& signo) {
  static uint32_t pc_word;
  pc_word = word;
  s.pc = reinterpret_cast<unsigned char*>(&pc_word);
  const uint64_t host_fpcr = read_fpcr();
  caught = 0;
  rc = -1;
  write_fpcr(s.fpcr);
  phase = kEmulated;
  if (sigsetjmp(jump, 1) == 0) {
    alarm(20);
    const int r = fn(&s, word);
    alarm(0);
    phase = kIdle;
    write_fpcr(host_fpcr);
    rc = r;
    signo = 0;
    return outcome::ok;
  }
  alarm(0);
  phase = kIdle;
  write_fpcr(host_fpcr);
  // Whatever the emulator was in the middle of is abandoned: no guarded read
  // is open any more, and a probe may have left its own handler behind.
  SVEFaultRegion = 0;
  install_handlers();
  signo = caught;
  return caught == SIGALRM ? outcome::timed_out : outcome::crashed;
}

}  // namespace oracle
