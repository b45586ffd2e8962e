// The frame of one trial of runs.c: run_trial(xin, xout, code) loads X0 to
// X30 (but X17), NZCV and FPSR from xin and jumps to `code`, which ends by
// jumping to trial_back through X17; trial_back stores the same registers
// to xout and returns to C with the C ABI's registers put back.
        .arch armv8.2-a+sve
        .text

        .globl  run_trial
        .type   run_trial, %function
run_trial:
        stp     x29, x30, [sp, #-160]!
        stp     x19, x20, [sp, #16]
        stp     x21, x22, [sp, #32]
        stp     x23, x24, [sp, #48]
        stp     x25, x26, [sp, #64]
        stp     x27, x28, [sp, #80]
        stp     d8, d9, [sp, #96]
        stp     d10, d11, [sp, #112]
        stp     d12, d13, [sp, #128]
        stp     d14, d15, [sp, #144]
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
        ldp     d14, d15, [sp, #144]
        ldp     d12, d13, [sp, #128]
        ldp     d10, d11, [sp, #112]
        ldp     d8, d9, [sp, #96]
        ldp     x27, x28, [sp, #80]
        ldp     x25, x26, [sp, #64]
        ldp     x23, x24, [sp, #48]
        ldp     x21, x22, [sp, #32]
        ldp     x19, x20, [sp, #16]
        ldp     x29, x30, [sp], #160
        ret
        .size   trial_back, . - trial_back

        .bss
        .balign 16
trial_frame:
        .quad   0, 0    // xout, the C stack pointer

        .section .note.GNU-stack, "", %progbits
