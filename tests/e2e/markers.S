// Region markers: ADD Zn.B, Zn.B, #1, LSL #8 starts a traced region and
// #2, LSL #8 stops it; both leave Zn as it was. Between them, #3, LSL #8 on
// bytes, which is neither, and #1, LSL #8 on halfwords, an ordinary addition
// of 256. None of the byte forms is an instruction of the architecture.
        .arch armv8.2-a+sve
        .text

// void markers(uint8_t q[64], long reps): q = z7, z3, z0, z1.
        .globl markers
        .type markers, %function
markers:
        ldp     q7, q3, [x0]
        ldp     q0, q1, [x0, #32]
1:      .inst   0x2520e027              // start marker on z7
        add     z1.d, z1.d, #5
        .inst   0x2520e063              // add z3.b, z3.b, #3, lsl #8
        add     z0.h, z0.h, #1, lsl #8
        .inst   0x2520e047              // stop marker on z7
        subs    x1, x1, #1
        b.ne    1b
        stp     q7, q3, [x0]
        stp     q0, q1, [x0, #32]
        ret
        .size markers, . - markers

        .section .note.GNU-stack, "", %progbits
