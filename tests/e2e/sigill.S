// Reserved words of the SVE encoding space, which no emulator may take for an
// instruction: each one's execution is an illegal-instruction trap of the
// program. A handler that skips the word returns to the `ret` behind it.
        .text

        .globl exec_reserved1
        .type exec_reserved1, %function
exec_reserved1:
        .inst   0x0427c4d1
        ret
        .size exec_reserved1, . - exec_reserved1

        .globl exec_reserved2
        .type exec_reserved2, %function
exec_reserved2:
        .inst   0x2540a000
        ret
        .size exec_reserved2, . - exec_reserved2

        .section .note.GNU-stack, "", %progbits
