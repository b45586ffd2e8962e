// quern run: start a program with the framework preloaded and the SVE client
// loaded, so that its SVE instructions are emulated.
//
// On an AArch64 host the program runs directly; on any other host it runs
// under qemu-aarch64 on a processor without SVE. Either way the launcher
// replaces itself with the program (exec), so that the program's output, exit
// status and signals are the launcher's.
#include "tools/quern/run_cmd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifndef QUERN_TARGET_LIBDIR
#define QUERN_TARGET_LIBDIR ""
#endif

namespace {

const char kRunUsage[] =
    "usage: quern run [launcher options] [client options] -- PROGRAM [ARGS...]\n"
    "launcher options:\n"
    "  --log-level N    framework log level (1 shows start-up and exit lines)\n"
    "  --log FILE       where the log goes (default: standard error)\n"
    "  --trace FILE     where the memory trace goes (default: PROGRAM.PID.qtrace,\n"
    "                   kept only if something was traced)\n"
    "  --fallback       emulate from the signal context only, never rewrite code\n"
    "  --runs           adjacent SVE words, with the ordinary integer instructions\n"
    "                   between them, share one register park and one call (default)\n"
    "  --no-runs        one register park and one call per SVE word\n"
    "  --stats          at exit, report the SVE instructions emulated (by mnemonic and\n"
    "                   road), the instructions carried inside runs, the blocks\n"
    "                   rewritten or interpreted and the failures on standard\n"
    "                   error (none if a signal kills the program)\n"
    "  --stats-file FILE  the same, into FILE (each process appends its report)\n"
    "environment: QUERN_LIBDIR (AArch64 libraries), QUERN_QEMU, QUERN_SYSROOT\n";

int run_usage(const std::string& what) {
  fprintf(stderr, "quern run: %s\n%s", what.c_str(), kRunUsage);
  return 2;
}

bool is_file(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The program as execvp would find it, or "" with errno set.
std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    if (access(name.c_str(), F_OK) != 0) return "";
    return name;
  }
  const char* path = getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    const size_t end = dirs.find(':', start);
    std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (dir.empty()) dir = ".";
    const std::string candidate = dir + "/" + name;
    if (is_file(candidate) && access(candidate.c_str(), X_OK) == 0) return candidate;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  errno = ENOENT;
  return "";
}

bool host_is_aarch64() {
  struct utsname u;
  return uname(&u) == 0 && (strcmp(u.machine, "aarch64") == 0 || strcmp(u.machine, "arm64") == 0);
}

// Why `path` cannot be an AArch64 program, or "" if it can: checked before
// anything starts, so that a wrong file gives one line rather than whatever
// the loader or qemu make of it.
std::string not_an_aarch64_program(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return strerror(errno);
  unsigned char h[20] = {};
  const size_t n = fread(h, 1, sizeof h, f);
  fclose(f);
  if (n < sizeof h || memcmp(h, "\x7f" "ELF", 4) != 0) return "not an executable (no ELF header)";
  const unsigned machine = h[5] == 2 ? (h[18] << 8 | h[19]) : (h[18] | h[19] << 8);
  const unsigned type = h[5] == 2 ? (h[16] << 8 | h[17]) : (h[16] | h[17] << 8);
  if (h[4] != 2 || machine != 183) {   // ELFCLASS64, EM_AARCH64
    char what[96];
    snprintf(what, sizeof what, "not an AArch64 executable (ELF machine %u%s)", machine,
             machine == 62 ? ", x86-64" : "");
    return what;
  }
  if (type != 2 && type != 3) return "not an executable (an ELF file of another kind)";   // ET_EXEC, ET_DYN
  return "";
}

std::string library_dir() {
  if (const char* dir = getenv("QUERN_LIBDIR")) return dir;
  return QUERN_TARGET_LIBDIR;
}

}  // namespace

