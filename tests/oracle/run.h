// Running one word twice: natively on the reference processor (real SVE at
// 384 bits), and through quern's adapter on a cpu_state.
#pragma once

#include <cstdint>
#include <string>

#include "sve/dispatch/cpu_state.h"
#include "sve/dispatch/decode.h"
#include "tests/oracle/gen.h"

namespace oracle {

enum class outcome {
  ok,
  reserved,   // the reference raised SIGILL: not an instruction there
  faulted,    // the reference raised SIGSEGV or SIGBUS
  crashed,    // the emulated side raised a signal
  timed_out,  // the emulated side did not come back
};

// Sets the vector length to 48 bytes and checks it, maps the code buffer and
// the scratch area, and installs the signal handlers (on their own stack).
// Returns false with a message if the processor has no SVE at 384 bits.
bool runner_init(scratch_area& scratch, std::string& error);

// Loads `in` into the machine, runs `word`, stores the machine into `out`.
// On anything but ok, `out` is undefined and `signo` holds the signal.
outcome run_reference(uint32_t word, const cpu_state& in, cpu_state& out, int& signo);

// Runs `word` through `fn` on `s` (pc pointing at a copy of the word), with
// the host FPCR set to s.fpcr as the application's would be. `rc` is the
// adapter's result; a signal or a hang is caught and reported.
outcome run_emulated(sve_handler_fn fn, uint32_t word, cpu_state& s, int& rc, int& signo);

}  // namespace oracle
