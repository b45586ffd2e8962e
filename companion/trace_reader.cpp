#include "companion/trace_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

struct fd_guard {
  int fd;
  ~fd_guard() {
    if (fd >= 0) close(fd);
  }
};

// Reads exactly `len` bytes at `off`; false with `error` set otherwise.
bool read_at(int fd, void* buf, size_t len, uint64_t off, std::string& error) {
  char* p = static_cast<char*>(buf);
  while (len) {
    const ssize_t n = pread(fd, p, len, static_cast<off_t>(off));
    if (n < 0) {
      if (errno == EINTR) continue;
      error = std::string("cannot read: ") + strerror(errno);
      return false;
    }
    if (n == 0) {
      error = "file shrank while being read";
      return false;
    }
    p += n;
    off += static_cast<uint64_t>(n);
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool all_zero(const char* p, size_t len) {
  for (size_t i = 0; i < len; ++i)
    if (p[i]) return false;
  return true;
}

bool check_header(int fd, trace_scan_info& info, std::string& error) {
  const uint64_t size = info.file_size;
  if (size == 0) {
    error = "empty file, not a quern trace";
    return false;
  }
  char raw[kTraceHeaderSize] = {};
  const size_t have = size < kTraceHeaderSize ? static_cast<size_t>(size) : kTraceHeaderSize;
  if (!read_at(fd, raw, have, 0, error)) return false;
  const size_t magic_have = have < sizeof kTraceMagic ? have : sizeof kTraceMagic;
  if (memcmp(raw, kTraceMagic, magic_have) != 0) {
    error = "not a quern trace file (bad magic)";
    return false;
  }
  if (have < kTraceHeaderSize) {
    error = "truncated header: " + std::to_string(have) + " of " + std::to_string(kTraceHeaderSize) + " bytes";
    return false;
  }
  memcpy(&info.header, raw, sizeof info.header);
  const trace_file_header& h = info.header;
  if (h.version != kTraceVersion) {
    error =
        "unsupported trace version " + std::to_string(h.version) + " (expected " + std::to_string(kTraceVersion) + ")";
    return false;
  }
  if (h.record_size != kTraceRecordSize) {
    error = "unsupported record size " + std::to_string(h.record_size) + " (expected " +
            std::to_string(kTraceRecordSize) + ")";
    return false;
  }
  if (h.header_size != kTraceHeaderSize) {
    error = "unsupported header size " + std::to_string(h.header_size) + " (expected " +
            std::to_string(kTraceHeaderSize) + ")";
    return false;
  }
  return true;
}

}  // namespace

bool trace_scan(const char* path, trace_scan_info& info, std::string& error,
                const std::function<void(const sve_mem_ref_t&)>& each) {
  info = trace_scan_info{};
  fd_guard f{open(path, O_RDONLY | O_CLOEXEC)};
  if (f.fd < 0) {
    error = strerror(errno);
    return false;
  }
  struct stat st;
  if (fstat(f.fd, &st) != 0) {
    error = std::string("cannot stat: ") + strerror(errno);
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    error = "is a directory";
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    error = "not a regular file";
    return false;
  }
  info.file_size = static_cast<uint64_t>(st.st_size);
  if (!check_header(f.fd, info, error)) return false;

  const uint64_t body = info.file_size - kTraceHeaderSize;
  info.slots = body / kTraceRecordSize;
  // A part-slot at the end is only acceptable when it is zero: the unwritten
  // rest of a slot. Anything else is a record cut short.
  const size_t partial = static_cast<size_t>(body % kTraceRecordSize);
  if (partial) {
    char tail[kTraceRecordSize];
    if (!read_at(f.fd, tail, partial, info.file_size - partial, error)) return false;
    if (!all_zero(tail, partial)) {
      error = "truncated: the last record has " + std::to_string(partial) + " of " + std::to_string(kTraceRecordSize) +
              " bytes";
      return false;
    }
    info.partial_tail_bytes = partial;
  }

  constexpr uint64_t kBatch = 4096;
  std::vector<sve_mem_ref_t> buf(kBatch);
  uint64_t pending_empty = 0;
  for (uint64_t done = 0; done < info.slots;) {
    const uint64_t n = info.slots - done < kBatch ? info.slots - done : kBatch;
    if (!read_at(f.fd, buf.data(), n * kTraceRecordSize, kTraceHeaderSize + done * kTraceRecordSize, error))
      return false;
    for (uint64_t i = 0; i < n; ++i) {
      if (buf[i].count == 0) {
        ++pending_empty;
        continue;
      }
      info.holes += pending_empty;
      pending_empty = 0;
      ++info.records;
      each(buf[i]);
    }
    done += n;
  }
  info.unused_tail = pending_empty;
  return true;
}

bool trace_load(const char* path, trace_contents& out, std::string& error) {
  out.records.clear();
  return trace_scan(path, out.info, error, [&](const sve_mem_ref_t& r) { out.records.push_back(r); });
}
