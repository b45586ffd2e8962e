// quern_call_out: V16-V31 onto the stack, the call, and back (see call_out.h).
#include "sve/dispatch/call_out.h"

#if defined(__aarch64__)
asm(R"(
        .text
        .p2align 2
        .globl  quern_call_out
        .hidden quern_call_out
        .type   quern_call_out, %function
quern_call_out:
        stp     x29, x30, [sp, #-272]!
        mov     x29, sp
        stp     q16, q17, [sp, #16]
        stp     q18, q19, [sp, #48]
        stp     q20, q21, [sp, #80]
        stp     q22, q23, [sp, #112]
        stp     q24, q25, [sp, #144]
        stp     q26, q27, [sp, #176]
        stp     q28, q29, [sp, #208]
        stp     q30, q31, [sp, #240]
        mov     x2, x0
        mov     x0, x1
        blr     x2
        ldp     q16, q17, [sp, #16]
        ldp     q18, q19, [sp, #48]
        ldp     q20, q21, [sp, #80]
        ldp     q22, q23, [sp, #112]
        ldp     q24, q25, [sp, #144]
        ldp     q26, q27, [sp, #176]
        ldp     q28, q29, [sp, #208]
        ldp     q30, q31, [sp, #240]
        ldp     x29, x30, [sp], #272
        ret
        .size   quern_call_out, . - quern_call_out
)");
#endif
