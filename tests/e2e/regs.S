// Register preservation around emulated instructions.
//
// Each probe_NAME(const image* init, void* base) loads every general register
// X0..X30, all 32 Q registers, NZCV and FPSR from `init`, points SP at
// `base` (the top of a private stack, with the dump area above it), writes a
// "before" image of the whole register file to base+0, runs the probe's
// instructions, writes an "after" image to base+AFTER, and returns to C with
// the C ABI's registers put back. regs.c checks that the after image is the
// before image changed exactly as the instructions say.
#include "frame.h"
        .arch armv8.2-a+sve
        .text

#define IMG_SP   248
#define IMG_NZCV 256
#define IMG_FPSR 264
#define IMG_Q    272
#define AFTER    1024

// The whole register file to [sp, #off]; X0 is used as scratch last and
// reloaded, flags are not touched.
.macro DUMP off
        .irp i, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30
        str     x\i, [sp, #(\off + 8 * \i)]
        .endr
        .irp i, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31
        str     q\i, [sp, #(\off + IMG_Q + 16 * \i)]
        .endr
        mov     x0, sp
        str     x0, [sp, #(\off + IMG_SP)]
        mrs     x0, nzcv
        str     x0, [sp, #(\off + IMG_NZCV)]
        mrs     x0, fpsr
        str     x0, [sp, #(\off + IMG_FPSR)]
        ldr     x0, [sp, #\off]
.endm

// PROBE NAME, INSTRUCTION or, for several instructions, PROBE NAME after
// a macro body_NAME that holds them.
.macro PROBE name, insns:vararg
        .globl  probe_\name
        .type   probe_\name, %function
probe_\name:
        ENTER_C_FRAME
        adrp    x2, saved_sp
        mov     x3, sp
        str     x3, [x2, :lo12:saved_sp]
        mov     sp, x1
        .irp i, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31
        ldr     q\i, [x0, #(IMG_Q + 16 * \i)]
        .endr
        ldr     x2, [x0, #IMG_NZCV]
        msr     nzcv, x2
        ldr     x2, [x0, #IMG_FPSR]
        msr     fpsr, x2
        .irp i, 1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30
        ldr     x\i, [x0, #(8 * \i)]
        .endr
        ldr     x0, [x0]
        DUMP    0
        .ifb \insns
        body_\name
        .else
        \insns
        .endif
        DUMP    AFTER
        adrp    x0, saved_sp
        ldr     x0, [x0, :lo12:saved_sp]
        mov     sp, x0
        LEAVE_C_FRAME
        .size   probe_\name, . - probe_\name
.endm

// Vector arithmetic: only the destination's low 16 bytes may change.
PROBE add_zi_d,        add z5.d, z5.d, #1
PROBE add_zi_h_lsl,    add z31.h, z31.h, #255, lsl #8
PROBE sub_zi_s,        sub z8.s, z8.s, #200
PROBE add_zzz_s,       add z3.s, z17.s, z30.s
PROBE sub_zzz_h,       sub z0.h, z0.h, z31.h
PROBE add_zzz_b_self,  add z16.b, z16.b, z16.b
PROBE sub_zzz_d,       sub z29.d, z28.d, z27.d
.macro body_adjacent
        add     z1.d, z1.d, #1
        add     z2.d, z1.d, z1.d
.endm
PROBE adjacent
// A run of words that feed each other, through the registers the rewritten
// code itself uses (X26 to X28), SP and vectors.
.macro body_run_chain
        addvl   x28, x28, #1
        addpl   x27, x28, #2
        addvl   x26, x27, #-1
        addvl   sp, sp, #-1
        addvl   x0, sp, #0
        addvl   sp, sp, #1
        add     z0.d, z0.d, #3
        add     z1.d, z0.d, z31.d
        sub     z31.s, z1.s, z0.s
        rdvl    x29, #2
.endm
PROBE run_chain

// Vector length reads and stack-pointer arithmetic.
PROBE rdvl_x0,         rdvl x0, #1
PROBE rdvl_x30,        rdvl x30, #-3
PROBE rdvl_x29,        rdvl x29, #31
PROBE addvl_x28,       addvl x28, x28, #1
PROBE addvl_x26,       addvl x26, x26, #-2
PROBE addpl_x27,       addpl x27, x27, #3
PROBE addvl_x0_x27,    addvl x0, x27, #0
PROBE addvl_x1_x28,    addvl x1, x28, #5
PROBE addpl_x2_x26,    addpl x2, x26, #-1
PROBE addvl_x28_x26,   addvl x28, x26, #-32
PROBE addpl_x26_x27,   addpl x26, x27, #31
PROBE addvl_x3_sp,     addvl x3, sp, #0
PROBE addvl_x30_sp,    addvl x30, sp, #2
// SP moves by exactly one vector (48 bytes) and comes back; the fix-up `add`
// makes the dump land where regs.c looks only if it moved by 48.
.macro body_addvl_sp
        addvl   sp, sp, #-1
        add     sp, sp, #48
.endm
.macro body_addvl_sp_pair
        addvl   sp, sp, #-1
        addvl   sp, sp, #1
.endm
.macro body_addpl_sp
        addpl   sp, sp, #-8
        add     sp, sp, #48
.endm
PROBE addvl_sp
PROBE addvl_sp_pair
PROBE addpl_sp

// First-fault loads 32 bytes before a page that is not mapped: the fast one
// (LDFF1B) probes the next page, the generic one (LDFF1H) takes the fault in
// a guarded read and jumps back. Both make the emulator call into the C
// library in the middle of the run; Q9 and Q10 get the first 16 bytes.
.macro body_ldff_edge
        adrp    x9, ldff_edge
        ldr     x9, [x9, :lo12:ldff_edge]
        ptrue   p0.b
        ldff1b  {z9.b}, p0/z, [x9]
        ldff1h  {z10.h}, p0/z, [x9]
.endm
PROBE ldff_edge

        .bss
        .balign 8
saved_sp:
        .quad   0

        .section .note.GNU-stack, "", %progbits
