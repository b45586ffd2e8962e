// quern: the command-line face of the emulator.
//
//   quern decode WORD...             what each instruction word decodes to
//   quern decode --operands WORD...  the same, with the operands its adapter extracts
//   quern decode --coverage          how many rows of the decode table have their operation
//   quern run ... -- PROGRAM ARGS    run a program with its SVE instructions emulated
//   quern trace dump|stats FILE      a memory trace file, as CSV or summed up
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "sve/dispatch/decode.h"
#include "tools/quern/run_cmd.h"
#include "tools/quern/trace_cmd.h"

namespace {

const char kUsage[] =
    "usage: quern decode [--operands] WORD...   (hexadecimal instruction words)\n"
    "       quern decode --coverage\n"
    "       quern run [options] -- PROGRAM [ARGS...]   (run a program with its SVE emulated)\n"
    "       quern trace dump FILE        (a memory trace, as CSV)\n"
    "       quern trace stats FILE       (a summary of a memory trace)\n";

int usage_error(const char* what) {
  fprintf(stderr, "quern: %s\n%s", what, kUsage);
  return 2;
}

// A 32-bit hexadecimal word, with or without 0x; nothing else.
bool parse_word(const char* text, uint32_t& word) {
  const char* p = text;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  if (*p == '\0' || strlen(p) > 8) return false;
  for (const char* q = p; *q; ++q)
    if (!isxdigit(static_cast<unsigned char>(*q))) return false;
  word = static_cast<uint32_t>(strtoul(p, nullptr, 16));
  return true;
}

void print_operand(void* context, const char* token, uint64_t value) {
  (void)context;
  // Expanded immediates are bit patterns; show them as such.
  if (!strcmp(token, "bitmask") || !strncmp(token, "fpimm8", 6))
    printf(" %s=0x%" PRIx64, token, value);
  else
    printf(" %s=%" PRId64, token, static_cast<int64_t>(value));
}

int decode_words(int argc, char** argv, bool operands) {
  if (argc == 0) return usage_error("no instruction word given");
  for (int i = 0; i < argc; ++i) {
    uint32_t w;
    if (!parse_word(argv[i], w)) {
      fprintf(stderr, "quern: not a hexadecimal instruction word: %s\n", argv[i]);
      return 2;
    }
  }
  for (int i = 0; i < argc; ++i) {
    uint32_t w = 0;
    parse_word(argv[i], w);
    const decode_row* r = find_decode_row(w);
    if (!r) {
      printf("0x%08x not an emulated instruction\n", w);
      continue;
    }
    if (operands) {
      printf("0x%08x %s", w, r->adapter);
      operand_sink sink{&print_operand, nullptr};
      operand_describers[r - decode_rows](w, sink);
      printf("\n");
      continue;
    }
    const decode_map_info& m = decode_maps[r->map];
    printf("0x%08x %-36s key=0x%-8x %-26s %s%s\n", w, m.name, decode_map_key(m, w), r->adapter, r->road,
           row_implemented(*r) ? "" : "  (not implemented yet)");
  }
  return 0;
}

int coverage() {
  struct tally { unsigned done = 0, pending = 0; };
  std::map<std::string, tally> by_subsystem;
  unsigned done = 0;
  for (const decode_row& r : decode_rows) {
    tally& t = by_subsystem[r.subsystem];
    if (row_implemented(r)) {
      ++t.done;
      ++done;
    } else {
      ++t.pending;
    }
  }
  printf("%-10s %12s %14s\n", "subsystem", "implemented", "unimplemented");
  for (const auto& [name, t] : by_subsystem) printf("%-10s %12u %14u\n", name.c_str(), t.done, t.pending);
  printf("%u of %u rows implemented\n", done, kDecodeRows);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage_error("no command given");
  const std::string verb = argv[1];
  if (verb == "-h" || verb == "--help" || verb == "help") {
    fputs(kUsage, stdout);
    return 0;
  }
  if (verb == "trace") return trace_main(argc - 1, argv + 1);
  if (verb == "run") return run_main(argc - 1, argv + 1);
  if (verb != "decode") return usage_error(("unknown command: " + verb).c_str());
  if (argc >= 3 && !strcmp(argv[2], "--coverage")) {
    if (argc != 3) return usage_error("--coverage takes no words");
    return coverage();
  }
  if (argc >= 3 && !strcmp(argv[2], "--operands")) return decode_words(argc - 3, argv + 3, true);
  if (argc >= 3 && argv[2][0] == '-' && !isxdigit(static_cast<unsigned char>(argv[2][1])))
    return usage_error((std::string("unknown option: ") + argv[2]).c_str());
  return decode_words(argc - 2, argv + 2, false);
}
