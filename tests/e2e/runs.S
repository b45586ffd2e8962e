// The frame of one trial of runs.c: run_trial(xin, xout, code) loads X0 to
// X30 (but X17), NZCV and FPSR from xin and jumps to `code`, which ends by
// jumping to trial_back through X17; trial_back stores the same registers
// to xout and returns to C with the C ABI's registers put back.
#include "frame.h"
        .arch armv8.2-a+sve
        .text

        .globl  run_trial
        .type   run_trial, %function
run_trial:
        ENTER_C_FRAME
        adrp    x16, trial_frame
        add     x16, x16, :lo12:trial_frame
        mov     x17, sp
        stp     x1, x17, [x16]
        mov     x17, x2
        ldr     x16, [x0, #(8 * 31)]
        msr     nzcv, x16
        ldr     x16, [x0, #(8 * 32)]
        msr     fpsr, x16
        .irp i, 1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,18,19,20,21,22,23,24,25,26,27,28,29,30
        ldr     x\i, [x0, #(8 * \i)]
        .endr
        ldr     x0, [x0]
        br      x17
        .size   run_trial, . - run_trial

        .globl  trial_back
        .type   trial_back, %function
trial_back:
        adrp    x17, trial_frame
        ldr     x17, [x17, :lo12:trial_frame]
        .irp i, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,18,19,20,21,22,23,24,25,26,27,28,29,30
        str     x\i, [x17, #(8 * \i)]
        .endr
        mrs     x16, nzcv
        str     x16, [x17, #(8 * 31)]
        mrs     x16, fpsr
        str     x16, [x17, #(8 * 32)]
        adrp    x16, trial_frame
        add     x16, x16, :lo12:trial_frame
        ldr     x17, [x16, #8]
        mov     sp, x17
        LEAVE_C_FRAME
        .size   trial_back, . - trial_back

        .bss
        .balign 16
trial_frame:
        .quad   0, 0    // xout, the C stack pointer

        .section .note.GNU-stack, "", %progbits
