// Emulated words in shared libraries: one linked to e2e_flow, one that it
// opens with dlopen. Built twice, with FLOWLIB_NAME set to the function name.
        .arch armv8.2-a+sve
        .text

// void FLOWLIB_NAME(uint8_t q[16]): q += 5 (32-bit lanes), in two words.
        .globl FLOWLIB_NAME
        .type FLOWLIB_NAME, %function
FLOWLIB_NAME:
        ldr     q0, [x0]
        add     z0.s, z0.s, #2
        add     z0.s, z0.s, #3
        str     q0, [x0]
        ret
        .size FLOWLIB_NAME, . - FLOWLIB_NAME

        .section .note.GNU-stack, "", %progbits
