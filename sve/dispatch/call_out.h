// Calls from the emulator into code that is not its own.
//
// Rewritten code keeps only the vector registers V0-V15 (those it has not
// parked in cpu_state) around an emulation call. That is enough because the
// emulator itself is compiled, on AArch64, to leave V16-V31 alone
// (-ffixed-v16 ... -ffixed-v31): it computes in V0-V15 only (fewer make GCC
// spill in the larger handlers). Code that is not compiled so (the C
// library, the trace sink) may use all of them, so every call into it on the
// way of an emulated instruction goes through call_out, which keeps V16-V31
// around it. tests/simd_kept_check.py holds the client library to both rules.
#pragma once

#include <type_traits>

extern "C" {
// Calls fn(arg) with V16-V31 saved before and restored after. AArch64 only.
void quern_call_out(void (*fn)(void*), void* arg);
}

// Runs f() through quern_call_out; on other hosts (where no rewritten code
// calls the emulator) it simply runs f().
template <typename F>
inline void call_out(F&& f) {
#if defined(__aarch64__)
  using Fn = std::remove_reference_t<F>;
  quern_call_out([](void* p) { (*static_cast<Fn*>(p))(); }, &f);
#else
  f();
#endif
}
