// Floating-point compares into a predicate: the per-lane relations, shared by
// the generic routines and the library fallback of the fast handlers.
#pragma once

#include "sve/lib/fp_lib.h"

namespace fpcmp {

// Each relation takes (Zn lane, Zm lane or zero) and the lane's word.
struct eq { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareEQ<T>(a, b, s); } };
struct ne { template <class T> bool operator()(T a, T b, FPSCR& s) const { return !fplib::FPCompareEQ<T>(a, b, s); } };
struct ge { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGE<T>(a, b, s); } };
struct gt { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGT<T>(a, b, s); } };
struct un { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareUN<T>(a, b, s); } };
// Against zero with the operands swapped: Zn <= 0 is 0 >= Zn, so a NaN lane
// is false, as for every ordered relation.
struct le { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGE<T>(b, a, s); } };
struct lt { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGT<T>(b, a, s); } };
// By magnitude.
struct acge { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGE<T>(fplib::FPAbs(a), fplib::FPAbs(b), s); } };
struct acgt { template <class T> bool operator()(T a, T b, FPSCR& s) const { return fplib::FPCompareGT<T>(fplib::FPAbs(a), fplib::FPAbs(b), s); } };

}  // namespace fpcmp
