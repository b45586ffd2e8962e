// The software floating-point library, all of it: include this one header.
//   fp_core.h      formats, FPSCR, FPRounding, unpacking, NaNs, rounding core
//   fp_arith.h     add, subtract, multiply, fused multiply-add, divide,
//                  square root, minimum and maximum, compares
//   fp_convert.h   format and integer conversions, round to integral, scale
//   fp_estimate.h  estimates and steps, trigonometric and exponential helpers
// Templates over the raw operand type (unsigned short, unsigned int,
// unsigned long); fp_lib.cpp holds one instance of each per format.
#pragma once

#include "sve/lib/fp_arith.h"
#include "sve/lib/fp_convert.h"
#include "sve/lib/fp_core.h"
#include "sve/lib/fp_estimate.h"
