// The framework's instruction lists: what the block pass builds, what the
// encoder turns into machine code and what the fallback interpreter carries
// out on a signal context. Everything is allocated from a per-thread arena, so
// that a pass can run inside the SIGILL handler without malloc.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/dr_api.h"

// Framework-internal operations that share the list with real instructions.
enum {
  OP_quern_call = OP_LAST + 1,   // a clean call: callee and immediate arguments
  OP_quern_emulation_start,      // markers: no code
  OP_quern_emulation_end,
};

constexpr int kMaxCallArgs = 4;

struct instr_t {
  int opcode;
  uint8_t ndst, nsrc;
  bool app;               // an application instruction (as opposed to one the pass added)
  bool raw_valid;
  opnd_t dst[2];
  opnd_t src[5];
  uint32_t raw;           // the word of a raw (application) instruction
  app_pc pc;              // application address of a raw instruction
  app_pc translation;     // the application address this instruction stands for
  void* callee;           // OP_quern_call
  dr_cleancall_save_t save;   // OP_quern_call: what the call keeps by itself
  uint32_t keep_simd;         // OP_quern_call with DR_CLEANCALL_SAVE_NONE: Q registers it keeps still
  instr_t* prev;
  instr_t* next;
};

struct instrlist_t {
  instr_t* first;
  instr_t* last;
};

// A bump allocator over a fixed region. Reset before each pass.
struct arena_t {
  unsigned char* base;
  size_t size;
  size_t used;
};

void* arena_alloc(arena_t* a, size_t bytes);

// The arena of a drcontext (the per-thread block).
arena_t* drcontext_arena(void* drcontext);

instrlist_t* instrlist_create(void* drcontext);
void instrlist_append(instrlist_t* ilist, instr_t* instr);
// An application instruction of the block: the raw word at `pc`.
instr_t* instr_create_app(void* drcontext, app_pc pc);
// Decodes enough of an application word to recognise MSR to FPCR/FPSR/NZCV.
void instr_decode_app(instr_t* instr, uint32_t word);
// Number of instructions in the list.
unsigned instrlist_length(const instrlist_t* ilist);
