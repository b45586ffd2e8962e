// Small SVE helpers shared by the end-to-end programs: each is an ordinary
// C-callable function around one emulated instruction.
        .arch armv8.2-a+sve
        .text

// void sve_add_d(uint8_t a[16], const uint8_t b[16]): a += b, 64-bit lanes,
// through `add z0.d, z0.d, z1.d`.
        .globl sve_add_d
        .type sve_add_d, %function
sve_add_d:
        ldr     q0, [x0]
        ldr     q1, [x1]
        add     z0.d, z0.d, z1.d
        str     q0, [x0]
        ret
        .size sve_add_d, . - sve_add_d

// void sve_inc_s(uint8_t a[16]): a += 1, 32-bit lanes.
        .globl sve_inc_s
        .type sve_inc_s, %function
sve_inc_s:
        ldr     q0, [x0]
        add     z0.s, z0.s, #1
        str     q0, [x0]
        ret
        .size sve_inc_s, . - sve_inc_s

        .section .note.GNU-stack, "", %progbits
