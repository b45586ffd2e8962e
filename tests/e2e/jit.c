/* Code written at run time into a page that stays writable, as some JITs keep
 * it, with an SVE word in it: once the word has been rewritten the page must
 * still be writable, and the code still right. Then the JIT turns the page
 * read-only and executable, opens it again for a second function with an SVE
 * word and closes it: the second rewrite must find the page as it is now,
 * and leave it so. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

/* The permissions of the mapping that holds `addr`, as /proc/self/maps shows them. */
static void perms_of(const void* addr, char out[5]) {
  strcpy(out, "?");
  FILE* f = fopen("/proc/self/maps", "r");
  if (!f) return;
  unsigned long lo, hi;
  char perms[5];
  while (fscanf(f, "%lx-%lx %4s%*[^\n]", &lo, &hi, perms) == 3)
    if ((unsigned long)addr >= lo && (unsigned long)addr < hi) {
      strcpy(out, perms);
      break;
    }
  fclose(f);
}

int main(void) {
  uint32_t* code = mmap(NULL, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const uint32_t body[] = {0x3dc00000, /* ldr q0, [x0] */ 0x25e0c020, /* add z0.d, z0.d, #1 */
                           0x3d800000, /* str q0, [x0] */ 0xd65f03c0 /* ret */};
  memcpy(code, body, sizeof body);
  __builtin___clear_cache((char*)code, (char*)(code + 4));
  uint64_t lanes[2] = {5, 6};
  ((void (*)(uint64_t*))code)(lanes);
  code[100] = 0xd65f03c0;   /* the JIT writes on after the rewrite */
  ((void (*)(uint64_t*))code)(lanes);

  mprotect(code, 4096, PROT_READ | PROT_EXEC);
  mprotect(code, 4096, PROT_READ | PROT_WRITE);
  uint32_t* second = code + 16;
  memcpy(second, body, sizeof body);
  second[1] = 0x25e0c040; /* add z0.d, z0.d, #2 */
  mprotect(code, 4096, PROT_READ | PROT_EXEC);
  __builtin___clear_cache((char*)second, (char*)(second + 4));
  ((void (*)(uint64_t*))second)(lanes);
  char perms[5];
  perms_of(code, perms);

  printf("%llu %llu %s\n", (unsigned long long)lanes[0], (unsigned long long)lanes[1], perms);
  return lanes[0] == 9 && lanes[1] == 10 && strncmp(perms, "r-x", 3) == 0 ? 0 : 1;
}
