// The loop each thread of e2e_threads runs, with optional region markers on
// the vector register it accumulates into.
        .arch armv8.2-a+sve
        .text

// void thread_kernel(uint8_t io[32], long n, long markers): z1 += z2 and
// z2 += 1 (32-bit lanes), n > 0 times. With markers != 0 the loop is a
// traced region: start marker before it, stop marker after it, both on z1,
// whose value they must leave alone.
        .globl thread_kernel
        .type thread_kernel, %function
thread_kernel:
        ldp     q1, q2, [x0]
        cbz     x2, 1f
        .inst   0x2520e021              // add z1.b, z1.b, #1, lsl #8: start marker
1:      add     z1.s, z1.s, z2.s
        add     z2.s, z2.s, #1
        subs    x1, x1, #1
        b.ne    1b
        cbz     x2, 2f
        .inst   0x2520e041              // add z1.b, z1.b, #2, lsl #8: stop marker
2:      stp     q1, q2, [x0]
        ret
        .size thread_kernel, . - thread_kernel

// void race_words_K(uint8_t q[16]), K = 0..7: q += 1 (64-bit lanes) 100
// times, each by its own word, so that threads starting together meet at
// words that nobody has executed before.
.macro RACE_WORDS k
        .globl race_words_\k
        .type race_words_\k, %function
race_words_\k:
        ldr     q0, [x0]
        .rept   100
        add     z0.d, z0.d, #1
        .endr
        str     q0, [x0]
        ret
        .size race_words_\k, . - race_words_\k
.endm
        .irp k, 0,1,2,3,4,5,6,7
        RACE_WORDS \k
        .endr

        .section .note.GNU-stack, "", %progbits
