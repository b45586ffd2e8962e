/* Code written at run time into a page that stays writable, as some JITs keep
 * it, with an SVE word in it: once the word has been rewritten the page must
 * still be writable, and the code still right. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
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
  printf("%llu %llu\n", (unsigned long long)lanes[0], (unsigned long long)lanes[1]);
  return lanes[0] == 7 && lanes[1] == 8 ? 0 : 1;
}
