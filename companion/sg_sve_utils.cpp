// libquern_sg_sve_utils: the memory trace sink, the record counter, and the
// handle assertion messages go to.
//
// How records reach the file
// --------------------------
// trace_mem is called from any thread, with no lock on the caller's side, and
// also from inside the SIGILL handler of the emulator's fallback path. So it
// allocates nothing, takes no lock that ordinary code could be holding when the
// signal lands, and makes no call beyond a few async-signal-safe syscalls.
//
// The file (layout in trace_format.h) is mapped MAP_SHARED, in windows whose
// size is a multiple of both the record size and the page size, so a record
// never straddles two windows. A record's place is one atomic fetch_add on the
// slot counter; the writer copies the body into its slot and then stores the
// count with release order. A reader therefore sees either a whole record or a
// slot with count 0, never a record with a count and a half-written body.
//
// Growth. The window of a slot is found in a fixed table of atomic pointers.
// When the pointer is still null, the thread blocks every signal, tries to
// become the one grower (CAS on grow_lock), extends the file (fallocate, so that
// a full disk shows up here and not as SIGBUS later; ftruncate where fallocate
// is not supported) and maps windows in order up to the one it needs,
// publishing each pointer with release order. Others spin (sched_yield) until
// the pointer appears. Exactly one thread maps each window, the file only ever
// grows while it is open, and because the grower has all signals blocked, no
// handler on its own thread can wait for the lock it holds. If growth fails
// (disk full, table exhausted), later records are dropped and counted, and
// sve_exit says how many.
//
// Crashes. The data lives in the page cache of a shared file mapping, so a
// record whose count store has executed survives the process being killed,
// SIGKILL included. Such a file keeps the zero tail of its last window, and a
// slot reserved but not finished when the process died reads as count 0 in the
// middle; readers skip both and report the holes. The tail is never empty: the
// writer of a window's last slot maps the next window before storing its count,
// so even a program killed just after filling a window leaves unused slots.
//
// Closing. trace_mem brackets its work with a writers counter; sve_exit clears
// the open flag, waits for the counter to drain (flag and counter are
// sequentially consistent, so a writer that missed the flag is counted), then
// msyncs, unmaps, truncates the file to the records written and closes it.
// Calls after that find the flag clear and return. sve_init may open a new file
// afterwards; a second sve_init while open keeps the open file.
//
// No file without records. A file the user named (QUERN_TRACE_FILE, in the
// process that was given it) is made by sve_init and always stays. Any other
// is made by the first record (the sink is "pending" until then), so that a
// program that never marks a region, or a forked child that only execs,
// leaves nothing behind; and sve_exit removes such a file if it still holds
// no record (its only records were never completed).
//
// fork. The child of a traced process would otherwise write into the parent's
// mapping. A pthread_atfork child handler unmaps the parent's windows and
// leaves the sink pending on a fresh file named with the child's pid:
// <QUERN_TRACE_FILE>.<pid> when the parent's name came from QUERN_TRACE_FILE,
// else <app>.<pid>.qtrace in the directory of the parent's file. The handler uses async-signal-safe calls only,
// as a child of a threaded process must, and signals stay blocked from before
// the fork until it is done. The count carries on from the parent's.
//
// Window size: about 4 MiB; QUERN_TRACE_WINDOW (bytes) overrides it, rounded up
// to a multiple of lcm(56, page size). At most kMaxWindows windows are mapped.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

// The interface is exported; everything else is hidden (-fvisibility=hidden).
#pragma GCC visibility push(default)
#include "sve/memory/sve_mem_ref.h"
#pragma GCC visibility pop

#include "companion/trace_format.h"

file_t our_stderr = 2;

