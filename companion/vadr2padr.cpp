// libquern_sve_vadr2padr: virtual to physical addresses, through the kernel's
// page map of the calling process.
//
// /proc/self/pagemap holds one 64-bit entry per virtual page: bit 63 "present",
// bits 54..0 the page frame number. The frame number reads as 0 unless the
// process has CAP_SYS_ADMIN; then, and for pages not present, the address is
// returned as it is, which keeps records comparable between runs.
//
// virtual2physical is called for every traced element, also from a signal
// handler, so it only does an atomic load and one pread: the file is opened at
// the first call (a CAS decides which of racing openers keeps its descriptor).
// After fork the inherited descriptor still describes the parent (/proc/self
// was resolved at open), so a pthread_atfork child handler drops it and the
// child opens its own at its first call.
//
// Under qemu-user the file is the emulator's own page map; the answer is right
// only where guest and host addresses coincide.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#pragma GCC visibility push(default)
#include "sve/memory/sve_mem_ref.h"
#pragma GCC visibility pop

namespace {

constexpr int kNotOpened = -2;
constexpr int kUnavailable = -1;
constexpr uint64_t kPresent = uint64_t{1} << 63;
constexpr uint64_t kPfnMask = (uint64_t{1} << 55) - 1;

std::atomic<int> g_pagemap{kNotOpened};
std::atomic<uint64_t> g_page_size{0};

void after_fork_in_child() {
  const int fd = g_pagemap.exchange(kNotOpened);
  if (fd >= 0) close(fd);
}

// At load: the page size, and the fork handler. Both also work if a caller
// comes before this (the size is then found at the first call).
__attribute__((constructor)) void at_load() {
  const long page = sysconf(_SC_PAGESIZE);
  if (page > 0) g_page_size.store(static_cast<uint64_t>(page), std::memory_order_relaxed);
  pthread_atfork(nullptr, nullptr, after_fork_in_child);
}

int pagemap_fd() {
  int fd = g_pagemap.load(std::memory_order_acquire);
  if (fd != kNotOpened) return fd;
  int mine = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
  if (mine < 0) mine = kUnavailable;
  int expected = kNotOpened;
  if (g_pagemap.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) return mine;
  if (mine >= 0) close(mine);
  return expected;
}

}  // namespace

uint64_t virtual2physical(uint64_t vaddr) {
  uint64_t page = g_page_size.load(std::memory_order_relaxed);
  if (page == 0) {
    const long p = sysconf(_SC_PAGESIZE);
    if (p <= 0) return vaddr;
    page = static_cast<uint64_t>(p);
    g_page_size.store(page, std::memory_order_relaxed);
  }
  const int fd = pagemap_fd();
  if (fd < 0) return vaddr;
  const int saved_errno = errno;  // a signal handler's caller must not see ours
  uint64_t entry = 0;
  const ssize_t n = pread(fd, &entry, sizeof entry, static_cast<off_t>(vaddr / page * sizeof entry));
  errno = saved_errno;
  if (n != static_cast<ssize_t>(sizeof entry) || !(entry & kPresent)) return vaddr;
  const uint64_t pfn = entry & kPfnMask;
  if (pfn == 0) return vaddr;
  return pfn * page + vaddr % page;
}
