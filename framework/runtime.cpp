// The framework at run time, preloaded into the application (LD_PRELOAD).
//
// At load it loads the client library (whose static initialiser builds the
// decode maps and installs the fault handlers), calls dr_client_main, gives the
// main thread its block and installs the SIGILL handler. An instruction that
// the processor lacks announces itself with SIGILL: the handler runs the client's
// pass on a block that starts at that instruction, encodes the result near
// the instruction and patches the instruction with a branch to it. Later
// executions run the rewritten code without any signal.
//
// The block holds the instructions that follow in the same page, up to
// kBlockWords. The rewritten code ends where the first application
// instruction that the passes left in place stands: from there on the
// application runs its own code. So a run of adjacent words that the passes
// replace becomes one piece of code, and an instruction that they keep is
// never moved away from its address.
//
// Everything on the SIGILL path is async-signal-safe: no malloc, no locks that
// ordinary code may hold; memory comes from mmap and the per-thread arena.
#if !defined(__aarch64__)
#error "the framework runtime runs on AArch64 only"
#endif

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "framework/encode.h"
#include "framework/interp.h"
#include "framework/runtime_state.h"
#include "framework/thread_block.h"

namespace {

// ---- signal-safe output ----------------------------------------------------------------

void put_str(int fd, const char* s) { (void)!write(fd, s, strlen(s)); }

// The framework's own way out when it cannot go on: no exit event runs.
[[noreturn]] void exit_now(int status) {
  syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

// ---- the thread block ------------------------------------------------------------------

__thread quern_thread* quern_self __attribute__((tls_model("initial-exec")));

constexpr size_t kArenaSize = 2 << 20, kStackSize = 256 << 10;

quern_thread* block_create() {
  const size_t head = (sizeof(quern_thread) + 4095) & ~size_t(4095);
  const size_t total = head + kArenaSize + kStackSize;
  void* m = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) {
    put_str(2, "quern: cannot allocate a thread block\n");
    exit_now(127);
  }
  quern_thread* t = static_cast<quern_thread*>(m);
  unsigned char* base = static_cast<unsigned char*>(m);
  t->arena = {base + head, kArenaSize, 0};
  t->stack_base = base + head + kArenaSize;
  t->stack_size = kStackSize;
  t->stack_top = reinterpret_cast<uint64_t>(t->stack_base + kStackSize) & ~uint64_t(15);
  t->mapping_size = total;
  t->tid = static_cast<int>(syscall(SYS_gettid));
  return t;
}

// The current thread's block, made (and announced to the client) on first need.
quern_thread* self_block() {
  if (quern_self) return quern_self;
  quern_self = block_create();
  for (int i = 0; i < rt.n_thread_init; ++i) rt.thread_init[i](quern_self);
  quern_self->init_done = true;
  return quern_self;
}

void block_destroy(quern_thread* t) {
  if (t->init_done)
    for (int i = 0; i < rt.n_thread_exit; ++i) rt.thread_exit[i](t);
  if (quern_self == t) quern_self = nullptr;
  munmap(t, t->mapping_size);
}

// Announces a thread's exit to the client when the thread ends.
pthread_key_t exit_key;

// ---- code buffers within branch range ------------------------------------------------------

struct code_pool {
  std::atomic<uint64_t> base;
  std::atomic<size_t> used;
};
constexpr int kMaxPools = 256;
constexpr size_t kPoolSize = 1 << 20;
code_pool pools[kMaxPools];
std::atomic<int> n_pools{0};

uint32_t* pool_take(code_pool& p, uint64_t pc, size_t bytes) {
  const uint64_t base = p.base.load(std::memory_order_acquire);
  if (!base || !branch_in_range(pc, base) || !branch_in_range(pc, base + kPoolSize)) return nullptr;
  size_t at = p.used.load();
  do {
    if (at + bytes > kPoolSize) return nullptr;
  } while (!p.used.compare_exchange_weak(at, at + bytes));
  return reinterpret_cast<uint32_t*>(base + at);
}

// `words` words of executable memory that a branch at `pc` can reach both ways.
uint32_t* code_alloc(uint64_t pc, size_t words) {
  const size_t bytes = words * 4;
  for (int i = 0; i < n_pools.load() && i < kMaxPools; ++i)
    if (uint32_t* w = pool_take(pools[i], pc, bytes)) return w;
  // New pools where a branch at pc reaches, nearest first, each hint a
  // pool's length apart from the last so that earlier pools do not stand in
  // the way.
  for (int k = 1; k < 120; ++k) {
    const int64_t step = (k % 2 ? 1 : -1) * static_cast<int64_t>((k + 1) / 2) * static_cast<int64_t>(kPoolSize);
    const uint64_t hint = (pc + static_cast<uint64_t>(step)) & ~uint64_t(0xFFFF);
    void* m = mmap(reinterpret_cast<void*>(hint), kPoolSize, PROT_READ | PROT_WRITE | PROT_EXEC,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) continue;
    const uint64_t base = reinterpret_cast<uint64_t>(m);
    if (!branch_in_range(pc, base) || !branch_in_range(pc, base + kPoolSize)) {
      munmap(m, kPoolSize);
      continue;
    }
    const int slot = n_pools.fetch_add(1);
    if (slot >= kMaxPools) {
      munmap(m, kPoolSize);
      return nullptr;
    }
    pools[slot].base.store(base, std::memory_order_release);
    if (uint32_t* w = pool_take(pools[slot], pc, bytes)) return w;
  }
  return nullptr;
}

// A hexadecimal number at p, which is left behind it.
uint64_t parse_hex(const char*& p) {
  uint64_t v = 0;
  for (;; ++p) {
    const char c = static_cast<char>(*p | 0x20);
    if (*p >= '0' && *p <= '9') v = v * 16 + static_cast<uint64_t>(*p - '0');
    else if (c >= 'a' && c <= 'f') v = v * 16 + static_cast<uint64_t>(c - 'a' + 10);
    else return v;
  }
}

// The protection of the mapping that holds `addr`, from /proc/self/maps, read
// with plain system calls (no stdio, no malloc). R-X if it cannot be told.
int page_protection(uint64_t addr) {
  const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return PROT_READ | PROT_EXEC;
  char buf[4096];
  size_t have = 0;
  int prot = PROT_READ | PROT_EXEC;
  for (;;) {
    const ssize_t n = read(fd, buf + have, sizeof buf - have);
    if (n <= 0) break;
    have += static_cast<size_t>(n);
    size_t start = 0;
    for (size_t i = 0; i < have; ++i) {
      if (buf[i] != '\n') continue;
      // "lo-hi rwxp ..."
      const char* p = buf + start;
      const uint64_t lo = parse_hex(p);
      ++p;   // '-'
      const uint64_t hi = parse_hex(p);
      ++p;   // ' '
      if (addr >= lo && addr < hi) {
        prot = (p[0] == 'r' ? PROT_READ : 0) | (p[1] == 'w' ? PROT_WRITE : 0) | (p[2] == 'x' ? PROT_EXEC : 0);
        close(fd);
        return prot;
      }
      start = i + 1;
    }
    std::memmove(buf, buf + start, have - start);
    have -= start;
    if (have == sizeof buf) have = 0;   // a line longer than the buffer: skip it
  }
  close(fd);
  return prot;
}

// The protection of the pages patched so far, so that the next block in the
// same page need not read /proc/self/maps again: under qemu that read costs
// half a millisecond, more than the rest of building a block. Every call that
// may change mappings (the program's mprotect, mmap, munmap and mremap, below,
// and the framework's own new code pools) makes it forget them all. Guarded
// by patch_lock.
struct known_page {
  uint64_t page;
  int prot;
};
constexpr unsigned kKnownPages = 64;
known_page known_pages[kKnownPages];
unsigned n_known_pages;   // entries in use, at most kKnownPages
unsigned next_known;      // the entry the next page takes, round the ring
std::atomic<uint64_t> mappings_changed{0};   // bumped by the program's mapping calls
uint64_t known_as_of;                         // the count the known pages were read at

int known_protection(uint64_t page) {
  const uint64_t now = mappings_changed.load(std::memory_order_acquire);
  if (now != known_as_of) {
    n_known_pages = next_known = 0;
    known_as_of = now;
  }
  for (unsigned i = 0; i < n_known_pages; ++i)
    if (known_pages[i].page == page) return known_pages[i].prot;
  const int prot = page_protection(page);
  known_pages[next_known] = {page, prot};
  next_known = (next_known + 1) % kKnownPages;
  if (n_known_pages < kKnownPages) ++n_known_pages;
  return prot;
}

// Replaces the word at `pc` by `word` with a single aligned store, and gives
// the page back the protection it had (a JIT's writable code stays writable).
// The framework's own mprotect goes straight to the system, not through the
// program's entry point below, so that it does not count as the program's.
std::atomic_flag patch_lock = ATOMIC_FLAG_INIT;
bool patch_word(uint64_t pc, uint32_t word) {
  const uint64_t page = pc & ~uint64_t(getpagesize() - 1);
  const auto protect = [page](int prot) { return syscall(SYS_mprotect, page, getpagesize(), prot) == 0; };
  while (patch_lock.test_and_set(std::memory_order_acquire)) sched_yield();
  const int prot = known_protection(page);
  bool ok = (prot & PROT_WRITE) || protect(PROT_READ | PROT_WRITE | PROT_EXEC);
  if (ok) {
    __atomic_store_n(reinterpret_cast<uint32_t*>(pc), word, __ATOMIC_RELEASE);
    __builtin___clear_cache(reinterpret_cast<char*>(pc), reinterpret_cast<char*>(pc + 4));
    if (!(prot & PROT_WRITE)) protect(prot);
  }
  patch_lock.clear(std::memory_order_release);
  return ok;
}

bool code_is_ours(uint64_t pc) {
  for (int i = 0; i < n_pools.load() && i < kMaxPools; ++i) {
    const uint64_t b = pools[i].base.load();
    if (b && pc >= b && pc < b + kPoolSize) return true;
  }
  return false;
}

// ---- the signal context ---------------------------------------------------------------------

fpsimd_context* fp_context(ucontext_t* uc) {
  auto* head = reinterpret_cast<_aarch64_ctx*>(uc->uc_mcontext.__reserved);
  while (head->magic != 0) {
    if (head->magic == FPSIMD_MAGIC) return reinterpret_cast<fpsimd_context*>(head);
    head = reinterpret_cast<_aarch64_ctx*>(reinterpret_cast<char*>(head) + head->size);
  }
  return nullptr;
}

bool run_fallback(const instrlist_t* il, uint64_t resume, ucontext_t* uc, quern_thread* t) {
  fpsimd_context* fp = fp_context(uc);
  if (!fp) return false;
  reg_file r;
  std::memcpy(r.x, uc->uc_mcontext.regs, sizeof r.x);
  r.sp = uc->uc_mcontext.sp;
  r.nzcv = uc->uc_mcontext.pstate & 0xF0000000u;
  r.fpsr = fp->fpsr;
  r.fpcr = fp->fpcr;
  std::memcpy(r.q, fp->vregs, sizeof r.q);
  if (!interpret_sequence(il, r, t)) return false;
  std::memcpy(uc->uc_mcontext.regs, r.x, sizeof r.x);
  uc->uc_mcontext.sp = r.sp;
  uc->uc_mcontext.pstate = (uc->uc_mcontext.pstate & ~uint64_t(0xF0000000u)) | r.nzcv;
  fp->fpsr = r.fpsr;
  fp->fpcr = r.fpcr;
  std::memcpy(fp->vregs, r.q, sizeof r.q);
  uc->uc_mcontext.pc = resume;
  return true;
}

// Rewritten code for `il` near `pc`, going on at `resume`, and the branch to
// it. False when no code buffer in range can be had or the code page cannot
// be made writable.
bool place_code(const instrlist_t* il, uint64_t pc, uint64_t resume, quern_thread* t) {
  // Encoded once in the arena to learn its length (only the final branch
  // depends on where the code goes), then for real in exactly that room.
  constexpr size_t kMaxWords = 16384;
  uint32_t* draft = static_cast<uint32_t*>(arena_alloc(&t->arena, kMaxWords * 4));
  const size_t n = encode_sequence(il, encode_env{pc, resume, rt.tls_offset}, draft, kMaxWords);
  if (n == 0) return false;
  uint32_t* code = code_alloc(pc, n);
  if (!code) return false;
  if (encode_sequence(il, encode_env{reinterpret_cast<uint64_t>(code), resume, rt.tls_offset}, code, n) != n)
    return false;
  __builtin___clear_cache(reinterpret_cast<char*>(code), reinterpret_cast<char*>(code + n));
  dr_log(nullptr, DR_LOG_ALL, 2, "quern: rewrote %p with %zu instructions at %p, %zu bytes of application code\n",
         reinterpret_cast<void*>(pc), n, static_cast<void*>(code), static_cast<size_t>(resume - pc));
  const uint32_t branch = encode_branch(pc, reinterpret_cast<uint64_t>(code));
  return branch != 0 && patch_word(pc, branch);
}

// The block that starts at `pc`: its instruction and those after it in the
// same page, at most kBlockWords (a loop body of SVE words fits; a block of
// one-word sequences that long still fits the thread's arena).
constexpr uint64_t kBlockWords = 32;
instrlist_t* build_block(quern_thread* t, uint64_t pc, uint64_t* end) {
  instrlist_t* il = instrlist_create(t);
  const uint64_t page_end = (pc | uint64_t(getpagesize() - 1)) + 1;
  uint64_t at = pc;
  do {
    instrlist_append(il, instr_create_app(t, reinterpret_cast<app_pc>(at)));
    at += 4;
  } while (at < page_end && at < pc + 4 * kBlockWords);
  *end = at;
  return il;
}

// Ends the list before its first application instruction (which the
// application then runs in place) and tells where the rewritten code goes
// on: that instruction, or `end` when the passes replaced them all.
uint64_t cut_at_first_app(instrlist_t* il, uint64_t end) {
  instr_t* keep = instrlist_first_app(il);
  if (!keep) return end;
  const uint64_t resume = reinterpret_cast<uint64_t>(keep->pc);
  for (instr_t* in = keep; in;) {
    instr_t* next = in->next;
    instrlist_remove(il, in);
    in = next;
  }
  return resume;
}

std::atomic<bool> fallback_logged{false};
std::atomic<uint64_t> blocks_rewritten{0}, blocks_interpreted{0};

// Passes run one at a time: a word that two threads hit for the first time at
// once is rewritten by one of them, and the other finds the branch.
std::atomic_flag pass_lock = ATOMIC_FLAG_INIT;

bool is_branch_to_our_code(uint64_t pc, uint32_t word) {
  if ((word & 0xFC000000u) != 0x14000000u) return false;
  const int64_t offset = static_cast<int64_t>(static_cast<int32_t>(word << 6) >> 6) * 4;
  return code_is_ours(pc + static_cast<uint64_t>(offset));
}

void on_sigill(int sig, siginfo_t* info, void* ucv) {
  const int saved_errno = errno;
  ucontext_t* uc = static_cast<ucontext_t*>(ucv);
  const uint64_t pc = uc->uc_mcontext.pc;

  if (info->si_code <= 0) {
    // Sent by kill or raise, not raised by an instruction: the program's.
    deliver_sigill(sig, info, ucv);
    errno = saved_errno;
    return;
  }
  if (*reinterpret_cast<const uint32_t*>(pc) == kNoBlockTrap && code_is_ours(pc)) {
    // Rewritten code reached by a thread that has no block yet.
    quern_thread* t = self_block();
    pthread_setspecific(exit_key, t);   // so that its exit is announced too
    dr_log(t, DR_LOG_ALL, 2, "quern: thread %d given its block in rewritten code\n", t->tid);
    uc->uc_mcontext.regs[28] = reinterpret_cast<uint64_t>(t);
    uc->uc_mcontext.pc = pc + 4;
    errno = saved_errno;
    return;
  }

  quern_thread* t = self_block();
  while (pass_lock.test_and_set(std::memory_order_acquire)) sched_yield();
  if (is_branch_to_our_code(pc, *reinterpret_cast<const volatile uint32_t*>(pc))) {
    pass_lock.clear(std::memory_order_release);   // rewritten meanwhile: run the branch
    errno = saved_errno;
    return;
  }
  t->arena.used = 0;
  uint64_t end;
  instrlist_t* il = build_block(t, pc, &end);
  for (int i = 0; i < rt.n_passes; ++i) rt.passes[i](t, reinterpret_cast<void*>(pc), il, false, false);
  const uint64_t resume = cut_at_first_app(il, end);

  if (resume == pc) {
    // The passes kept the instruction itself: it is genuinely illegal.
    pass_lock.clear(std::memory_order_release);
    deliver_sigill(sig, info, ucv);
  } else if (!rt.force_fallback && place_code(il, pc, resume, t)) {
    pass_lock.clear(std::memory_order_release);
    blocks_rewritten.fetch_add(1, std::memory_order_relaxed);
  } else {
    pass_lock.clear(std::memory_order_release);
    blocks_interpreted.fetch_add(1, std::memory_order_relaxed);
    if (!fallback_logged.exchange(true))
      dr_log(t, DR_LOG_ALL, 1, "quern: emulating from the signal context (no rewritten code at %p)\n",
             reinterpret_cast<void*>(pc));
    if (!run_fallback(il, resume, uc, t)) {
      put_str(2, "quern: cannot carry out the rewritten instruction\n");
      exit_now(127);
    }
  }
  errno = saved_errno;
}

// ---- threads -----------------------------------------------------------------------------------

void thread_exit_destructor(void* block) { block_destroy(static_cast<quern_thread*>(block)); }

struct start_args {
  void* (*fn)(void*);
  void* arg;
};

void* thread_start(void* p) {
  const start_args a = *static_cast<start_args*>(p);
  free(p);
  pthread_setspecific(exit_key, self_block());
  return a.fn(a.arg);
}

// The process whose exit the exit events announce: a vfork child that calls
// _exit shares the parent's memory and must not run them. A forked child
// announces its own exit through exit(), not through _exit, by which a child
// conventionally leaves without its parent's clean-up.
pid_t announcing_pid, first_pid;
std::atomic<bool> exit_announced{false};

void process_exit() {
  if (getpid() != announcing_pid || exit_announced.exchange(true)) return;
  if (quern_self) block_destroy(quern_self);
  for (int i = rt.n_exit - 1; i >= 0; --i) rt.exit[i]();
}

// ---- start-up ---------------------------------------------------------------------------------------

void die(const char* what, const char* detail) {
  put_str(2, "quern: ");
  put_str(2, what);
  if (detail) {
    put_str(2, ": ");
    put_str(2, detail);
  }
  put_str(2, "\n");
  exit_now(127);
}

__attribute__((constructor)) void framework_start() {
  rt.real_sigaction = reinterpret_cast<sigaction_fn>(dlsym(RTLD_NEXT, "sigaction"));
  rt.real_pthread_create = reinterpret_cast<pthread_create_fn>(dlsym(RTLD_NEXT, "pthread_create"));
  rt.real_pthread_sigmask = reinterpret_cast<pthread_sigmask_fn>(dlsym(RTLD_NEXT, "pthread_sigmask"));
  if (!rt.real_sigaction || !rt.real_pthread_create || !rt.real_pthread_sigmask)
    die("cannot find the C library's signal and thread functions", nullptr);
  rt.tls_offset = reinterpret_cast<char*>(&quern_self) - static_cast<char*>(__builtin_thread_pointer());
  runtime_read_environment();

  const char* client = getenv("QUERN_CLIENT");
  if (!client || !*client) die("QUERN_CLIENT names no client library", nullptr);
  void* lib = dlopen(client, RTLD_NOW | RTLD_LOCAL);
  if (!lib) die("cannot load the client", dlerror());
  auto* version = static_cast<const quern_dr_version_t*>(dlsym(lib, "_USES_DR_VERSION_"));
  auto* client_main = reinterpret_cast<void (*)(client_id_t, int, const char**)>(dlsym(lib, "dr_client_main"));
  if (!version || !client_main) die("not a client library", client);

  pthread_key_create(&exit_key, thread_exit_destructor);
  // A fork while another thread held a lock must not leave the child stuck.
  pthread_atfork(nullptr, nullptr, [] {
    pass_lock.clear();
    patch_lock.clear();
    blocks_rewritten = 0;
    blocks_interpreted = 0;
    announcing_pid = getpid();
  });
  announcing_pid = first_pid = getpid();
  rt.client_argv[0] = client;
  client_main(0, rt.client_argc, rt.client_argv);

  pthread_setspecific(exit_key, self_block());
  atexit(process_exit);

  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = on_sigill;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  // Nothing asynchronous interrupts a pass or a fallback emulation; faults
  // (a guarded read of the emulated instruction) still get through.
  sigfillset(&sa.sa_mask);
  for (int s : {SIGSEGV, SIGBUS, SIGFPE, SIGTRAP, SIGILL}) sigdelset(&sa.sa_mask, s);
  rt.real_sigaction(SIGILL, &sa, nullptr);
}

}  // namespace