namespace {

constexpr uint64_t kMaxWindows = 16384;
constexpr uint64_t kDefaultWindowBytes = uint64_t{4} << 20;
constexpr uint64_t kMaxWindowBytes = uint64_t{1} << 30;
constexpr size_t kPathCap = 4096;
// The sink's states. A pending sink accepts records but has no file yet: the
// first record makes it.
constexpr int kClosed = 0, kPending = 2, kOpen = 1;

struct sink_state {
  std::atomic<int> open;            // kClosed, kPending or kOpen
  std::atomic<long> writers;        // trace_mem calls in progress
  std::atomic<uint64_t> next_slot;  // records reserved so far
  std::atomic<int> grow_lock;
  std::atomic<int> grow_failed;  // sticky: no more windows
  std::atomic<int> grow_errno;
  std::atomic<uint64_t> dropped;
  std::atomic<char*> window[kMaxWindows];
  uint64_t mapped_windows;  // under grow_lock
  int fd;
  int pid;      // of the process the file is for
  bool wedged;  // sve_exit could not drain the writers
  uint64_t window_bytes;
  uint64_t slots_per_window;
  uint64_t max_records;
  // Naming, kept for the child after fork.
  bool name_from_env;
  bool keep_empty;  // the file's name is the user's own: keep it even without records
  char stem[kPathCap];
  char app_name[kTraceAppNameSize];
  char path[kPathCap + 32];
};

// Zero-initialised static storage: no constructor runs, so the sink is usable
// (closed) before this library's initialisers and after its destructors.
sink_state sink;
std::atomic<uint64_t> g_count;
std::atomic<int> g_atfork_registered;

// ---- async-signal-safe string helpers -----------------------------------------

bool append(char* buf, size_t cap, size_t& len, const char* s) {
  while (*s) {
    if (len + 1 >= cap) return false;
    buf[len++] = *s++;
  }
  buf[len] = '\0';
  return true;
}

bool append_uint(char* buf, size_t cap, size_t& len, uint64_t v) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  char text[24];
  for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
  text[n] = '\0';
  return append(buf, cap, len, text);
}

void write_stderr(const char* a, const char* b, const char* c) {
  for (const char* s : {a, b, c}) {
    size_t left = strlen(s);
    while (left) {
      ssize_t n = write(2, s, left);
      if (n <= 0) return;
      s += n;
      left -= static_cast<size_t>(n);
    }
  }
}

// The path of the file for process `pid`: the parent's is QUERN_TRACE_FILE
// itself when that was given; every other name carries the pid.
bool make_path(int pid, bool is_child) {
  size_t len = 0;
  sink.path[0] = '\0';
  bool ok = append(sink.path, sizeof sink.path, len, sink.stem);
  sink.keep_empty = sink.name_from_env && !is_child;
  if (sink.keep_empty) return ok;
  ok = ok && append(sink.path, sizeof sink.path, len, ".") &&
       append_uint(sink.path, sizeof sink.path, len, static_cast<uint64_t>(pid));
  if (!sink.name_from_env) ok = ok && append(sink.path, sizeof sink.path, len, ".qtrace");
  return ok;
}

// ---- windows --------------------------------------------------------------------

// Extends the file over the next window and maps it. Caller holds grow_lock.
bool map_next_window() {
  const uint64_t w = sink.mapped_windows;
  const off_t off = static_cast<off_t>(w * sink.window_bytes);
  const off_t len = static_cast<off_t>(sink.window_bytes);
  int err = 0;
  if (w >= kMaxWindows) {
    err = EFBIG;
  } else if (fallocate(sink.fd, 0, off, len) != 0) {
    err = errno;
    if (err == EOPNOTSUPP || err == ENOSYS) err = ftruncate(sink.fd, off + len) == 0 ? 0 : errno;
  }
  if (!err) {
    void* p = mmap(nullptr, sink.window_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, sink.fd, off);
    if (p == MAP_FAILED) {
      err = errno;
    } else {
      sink.window[w].store(static_cast<char*>(p), std::memory_order_release);
      sink.mapped_windows = w + 1;
      return true;
    }
  }
  sink.grow_errno.store(err, std::memory_order_relaxed);
  sink.grow_failed.store(1, std::memory_order_release);
  return false;
}

