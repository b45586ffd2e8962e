// The upper 32 bytes of the Z registers, written by SVE instructions only,
// must keep their values from one instruction to the next (they exist only in
// the emulator's per-thread state). Reading them back needs a store of a
// whole Z register, STR (vector).
        .arch armv8.2-a+sve
        .text

// void zupper(uint8_t out[3][48], long n)
        .globl zupper
        .type zupper, %function
zupper:
        sub     z1.d, z1.d, z1.d        // all 48 bytes 0, whatever was there
        sub     z2.d, z2.d, z2.d
        sub     z3.s, z3.s, z3.s
        add     z1.d, z1.d, #7
        add     z2.s, z2.s, #255, lsl #8
1:      add     z1.d, z1.d, #1
        add     z3.s, z3.s, z2.s
        movi    v20.16b, #0x5a          // NEON on another register in between
        sub     z2.h, z2.h, #1
        add     z20.b, z20.b, #1
        subs    x1, x1, #1
        b.ne    1b
        str     z1, [x0]
        str     z2, [x0, #1, mul vl]
        str     z3, [x0, #2, mul vl]
        ret
        .size zupper, . - zupper

        .section .note.GNU-stack, "", %progbits
