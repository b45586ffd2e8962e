// Emulated instructions in the positions control flow gives them (flow.S),
// in shared libraries, linked and opened at run time, and on both sides of a
// fork. Prints every result;
// exits 1 if one differs from what the instructions should give.
//
//   e2e_flow [LOOP_TURNS]     (default 3000)
#include <dlfcn.h>
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "e2e.h"

void adjacent(const uint8_t in[32], uint8_t out[48]);
uint64_t branches(long x, uint8_t q[16]);
void fall_through(uint8_t q[16]);
void loop(uint8_t q[32], long n);
void many(uint8_t q[16]);
void pcrel(uint64_t out[3]);
extern const char pcrel_target[];
void page_edge(uint8_t q[16]);
void flowlib_linked(uint8_t q[16]);
void fork_words(uint8_t q[16]);

static int failures;

static void check(const char* what, const uint8_t* got, const uint8_t* want) {
  e2e_print_q(what, got);
  if (memcmp(got, want, 16)) {
    e2e_print_q("  MISMATCH, want", want);
    ++failures;
  }
}

static void fill(uint8_t* q, size_t n, unsigned seed) {
  for (size_t i = 0; i < n; ++i) q[i] = i % 7 == 0 ? 0xFF : (uint8_t)(seed + i * 29);
}

// The paths branches() takes for x, as C sees the same conditions.
static uint64_t expected_paths(long x) {
  uint64_t bits = 0x200;
  long sum;
  if (x != 0) bits |= 0x1;
  if (x == 1) bits |= 0x2;
  if (x != 0) bits |= 0x4;
  if (x == 0) bits |= 0x8;
  if (!((uint64_t)x & 2)) bits |= 0x10;
  if (x < 0) bits |= 0x20;
  if ((uint64_t)x != UINT64_MAX) bits |= 0x40;   // no carry out of x + 1
  if (__builtin_add_overflow(x, x, &sum)) bits |= 0x80;
  if (x <= 2) bits |= 0x100;
  return bits;
}

int main(int argc, char** argv) {
  const long turns = argc > 1 ? atol(argv[1]) : 3000;
  uint8_t q[48], want[48];

  // Adjacent words.
  uint8_t in[32], out[48];
  fill(in, sizeof in, 3);
  adjacent(in, out);
  e2e_lanes_imm(want, in, 3, 4, 0);
  e2e_lanes(want + 16, want, want, 4, 0);
  e2e_lanes(want + 32, want + 16, in + 16, 4, 1);
  e2e_lanes(want + 32, want + 32, want + 32, 4, 0);
  check("adjacent z1", out, want);
  check("adjacent z2", out + 16, want + 16);
  check("adjacent z3", out + 32, want + 32);

  // Branches right behind emulated words.
  static const long xs[] = {0, 1, 2, 3, -1, -2, INT64_MIN, INT64_MAX, 0x4000000000000000L};
  for (size_t i = 0; i < sizeof xs / sizeof xs[0]; ++i) {
    fill(q, 16, (unsigned)i);
    const uint64_t paths = branches(xs[i], q);
    printf("branches(%ld) = 0x%03" PRIx64 "\n", xs[i], paths);
    if (paths != expected_paths(xs[i])) {
      printf("  MISMATCH, want 0x%03" PRIx64 "\n", expected_paths(xs[i]));
      ++failures;
    }
    fill(want, 16, (unsigned)i);
    e2e_lanes_imm(want, want, 16, 8, 0);   // the 16 words on every path
    check("  words executed", q, want);
  }

  // Last word of a function, falling through into the next one.
  fill(q, 16, 40);
  fall_through(q);
  fill(want, 16, 40);
  e2e_lanes_imm(want, want, 111, 8, 0);
  check("fall through", q, want);

  // A loop.
  fill(q, 32, 50);
  loop(q, turns);
  fill(want, 32, 50);
  for (long t = 0; t < turns; ++t) {
    e2e_lanes_imm(want, want, 1, 8, 0);
    e2e_lanes(want + 16, want + 16, want, 8, 1);
  }
  printf("loop of %ld turns\n", turns);
  check("loop z4", q, want);
  check("loop z5", q + 16, want + 16);

  // Many words in a row.
  fill(q, 16, 60);
  many(q);
  fill(want, 16, 60);
  e2e_lanes_imm(want, want, 300, 8, 0);
  for (int i = 0; i < 50; ++i) {
    e2e_lanes_imm(want, want, 3, 1, 0);
    e2e_lanes_imm(want, want, 2, 2, 1);
  }
  check("many", q, want);

  // PC-relative instructions right behind emulated words.
  uint64_t addrs[3];
  pcrel(addrs);
  const uint64_t target = (uint64_t)(uintptr_t)pcrel_target;
  const int pc_ok = addrs[0] == target && addrs[1] == 0x1122334455667788ull && addrs[2] == target;
  printf("pcrel: adr %s, literal 0x%016" PRIx64 ", adrp %s\n", addrs[0] == target ? "ok" : "WRONG", addrs[1],
         addrs[2] == target ? "ok" : "WRONG");
  if (!pc_ok) ++failures;

  // Words on both sides of a page boundary.
  fill(q, 16, 70);
  page_edge(q);
  fill(want, 16, 70);
  e2e_lanes_imm(want, want, 7, 8, 0);
  check("page edge", q, want);

  // Shared libraries: linked, and opened now.
  fill(q, 16, 80);
  flowlib_linked(q);
  fill(want, 16, 80);
  e2e_lanes_imm(want, want, 5, 4, 0);
  check("linked library", q, want);
  void* lib = dlopen("libe2e_flowdl.so", RTLD_NOW);
  void (*opened)(uint8_t*) = lib ? (void (*)(uint8_t*))dlsym(lib, "flowlib_opened") : NULL;
  if (!opened) {
    printf("dlopen: %s\n", dlerror());
    ++failures;
  } else {
    fill(q, 16, 90);
    opened(q);
    opened(q);
    fill(want, 16, 90);
    e2e_lanes_imm(want, want, 10, 4, 0);
    check("opened library", q, want);
  }

  // A child process: words its parent has executed, and one it has not.
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    fill(q, 16, 100);
    many(q);
    fork_words(q);
    fill(want, 16, 100);
    e2e_lanes_imm(want, want, 303, 8, 0);
    for (int i = 0; i < 50; ++i) {
      e2e_lanes_imm(want, want, 3, 1, 0);
      e2e_lanes_imm(want, want, 2, 2, 1);
    }
    check("child of fork", q, want);
    fflush(stdout);
    _exit(failures ? 1 : 0);
  }
  int child_status = -1;
  waitpid(child, &child_status, 0);
  printf("child: %s\n", WIFEXITED(child_status) && WEXITSTATUS(child_status) == 0 ? "ok" : "FAILED");
  if (!WIFEXITED(child_status) || WEXITSTATUS(child_status) != 0) ++failures;
  fill(q, 16, 110);
  fork_words(q);
  fill(want, 16, 110);
  e2e_lanes_imm(want, want, 3, 8, 0);
  check("parent after fork", q, want);

  printf("%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
