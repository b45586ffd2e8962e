// The operand descriptions of the adapters, generated from the decode table.
#include "sve/dispatch/adapter_support.h"
#include "sve/dispatch/decode.h"

#include "decode_describe.inc"
