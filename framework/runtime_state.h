// What the framework knows of the process: the client's registrations, the
// program's own SIGILL action, and the settings given by the launcher.
#pragma once

#include <pthread.h>
#include <signal.h>

#include "framework/dr_api.h"

using sigaction_fn = int (*)(int, const struct sigaction*, struct sigaction*);
using pthread_create_fn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
using pthread_sigmask_fn = int (*)(int, const sigset_t*, sigset_t*);

struct runtime_state {
  bb_app2app_fn passes[4];
  int n_passes;
  void (*thread_init[4])(void*);
  int n_thread_init;
  void (*thread_exit[4])(void*);
  int n_thread_exit;
  void (*exit[4])();
  int n_exit;
  int n_tls_fields;

  struct sigaction app_sigill;   // what the program asked for SIGILL
  sigaction_fn real_sigaction;
  pthread_create_fn real_pthread_create;
  pthread_sigmask_fn real_pthread_sigmask;

  long tls_offset;               // of the block pointer from TPIDR_EL0
  int preserved_field;           // TLS field whose record signal handlers must not change...
  size_t preserved_size;         // ...of this many bytes; 0: none
  bool force_fallback;           // QUERN_FALLBACK=1: never generate code
  unsigned log_level;            // QUERN_LOG_LEVEL
  int log_fd;                    // QUERN_LOG_FILE, else standard error
  const char* client_name;
  int client_argc;
  const char* client_argv[64];
};

extern runtime_state rt;

struct quern_thread;
// The calling thread's block, or null if it has none yet.
quern_thread* current_block();

// Hands a genuine illegal instruction to the program's own SIGILL action, or
// lets it end the process.
void deliver_sigill(int sig, siginfo_t* info, void* uc);

// Reads QUERN_LOG_LEVEL, QUERN_LOG_FILE, QUERN_FALLBACK and QUERN_CLIENT_OPTIONS.
void runtime_read_environment();
