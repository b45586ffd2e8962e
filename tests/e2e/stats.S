// The loop of e2e_stats: one word of each road per turn.
        .arch armv8.2-a+sve
        .text

// uint64_t stats_kernel(long n): n > 0 turns of add (a fast row), prfb (a
// no-op row) and uqincw (a generic row), after one ptrue; returns x3, which
// uqincw counts up by the number of 32-bit lanes each turn.
        .globl stats_kernel
        .type stats_kernel, %function
stats_kernel:
        mov     x3, #0
        ptrue   p0.s
1:      add     z1.s, z1.s, z2.s
        add     x4, x4, #1              // carried inside the run
        prfb    pldl1keep, p0, [sp]
        uqincw  x3
        subs    x0, x0, #1
        b.ne    1b
        mov     x0, x3
        ret
        .size stats_kernel, . - stats_kernel

        .section .note.GNU-stack, "", %progbits
