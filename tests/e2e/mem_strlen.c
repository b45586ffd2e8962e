// A strlen written with first-fault loads (ACLE): each pass loads a whole
// vector from the string, also past its end, and first-fault loading stops at
// the first byte it cannot read instead of faulting. The strings are placed so
// that their terminator is at every distance from the end of a readable page
// that an unmapped page follows: the loads run into that page.
#include <arm_sve.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

__attribute__((noipa)) static size_t sve_strlen(const char* s) {
  const uint8_t* p = (const uint8_t*)s;
  const svbool_t all = svptrue_b8();
  size_t i = 0;
  for (;;) {
    svsetffr();
    const svuint8_t v = svldff1_u8(all, p + i);
    const svbool_t ok = svrdffr_z(all);
    const svbool_t zero = svcmpeq_n_u8(ok, v, 0);
    if (svptest_any(ok, zero)) return i + svcntp_b8(ok, svbrkb_z(ok, zero));
    i += svcntp_b8(all, ok);
  }
}

int main(void) {
  const long page = sysconf(_SC_PAGESIZE);
  char* area = mmap(NULL, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) return 2;
  if (munmap(area + 2 * page, page) != 0) return 3;   // the third page: unmapped
  char* end = area + 2 * page;                         // first byte that cannot be read
  memset(area, 'a', 2 * page);
  unsigned long total = 0;
  int bad = 0;
  for (long len = 0; len < 300; ++len) {
    // The terminator is the last readable byte, then 1, 2, ... bytes before it.
    for (long gap = 0; gap < 3; ++gap) {
      char* s = end - 1 - gap - len;
      s[len] = 0;
      const size_t got = sve_strlen(s);
      if (got != (size_t)len) {
        printf("len %ld gap %ld: got %zu\n", len, gap, got);
        ++bad;
      }
      total += got;
      s[len] = 'a';
    }
  }
  // Strings far from the end as well, at every alignment.
  for (long off = 0; off < 64; ++off) {
    char* s = area + off;
    s[100 + off] = 0;
    total += sve_strlen(s);
    s[100 + off] = 'a';
  }
  printf("total %lu, %d wrong\n", total, bad);
  return bad != 0;
}
