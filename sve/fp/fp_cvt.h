// Element loops of the generic road shared by the compares, conversions and
// estimates: each active lane calls the library under the control word and
// merges its flags into the status word; inactive lanes call nothing.
#pragma once

#include <cstdint>
#include <type_traits>

#include "sve/dispatch/cpu_state.h"
#include "sve/int/vec_loop.h"
#include "sve/fp/fp_lanes.h"
#include "sve/lib/fp_lib.h"

namespace fpcvt {

// One library call under the control word, flags merged into the status word.
using fplanes::gen::call;

inline FPRounding rmode(FPSCR s) { return static_cast<FPRounding>((s >> 22) & 3u); }

// Narrow value R widened to the lane L: sign-extended when Signed, else zeroes.
template <class L, class R, bool Signed>
inline L widen(R v) {
  if constexpr (Signed) {
    using SR = std::make_signed_t<R>;
    using SL = std::make_signed_t<L>;
    return static_cast<L>(static_cast<SL>(static_cast<SR>(v)));
  } else {
    return static_cast<L>(v);
  }
}

// Merging unary: lane type L; the source is the low bits of the lane of `src`
// taken as S, the result R goes into the low bits of the lane.
template <class L, class S, class R, bool SignedResult, class F>
inline VecV unary_vm(const VecV& old, const PredV& p, const VecV& src, CpuContext* c, F f) {
  VecV r;
  const unsigned n = generic::lane_count<L>(c);
  for (unsigned i = 0; i < n; ++i) {
    L x = generic::lane<L>(old, i);
    if (generic::active<L>(p, i)) {
      const S s = static_cast<S>(generic::lane<L>(src, i));
      x = widen<L, R, SignedResult>(call(c, [&](FPSCR& w) { return static_cast<R>(f(s, w)); }));
    }
    generic::set_lane<L>(r, i, x);
  }
  return r;
}

// Unpredicated unary, all lanes.
template <class T, class F>
inline VecV unary_v(const VecV& a, CpuContext* c, F f) {
  VecV r;
  const unsigned n = generic::lane_count<T>(c);
  for (unsigned i = 0; i < n; ++i) {
    const T x = generic::lane<T>(a, i);
    generic::set_lane<T>(r, i, call(c, [&](FPSCR& w) { return static_cast<T>(f(x, w)); }));
  }
  return r;
}

}  // namespace fpcvt