// The window `w`, mapping it (and those before it) if need be; null when the
// file cannot grow.
char* window_for(uint64_t w) {
  if (w >= kMaxWindows) return nullptr;
  for (;;) {
    if (char* p = sink.window[w].load(std::memory_order_acquire)) return p;
    if (sink.grow_failed.load(std::memory_order_acquire)) return nullptr;
    if (sink.grow_lock.load(std::memory_order_relaxed) != 0) {
      sched_yield();
      continue;
    }
    const int saved_errno = errno;  // a signal handler's caller must not see ours
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    int expected = 0;
    if (sink.grow_lock.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
      while (sink.mapped_windows <= w && map_next_window()) {
      }
      sink.grow_lock.store(0, std::memory_order_release);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = saved_errno;
  }
}

uint64_t slot_count(uint64_t record) {
  const uint64_t slot = record + kTraceHeaderSlots;
  const char* base = sink.window[slot / sink.slots_per_window].load(std::memory_order_acquire);
  if (!base) return 0;
  return __atomic_load_n(reinterpret_cast<const uint64_t*>(base + (slot % sink.slots_per_window) * kTraceRecordSize),
                         __ATOMIC_ACQUIRE);
}

void unmap_all() {
  for (uint64_t w = 0; w < kMaxWindows; ++w) {
    if (char* p = sink.window[w].load(std::memory_order_relaxed)) munmap(p, sink.window_bytes);
    sink.window[w].store(nullptr, std::memory_order_relaxed);
  }
  sink.mapped_windows = 0;
}

// Creates the file at sink.path, writes its header and maps the first window.
// Async-signal-safe: also the way in of a first record and of the fork child.
// 0 or an errno value. Leaves `open`, `writers` and `grow_lock` to the caller.
int open_sink(int pid) {
  const int fd = open(sink.path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  trace_file_header h;
  memset(&h, 0, sizeof h);
  memcpy(h.magic, kTraceMagic, sizeof h.magic);
  h.version = kTraceVersion;
  h.record_size = kTraceRecordSize;
  h.header_size = kTraceHeaderSize;
  h.pid = pid;
  memcpy(h.app_name, sink.app_name, sizeof h.app_name);
  if (pwrite(fd, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) {
    const int err = errno ? errno : EIO;
    close(fd);
    return err;
  }
  sink.fd = fd;
  sink.next_slot.store(0, std::memory_order_relaxed);
  sink.grow_failed.store(0, std::memory_order_relaxed);
  sink.grow_errno.store(0, std::memory_order_relaxed);
  sink.dropped.store(0, std::memory_order_relaxed);
  sink.mapped_windows = 0;
  if (!map_next_window()) {
    const int err = sink.grow_errno.load(std::memory_order_relaxed);
    close(fd);
    return err;
  }
  return 0;
}

// The first record of a sink whose file is not made yet (kPending) makes it:
// one thread, with every signal blocked, under grow_lock, as for growth. The
// state after: kOpen, or kClosed when the file cannot be made (said once) or
// sve_exit came first.
int open_pending() {
  for (;;) {
    const int state = sink.open.load();
    if (state != kPending) return state;
    if (sink.grow_lock.load(std::memory_order_relaxed) != 0) {
      sched_yield();
      continue;
    }
    const int saved_errno = errno;
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    int expected = 0;
    if (sink.grow_lock.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
      if (sink.open.load() == kPending) {
        if (open_sink(sink.pid) != 0) {
          sink.open.store(kClosed);
          write_stderr("quern: cannot create the trace file ", sink.path, "; records are not traced\n");
        } else {
          int was = kPending;
          if (!sink.open.compare_exchange_strong(was, kOpen)) {
            // sve_exit closed the sink meanwhile: nothing was recorded.
            unmap_all();
            close(sink.fd);
            unlink(sink.path);
          }
        }
      }
      sink.grow_lock.store(0, std::memory_order_release);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = saved_errno;
  }
}

// Signals stay blocked across fork, so that no handler in the child can trace
// into the parent's file before the child handler has moved it to its own.
// Initial-exec TLS: no allocation on first use.
__attribute__((tls_model("initial-exec"))) thread_local sigset_t t_mask_before_fork;

void before_fork() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &t_mask_before_fork);
}

void after_fork_in_parent() { pthread_sigmask(SIG_SETMASK, &t_mask_before_fork, nullptr); }

// The child's file is made by its first record, like any default-named file:
// a child that only execs another program leaves none.
void reopen_in_child() {
  const int state = sink.open.load(std::memory_order_relaxed);
  if (state == kClosed) return;
  sink.open.store(kClosed);
  // Even a pending sink may have windows: another thread of the parent can
  // have been making the file when this one forked.
  unmap_all();
  if (state == kOpen) close(sink.fd);
  // Only this thread goes on in the child: whatever others held is free.
  sink.writers.store(0, std::memory_order_relaxed);
  sink.grow_lock.store(0, std::memory_order_relaxed);
  sink.pid = static_cast<int>(getpid());
  if (!make_path(sink.pid, true)) {
    write_stderr("quern: trace file name too long in the forked child: ", sink.stem, "; the child is not traced\n");
    return;
  }
  sink.open.store(kPending);
}

void after_fork_in_child() {
  reopen_in_child();
  pthread_sigmask(SIG_SETMASK, &t_mask_before_fork, nullptr);
}

uint64_t gcd(uint64_t a, uint64_t b) {
  while (b) {
    const uint64_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

uint64_t choose_window_bytes() {
  long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) page = 4096;
  const uint64_t unit =
      kTraceRecordSize / gcd(kTraceRecordSize, static_cast<uint64_t>(page)) * static_cast<uint64_t>(page);
  uint64_t want = kDefaultWindowBytes;
  if (const char* env = getenv("QUERN_TRACE_WINDOW")) {
    char* end = nullptr;
    const unsigned long long v = strtoull(env, &end, 10);
    if (end != env && *end == '\0' && v > 0) want = v < kMaxWindowBytes ? v : kMaxWindowBytes;
  }
  const uint64_t n = (want + unit - 1) / unit;
  return (n ? n : 1) * unit;
}

// Stores one record in its slot: body first, count last.
void put(const sve_mem_ref_t& ref) {
  const uint64_t record = sink.next_slot.fetch_add(1, std::memory_order_relaxed);
  if (record >= sink.max_records) {
    sink.dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const uint64_t slot = record + kTraceHeaderSlots;
  char* base = window_for(slot / sink.slots_per_window);
  if (!base) {
    sink.dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  char* p = base + (slot % sink.slots_per_window) * kTraceRecordSize;
  // Field by field, so that the padding after `access` is written as zero
  // rather than copied from the caller's stack.
  sve_mem_ref_t body{};
  body.tid = ref.tid;
  body.position = ref.position;
  body.access = ref.access;
  body.size = ref.size;
  body.vaddr = ref.vaddr;
  body.paddr = ref.paddr;
  body.pc = ref.pc;
  memcpy(p + sizeof body.count, reinterpret_cast<const char*>(&body) + sizeof body.count,
         sizeof body - sizeof body.count);
  // The last slot of a window grows the file before its record counts: a
  // file left by a killed program then always ends in unused slots, which is
  // how readers tell it from one that sve_exit cut to its records.
  if (slot % sink.slots_per_window == sink.slots_per_window - 1) window_for(slot / sink.slots_per_window + 1);
  __atomic_store_n(reinterpret_cast<uint64_t*>(p), ref.count, __ATOMIC_RELEASE);
}

}  // namespace

bool sve_init(const char* options, const char* app_name) {
  (void)options;
  if (sink.open.load() != kClosed) return true;
  if (sink.wedged) {
    fprintf(stderr, "quern: the trace sink could not be closed cleanly before; not reopening it\n");
    return false;
  }
  sink.window_bytes = choose_window_bytes();
  sink.slots_per_window = sink.window_bytes / kTraceRecordSize;
  sink.max_records = kMaxWindows * sink.slots_per_window - kTraceHeaderSlots;

  const char* base = app_name && *app_name ? app_name : "app";
  if (const char* slash = strrchr(base, '/')) base = slash[1] ? slash + 1 : "app";
  memset(sink.app_name, 0, sizeof sink.app_name);
  strncpy(sink.app_name, base, sizeof sink.app_name - 1);

  const char* env = getenv("QUERN_TRACE_FILE");
  sink.name_from_env = env && *env;
  size_t len = 0;
  sink.stem[0] = '\0';
  bool ok;
  if (sink.name_from_env) {
    ok = append(sink.stem, sizeof sink.stem, len, env);
  } else {
    // Absolute, so that a forked child's file lands beside this one even if
    // the program changes directory in between.
    char cwd[kPathCap];
    ok = (getcwd(cwd, sizeof cwd)
              ? append(sink.stem, sizeof sink.stem, len, cwd) && append(sink.stem, sizeof sink.stem, len, "/")
              : true) &&
         append(sink.stem, sizeof sink.stem, len, base);
  }
  sink.pid = static_cast<int>(getpid());
  if (!ok || !make_path(sink.pid, false)) {
    fprintf(stderr, "quern: trace file name too long: %s\n", sink.name_from_env ? env : base);
    return false;
  }
  if (!g_atfork_registered.exchange(1)) pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
  sink.writers.store(0, std::memory_order_relaxed);
  sink.grow_lock.store(0, std::memory_order_relaxed);
  if (!sink.keep_empty) {
    sink.open.store(kPending);
    return true;
  }
  if (const int err = open_sink(sink.pid)) {
    fprintf(stderr, "quern: cannot create the trace file %s: %s\n", sink.path, strerror(err));
    return false;
  }
  sink.open.store(kOpen);
  return true;
}

void sve_exit() {
  if (sink.open.exchange(kClosed) != kOpen) return;
  // Wait for calls already past the flag; a writer only ever holds us up for
  // the length of a copy, or of one window's growth.
  for (int i = 0; i < 20000 && sink.writers.load() != 0; ++i) {
    struct timespec ts = {0, 100000};
    nanosleep(&ts, nullptr);
  }
  const bool drained = sink.writers.load() == 0;
  const uint64_t mapped_slots = sink.mapped_windows * sink.slots_per_window;
  const uint64_t mapped_records = mapped_slots > kTraceHeaderSlots ? mapped_slots - kTraceHeaderSlots : 0;
  uint64_t end = sink.next_slot.load();
  if (end > mapped_records) end = mapped_records;
  while (end > 0 && slot_count(end - 1) == 0) --end;
  for (uint64_t w = 0; w < sink.mapped_windows; ++w)
    msync(sink.window[w].load(std::memory_order_relaxed), sink.window_bytes, MS_SYNC);
  if (const uint64_t dropped = sink.dropped.load()) {
    const int err = sink.grow_errno.load();
    fprintf(stderr, "quern: %llu trace records dropped: %s\n", static_cast<unsigned long long>(dropped),
            err ? strerror(err) : "the trace file reached its size limit");
  }
  if (!drained) {
    // Someone is stuck inside trace_mem: leave its window mapped and the file
    // at full size (readers ignore the zero tail), and never reopen.
    sink.wedged = true;
    fprintf(stderr, "quern: trace writers still busy at exit; %s left untruncated\n", sink.path);
    close(sink.fd);
    return;
  }
  unmap_all();
  if (end == 0 && !sink.keep_empty && sink.dropped.load() == 0) {
    close(sink.fd);
    if (unlink(sink.path) != 0)
      fprintf(stderr, "quern: cannot remove the empty trace file %s: %s\n", sink.path, strerror(errno));
    return;
  }
  if (ftruncate(sink.fd, static_cast<off_t>((end + kTraceHeaderSlots) * kTraceRecordSize)) != 0)
    fprintf(stderr, "quern: cannot truncate the trace file %s: %s\n", sink.path, strerror(errno));
  close(sink.fd);
}

void trace_mem(const sve_mem_ref_t& ref) {
  sink.writers.fetch_add(1);
  int state = sink.open.load();
  if (state == kPending) state = open_pending();
  if (state == kOpen) put(ref);
  sink.writers.fetch_sub(1, std::memory_order_release);
}

uint64_t incr_count() { return g_count.fetch_add(1, std::memory_order_relaxed) + 1; }
