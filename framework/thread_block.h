// The framework's per-thread block. Inside rewritten code X28 points at it;
// the emitted code addresses its fields by these offsets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/ir.h"

constexpr int kMaxTlsFields = 8;

struct quern_thread {
  uint64_t spill[4];             // spill slots 1..4
  uint64_t app_x28;              // the application's X28 while rewritten code runs
  uint64_t scratch;              // one register's worth of room for the framework's own code
  uint64_t app_sp;               // the application's SP during a clean call
  uint64_t stack_top;            // top of the private stack of clean calls
  void* tls[kMaxTlsFields];      // the client's thread-local fields
  // Not addressed by generated code:
  arena_t arena;                 // instruction lists of the block pass
  unsigned char* stack_base;     // the private stack mapping
  size_t stack_size;
  size_t mapping_size;           // the whole mapping of this block
  bool init_done;                // the client's thread-init event has run
  int tid;
};

constexpr int32_t kSpillOffset = offsetof(quern_thread, spill);
constexpr int32_t kAppX28Offset = offsetof(quern_thread, app_x28);
constexpr int32_t kScratchOffset = offsetof(quern_thread, scratch);
constexpr int32_t kAppSpOffset = offsetof(quern_thread, app_sp);
constexpr int32_t kStackTopOffset = offsetof(quern_thread, stack_top);
constexpr int32_t kTlsOffset = offsetof(quern_thread, tls);