// ---- interposed C library entry points ---------------------------------------------------------------

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                                                     void* (*fn)(void*), void* arg) {
  auto* a = static_cast<start_args*>(malloc(sizeof(start_args)));
  if (!a) return EAGAIN;
  *a = {fn, arg};
  const int rc = rt.real_pthread_create(thread, attr, thread_start, a);
  if (rc != 0) free(a);
  return rc;
}

// A program that leaves through _exit (or _Exit) skips atexit: its exit
// events run here instead, so that the client can finish what it reports.
extern "C" __attribute__((visibility("default"), noreturn)) void _exit(int status) {
  if (getpid() == first_pid) process_exit();
  exit_now(status);
}

extern "C" __attribute__((visibility("default"), noreturn)) void _Exit(int status) { _exit(status); }

// The program's calls that may change what a page of code allows: each makes
// the framework forget the protections it knows, then goes to the system
// directly (the C library's entry points do no more than that, and these may
// run before the framework has started, or inside the allocator).
namespace {
void forget_protections() { mappings_changed.fetch_add(1, std::memory_order_acq_rel); }
}  // namespace

extern "C" __attribute__((visibility("default"))) int mprotect(void* addr, size_t len, int prot) {
  forget_protections();
  return static_cast<int>(syscall(SYS_mprotect, addr, len, prot));
}

