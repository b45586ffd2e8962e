// Emulated instructions in every position that control flow can give them:
// adjacent to each other, right before branches of each kind, as branch
// targets, last in a function, falling through into the next function,
// in a loop, many in a row, before PC-relative instructions, on both sides
// of a page boundary, and in the child of a fork.
        .arch armv8.2-a+sve
        .text

// void adjacent(const uint8_t in[32], uint8_t out[48]): each word sees the
// result of the one before it.
        .globl adjacent
        .type adjacent, %function
adjacent:
        ldp     q1, q6, [x0]
        add     z1.s, z1.s, #3
        add     z2.s, z1.s, z1.s
        sub     z3.s, z2.s, z6.s
        add     z3.s, z3.s, z3.s
        stp     q1, q2, [x1]
        str     q3, [x1, #32]
        ret
        .size adjacent, . - adjacent

// uint64_t branches(long x, uint8_t q[16]): one bit per path taken, each
// branch right behind an emulated word that must not disturb what it tests;
// q counts the emulated words executed (64-bit lanes).
        .globl branches
        .type branches, %function
branches:
        stp     x29, x30, [sp, #-16]!
        mov     x29, sp
        ldr     q0, [x1]
        mov     x9, #0
        cmp     x0, #0
        add     z0.d, z0.d, #1
        b.eq    1f
        orr     x9, x9, #1
1:      cmp     x0, #1
        add     z0.d, z0.d, #1
        b.ne    2f
        orr     x9, x9, #2
2:      add     z0.d, z0.d, #1
        cbz     x0, 3f
        orr     x9, x9, #4
3:      add     z0.d, z0.d, #1
        cbnz    x0, 4f
        orr     x9, x9, #8
4:      add     z0.d, z0.d, #1
        tbnz    x0, #1, 5f
        orr     x9, x9, #0x10
5:      add     z0.d, z0.d, #1
        tbz     x0, #63, 6f
        orr     x9, x9, #0x20
6:      adr     x10, 7f
        add     z0.d, z0.d, #1
        br      x10
        orr     x9, x9, #0x1000         // never: br jumps over it
7:      add     z0.d, z0.d, #1
        b       8f
        orr     x9, x9, #0x2000         // never: b jumps over it
8:      cmn     x0, #1                  // C and Z for x = -1, V never
        add     z0.d, z0.d, #1
        b.hs    9f
        orr     x9, x9, #0x40
9:      adds    x10, x0, x0             // V for x = INT64_MIN
        add     z0.d, z0.d, #1
        b.vc    10f
        orr     x9, x9, #0x80
10:     cmp     x0, #2
        add     z0.d, z0.d, #1
        b.gt    11f
        orr     x9, x9, #0x100
11:     add     z0.d, z0.d, #1
        bl      sve_first               // a call right behind an emulated word
        orr     x9, x9, #0x200          // reached on return
        add     z0.d, z0.d, #1
        blr     x10                     // ... and an indirect one
        str     q0, [x1]
        mov     x0, x9
        ldp     x29, x30, [sp], #16
        ret
        .size branches, . - branches

// Emulated word first (a branch target), no stack frame; returns the address
// of the next function in x10 for the indirect call above.
        .type sve_first, %function
sve_first:
        add     z0.d, z0.d, #1
        adr     x10, sve_last
        ret
        .size sve_first, . - sve_first

// Emulated word last before the return.
        .type sve_last, %function
sve_last:
        add     z0.d, z0.d, #1
        add     z0.d, z0.d, #1
        ret
        .size sve_last, . - sve_last

// void fall_through(uint8_t q[16]): q += 1 + 10 + 100 (64-bit lanes): the
// last instruction of fall_head is an emulated word that falls into
// fall_tail, whose only instructions are an emulated word and the return.
        .globl fall_through
        .type fall_through, %function
fall_through:
        ldr     q0, [x0]
        stp     x0, x30, [sp, #-16]!
        bl      fall_head
        ldp     x0, x30, [sp], #16
        str     q0, [x0]
        ret
        .size fall_through, . - fall_through
        .type fall_head, %function
fall_head:
        add     z0.d, z0.d, #1
        add     z0.d, z0.d, #10
        .size fall_head, . - fall_head
        .type fall_tail, %function
fall_tail:
        add     z0.d, z0.d, #100
        ret
        .size fall_tail, . - fall_tail

// void loop(uint8_t q[32], long n): n > 0 turns of a loop whose branch tests
// flags set before two emulated words.
        .globl loop
        .type loop, %function
loop:
        ldp     q4, q5, [x0]
1:      subs    x1, x1, #1
        add     z4.d, z4.d, #1
        sub     z5.d, z5.d, z4.d
        b.ne    1b
        stp     q4, q5, [x0]
        ret
        .size loop, . - loop

// void many(uint8_t q[16]): 300 emulated words in a row, then 100 more of
// two kinds, each its own rewritten site.
        .globl many
        .type many, %function
many:
        ldr     q6, [x0]
        .rept   300
        add     z6.d, z6.d, #1
        .endr
        .rept   50
        add     z6.b, z6.b, #3
        sub     z6.h, z6.h, #2
        .endr
        str     q6, [x0]
        ret
        .size many, . - many

// void pcrel(uint64_t out[3]): ADR, ADRP and a literal load right behind
// emulated words give the addresses and value of where they are.
        .globl pcrel
        .type pcrel, %function
pcrel:
        add     z7.d, z7.d, #1
        adr     x2, pcrel_target
        add     z7.d, z7.d, #1
        ldr     x3, pcrel_literal
        add     z7.d, z7.d, #1
        adrp    x4, pcrel_target
        add     x4, x4, :lo12:pcrel_target
        stp     x2, x3, [x0]
        str     x4, [x0, #16]
        ret
        .globl pcrel_target
pcrel_target:
pcrel_literal:
        .quad   0x1122334455667788
        .size pcrel, . - pcrel

// void page_edge(uint8_t q[16]): q += 1 + 2 + 4 with the first two words
// the last of a page and the third the first of the next.
        .globl page_edge
        .type page_edge, %function
page_edge:
        ldr     q0, [x0]
        stp     x0, x30, [sp, #-16]!
        bl      page_edge_words
        ldp     x0, x30, [sp], #16
        str     q0, [x0]
        ret
        .size page_edge, . - page_edge
        .balign 4096
        .skip   4096 - 8
        .type page_edge_words, %function
page_edge_words:
        add     z0.d, z0.d, #1
        add     z0.d, z0.d, #2
        add     z0.d, z0.d, #4
        ret
        .size page_edge_words, . - page_edge_words

// void fork_words(uint8_t q[16]): q += 3 (64-bit lanes); first executed in a
// child process, after fork.
        .globl fork_words
        .type fork_words, %function
fork_words:
        ldr     q0, [x0]
        add     z0.d, z0.d, #3
        str     q0, [x0]
        ret
        .size fork_words, . - fork_words

        .section .note.GNU-stack, "", %progbits
