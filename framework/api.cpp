// The framework operations that a client calls outside the block pass:
// registration, thread-local fields, per-thread memory, spill slots, output.
#if !defined(__aarch64__)
#error "the framework runtime runs on AArch64 only"
#endif

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/runtime_state.h"
#include "framework/thread_block.h"

runtime_state rt;

namespace {

template <typename F, int N>
bool add(F (&list)[N], int& n, F f) {
  if (n >= N) return false;
  list[n++] = f;
  return true;
}

// The launcher passes client options as one variable, separated by 0x1F.
char options_copy[4096];

}  // namespace

void runtime_read_environment() {
  const char* level = getenv("QUERN_LOG_LEVEL");
  rt.log_level = level ? static_cast<unsigned>(atoi(level)) : 0;
  rt.log_fd = 2;
  if (const char* file = getenv("QUERN_LOG_FILE")) {
    const int fd = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) rt.log_fd = fd;
  }
  const char* fallback = getenv("QUERN_FALLBACK");
  rt.force_fallback = fallback && strcmp(fallback, "1") == 0;
  rt.client_argc = 1;
  const char* opts = getenv("QUERN_CLIENT_OPTIONS");
  if (opts && *opts) {
    strncpy(options_copy, opts, sizeof options_copy - 1);
    for (char* p = options_copy; p && rt.client_argc < 63;) {
      rt.client_argv[rt.client_argc++] = p;
      p = strchr(p, '\x1f');
      if (p) *p++ = '\0';
    }
  }
  rt.client_argv[rt.client_argc] = nullptr;
}

void dr_set_client_name(const char* name, const char* report_url) {
  (void)report_url;
  rt.client_name = name;
}

bool drmgr_init() { return true; }
void drmgr_exit() {}
drreg_status_t drreg_exit() { return DRREG_SUCCESS; }

bool drmgr_register_thread_init_event(void (*func)(void*)) { return add(rt.thread_init, rt.n_thread_init, func); }
bool drmgr_register_thread_exit_event(void (*func)(void*)) { return add(rt.thread_exit, rt.n_thread_exit, func); }
void dr_register_exit_event(void (*func)()) { add(rt.exit, rt.n_exit, func); }

bool drmgr_register_bb_app2app_event(bb_app2app_fn func, drmgr_priority_t* priority) {
  if (priority && priority->struct_size < sizeof(drmgr_priority_t)) return false;
  return add(rt.passes, rt.n_passes, func);
}

bool drmgr_unregister_bb_app2app_event(bb_app2app_fn func) {
  for (int i = 0; i < rt.n_passes; ++i)
    if (rt.passes[i] == func) {
      for (int j = i + 1; j < rt.n_passes; ++j) rt.passes[j - 1] = rt.passes[j];
      --rt.n_passes;
      return true;
    }
  return false;
}

int drmgr_register_tls_field() { return rt.n_tls_fields < kMaxTlsFields ? rt.n_tls_fields++ : -1; }

bool drmgr_set_tls_field(void* drcontext, int idx, void* value) {
  if (!drcontext || idx < 0 || idx >= rt.n_tls_fields) return false;
  static_cast<quern_thread*>(drcontext)->tls[idx] = value;
  return true;
}

void* drmgr_get_tls_field(void* drcontext, int idx) {
  if (!drcontext || idx < 0 || idx >= rt.n_tls_fields) return nullptr;
  return static_cast<quern_thread*>(drcontext)->tls[idx];
}

// Thread-private memory straight from the kernel, so that it can be had from
// a signal handler too. Not cleared on purpose by anyone: what the kernel
// gives is what the client gets.
void* dr_thread_alloc(void* drcontext, size_t size) {
  (void)drcontext;
  void* m = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return m == MAP_FAILED ? nullptr : m;
}

void dr_thread_free(void* drcontext, void* mem, size_t size) {
  (void)drcontext;
  munmap(mem, size);
}

bool drmgr_preserve_tls_field(int idx, size_t size) {
  if (idx < 0 || idx >= rt.n_tls_fields || size > kMaxPreservedBytes) return false;
  rt.preserved_field = idx;
  rt.preserved_size = size;
  return true;
}

// Process-lifetime memory: one reservation of address space, made on first
// need, handed out by an atomic bump pointer. Safe from a signal handler and
// from several threads at once; pages cost only once they are written.
void* dr_global_alloc(size_t size) {
  constexpr size_t kRegion = 64 << 20;
  static std::atomic<unsigned char*> region{nullptr};
  static std::atomic<size_t> used{0};
  unsigned char* base = region.load(std::memory_order_acquire);
  if (!base) {
    void* m = mmap(nullptr, kRegion, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) return nullptr;
    unsigned char* fresh = static_cast<unsigned char*>(m);
    if (!region.compare_exchange_strong(base, fresh, std::memory_order_acq_rel)) munmap(m, kRegion);
    else base = fresh;
  }
  size = (size + 15) & ~size_t(15);
  const size_t at = used.fetch_add(size);
  if (size > kRegion || at > kRegion - size) return nullptr;
  return base + at;
}

reg_t dr_read_saved_reg(void* drcontext, dr_spill_slot_t slot) {
  return static_cast<quern_thread*>(drcontext)->spill[slot];
}

void dr_write_saved_reg(void* drcontext, dr_spill_slot_t slot, reg_t value) {
  static_cast<quern_thread*>(drcontext)->spill[slot] = value;
}

const char* dr_get_application_name() { return program_invocation_short_name; }

namespace {
void vwrite(int fd, const char* fmt, va_list ap) {
  char buf[1024];
  const int n = vsnprintf(buf, sizeof buf, fmt, ap);
  if (n > 0) (void)!write(fd, buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}
}  // namespace

void dr_log(void* drcontext, uint mask, uint level, const char* fmt, ...) {
  (void)drcontext;
  (void)mask;
  if (level > rt.log_level) return;
  va_list ap;
  va_start(ap, fmt);
  vwrite(rt.log_fd, fmt, ap);
  va_end(ap);
}

void dr_fprintf(file_t f, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vwrite(f, fmt, ap);
  va_end(ap);
}

// Straight to the kernel: an abort runs no exit event.
void dr_abort() {
  syscall(SYS_exit_group, 1);
  __builtin_unreachable();
}