int run_main(int argc, char** argv) {
  std::string log_level, log_file, trace_file, stats;
  bool fallback = false, runs = true;
  std::vector<std::string> client_options;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--") break;
    auto value = [&](std::string& into) {
      if (i + 1 >= argc || !strcmp(argv[i + 1], "--")) return false;
      into = argv[++i];
      return true;
    };
    if (a == "--log-level") {
      if (!value(log_level) || log_level.find_first_not_of("0123456789") != std::string::npos)
        return run_usage("--log-level takes a number");
    } else if (a == "--log") {
      if (!value(log_file)) return run_usage("--log takes a file name");
    } else if (a == "--trace") {
      if (!value(trace_file)) return run_usage("--trace takes a file name");
    } else if (a == "--stats") {
      stats = "-";
    } else if (a == "--stats-file") {
      if (!value(stats)) return run_usage("--stats-file takes a file name");
    } else if (a == "--fallback") {
      fallback = true;
    } else if (a == "--runs") {
      runs = true;
    } else if (a == "--no-runs") {
      runs = false;
    } else if (a == "-h" || a == "--help") {
      fputs(kRunUsage, stdout);
      return 0;
    } else {
      client_options.push_back(a);   // the client judges these
    }
  }
  if (i >= argc || i + 1 >= argc) return run_usage("no program given after --");
  char** program_argv = argv + i + 1;

  const std::string program = find_program(program_argv[0]);
  if (program.empty()) {
    fprintf(stderr, "quern: %s: %s\n", program_argv[0], strerror(errno));
    return 127;
  }
  const std::string bad = not_an_aarch64_program(program);
  if (!bad.empty()) {
    fprintf(stderr, "quern: %s: %s\n", program_argv[0], bad.c_str());
    return 126;
  }
  const std::string libdir = library_dir();
  const std::string framework = libdir + "/libquern_framework.so";
  const std::string client = libdir + "/libquern_sg_sve_384.so";
  if (libdir.empty() || !is_file(framework) || !is_file(client)) {
    fprintf(stderr, "quern: the AArch64 libraries are not in '%s' (build them with 'make aarch64', or set QUERN_LIBDIR)\n",
            libdir.c_str());
    return 127;
  }

  // The report file is made empty now, and named absolutely, so that a
  // program that changes directory still appends to it, and a bad name fails
  // before the program starts.
  if (!stats.empty() && stats != "-") {
    const int fd = open(stats.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
      fprintf(stderr, "quern: %s: %s\n", stats.c_str(), strerror(errno));
      return 2;
    }
    close(fd);
    if (stats[0] != '/') {
      char* dir = getcwd(nullptr, 0);
      if (dir) stats = std::string(dir) + "/" + stats;
      free(dir);
    }
  }

  std::string options;
  for (const std::string& o : client_options) options += (options.empty() ? "" : "\x1f") + o;
  setenv("QUERN_CLIENT", client.c_str(), 1);
  setenv("QUERN_CLIENT_OPTIONS", options.c_str(), 1);
  if (!log_level.empty()) setenv("QUERN_LOG_LEVEL", log_level.c_str(), 1);
  if (!log_file.empty()) setenv("QUERN_LOG_FILE", log_file.c_str(), 1);
  if (!trace_file.empty()) setenv("QUERN_TRACE_FILE", trace_file.c_str(), 1);
  if (fallback) setenv("QUERN_FALLBACK", "1", 1);
  if (!stats.empty()) setenv("QUERN_STATS", stats.c_str(), 1);
  else unsetenv("QUERN_STATS");
  setenv("QUERN_RUNS", runs ? "1" : "0", 1);

  std::vector<const char*> args;
  std::string preload;
  if (host_is_aarch64()) {
    const char* old = getenv("LD_PRELOAD");
    preload = framework + (old && *old ? ":" + std::string(old) : "");
    setenv("LD_PRELOAD", preload.c_str(), 1);
    args.push_back(program.c_str());
    for (char** a = program_argv + 1; *a; ++a) args.push_back(*a);
    args.push_back(nullptr);
    execv(program.c_str(), const_cast<char* const*>(args.data()));
    fprintf(stderr, "quern: %s: %s\n", program.c_str(), strerror(errno));
    return errno == ENOENT ? 127 : 126;
  }

  // Elsewhere: qemu-aarch64 on a processor without SVE. LD_PRELOAD goes to
  // the program only; the rest of the environment reaches it through qemu.
  const char* qemu_env = getenv("QUERN_QEMU");
  const std::string qemu = qemu_env ? qemu_env : "qemu-aarch64";
  const char* sysroot_env = getenv("QUERN_SYSROOT");
  const std::string sysroot = sysroot_env ? sysroot_env : "/usr/aarch64-linux-gnu";
  preload = "LD_PRELOAD=" + framework;
  for (const char* a : {qemu.c_str(), "-cpu", "max,sve=off", "-L", sysroot.c_str(), "-E", preload.c_str(), "-0",
                        static_cast<const char*>(program_argv[0]), program.c_str()})
    args.push_back(a);
  for (char** a = program_argv + 1; *a; ++a) args.push_back(*a);
  args.push_back(nullptr);
  execvp(qemu.c_str(), const_cast<char* const*>(args.data()));
  fprintf(stderr, "quern: cannot start %s: %s (install qemu-user)\n", qemu.c_str(), strerror(errno));
  return 127;
}
