// Emulated words and the program's own signals: words first executed with
// every signal blocked or inside a handler, and a loop of emulated words that
// handlers with emulated words of their own keep interrupting.
        .arch armv8.2-a+sve
        .text

// void handler_add(uint8_t q[16]): q += 9 (64-bit lanes). Called only from
// signal handlers.
        .globl handler_add
        .type handler_add, %function
handler_add:
        ldr     q0, [x0]
        add     z0.d, z0.d, #9
        str     q0, [x0]
        ret
        .size handler_add, . - handler_add

// void blocked_add(uint8_t q[16]): q += 3 (32-bit lanes). Called only with
// every signal blocked.
        .globl blocked_add
        .type blocked_add, %function
blocked_add:
        ldr     q0, [x0]
        add     z0.s, z0.s, #3
        str     q0, [x0]
        ret
        .size blocked_add, . - blocked_add

// void reentry_loop(long n, uint8_t io[32], uint64_t regs[10]): n turns of
// emulated words that read and write vector registers, X26 and X28, with
// X19..X28 holding regs[] (the values they have at the end are stored back).
        .globl reentry_loop
        .type reentry_loop, %function
reentry_loop:
        stp     x29, x30, [sp, #-96]!
        stp     x19, x20, [sp, #16]
        stp     x21, x22, [sp, #32]
        stp     x23, x24, [sp, #48]
        stp     x25, x26, [sp, #64]
        stp     x27, x28, [sp, #80]
        stp     x1, x2, [sp, #-16]!
        ldp     q1, q2, [x1]
        ldp     x19, x20, [x2]
        ldp     x21, x22, [x2, #16]
        ldp     x23, x24, [x2, #32]
        ldp     x25, x26, [x2, #48]
        ldp     x27, x28, [x2, #64]
1:      add     z1.d, z1.d, #1
        addvl   x28, x28, #1
        add     z2.d, z2.d, z1.d
        addvl   x28, x28, #-1
        addpl   x26, x26, #0
        subs    x0, x0, #1
        b.ne    1b
        ldp     x1, x2, [sp], #16
        stp     q1, q2, [x1]
        stp     x19, x20, [x2]
        stp     x21, x22, [x2, #16]
        stp     x23, x24, [x2, #32]
        stp     x25, x26, [x2, #48]
        stp     x27, x28, [x2, #64]
        ldp     x27, x28, [sp, #80]
        ldp     x25, x26, [sp, #64]
        ldp     x23, x24, [sp, #48]
        ldp     x21, x22, [sp, #32]
        ldp     x19, x20, [sp, #16]
        ldp     x29, x30, [sp], #96
        ret
        .size reentry_loop, . - reentry_loop

        .section .note.GNU-stack, "", %progbits