extern "C" __attribute__((visibility("default"))) int munmap(void* addr, size_t len) {
  forget_protections();
  return static_cast<int>(syscall(SYS_munmap, addr, len));
}

extern "C" __attribute__((visibility("default"))) void* mmap(void* addr, size_t len, int prot, int flags, int fd,
                                                              off_t offset) {
  forget_protections();
  return reinterpret_cast<void*>(syscall(SYS_mmap, addr, len, prot, flags, fd, offset));
}

extern "C" __attribute__((visibility("default"))) void* mmap64(void* addr, size_t len, int prot, int flags, int fd,
                                                                off_t offset) {
  return mmap(addr, len, prot, flags, fd, offset);
}

extern "C" __attribute__((visibility("default"))) void* mremap(void* old_addr, size_t old_len, size_t new_len,
                                                                int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  void* new_addr = (flags & MREMAP_FIXED) ? va_arg(ap, void*) : nullptr;
  va_end(ap);
  forget_protections();
  return reinterpret_cast<void*>(syscall(SYS_mremap, old_addr, old_len, new_len, flags, new_addr));
}

void* dr_get_current_drcontext() { return self_block(); }

dr_block_counts_t dr_get_block_counts() {
  return {blocks_rewritten.load(std::memory_order_relaxed), blocks_interpreted.load(std::memory_order_relaxed)};
}

quern_thread* current_block() { return quern_self; }
