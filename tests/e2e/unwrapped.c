// A thread that the framework did not see being created (made through the C
// library's own pthread_create, not the one the framework wraps) reaches an
// instruction that another thread has already had rewritten: it must be given
// its block on the way in, not crash.
#include <dlfcn.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

__attribute__((noinline)) static void add_one(uint64_t lanes[2]) {
  __asm__ volatile(
      "ldr q0, [%0]\n"
      ".inst 0x25e0c020\n"   // add z0.d, z0.d, #1
      "str q0, [%0]\n"
      : : "r"(lanes) : "v0", "memory");
}

static void* body(void* arg) {
  uint64_t* lanes = arg;
  for (int i = 0; i < 5; ++i) add_one(lanes);
  return NULL;
}

typedef int (*create_fn)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int main(void) {
  uint64_t mine[2] = {0, 100};
  add_one(mine);   // rewritten here, on the main thread

  void* libc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
  create_fn create = libc ? (create_fn)dlsym(libc, "pthread_create") : NULL;
  if (!create) {
    printf("no pthread_create in libc.so.6\n");
    return 2;
  }
  uint64_t theirs[2] = {1000, 2000};
  pthread_t t;
  if (create(&t, NULL, body, theirs) != 0) return 3;
  pthread_join(t, NULL);
  add_one(mine);
  printf("main: %llu %llu\n", (unsigned long long)mine[0], (unsigned long long)mine[1]);
  printf("thread: %llu %llu\n", (unsigned long long)theirs[0], (unsigned long long)theirs[1]);
  return mine[0] == 2 && mine[1] == 102 && theirs[0] == 1005 && theirs[1] == 2005 ? 0 : 1;
}
