// What every test of state.inc begins and ends with.
#include "state.inc"

        .text
// x0: a struct state. Loads all of it but x0, x1, x29 and x30. (x30 is the way back.)
        .globl  load_state
load_state:
        ldr     x1, [x0, #STATE_NZCV]
        msr     nzcv, x1
        ldr     x1, [x0, #STATE_FPCR]
        msr     fpcr, x1
        ldr     x1, [x0, #STATE_FPSR]
        msr     fpsr, x1
        .irp    reg, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30
        ldr     q\reg, [x0, #(STATE_Q + 16 * \reg)]
        .endr
        .irp    reg, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31
        ldr     q\reg, [x0, #(STATE_Q + 16 * \reg)]
        .endr
        ldp     x2, x3, [x0, #16]
        ldp     x4, x5, [x0, #32]
        ldp     x6, x7, [x0, #48]
        ldp     x8, x9, [x0, #64]
        ldp     x10, x11, [x0, #80]
        ldp     x12, x13, [x0, #96]
        ldp     x14, x15, [x0, #112]
        ldp     x16, x17, [x0, #128]
        ldp     x18, x19, [x0, #144]
        ldp     x20, x21, [x0, #160]
        ldp     x22, x23, [x0, #176]
        ldp     x24, x25, [x0, #192]
        ldp     x26, x27, [x0, #208]
        ldr     x28, [x0, #224]
        ret

// x0: a struct state that x29 and x30 have been stored to; x0 and x1 are on the stack.
        .globl  store_state
store_state:
        stp     x2, x3, [x0, #16]
        stp     x4, x5, [x0, #32]
        stp     x6, x7, [x0, #48]
        stp     x8, x9, [x0, #64]
        stp     x10, x11, [x0, #80]
        stp     x12, x13, [x0, #96]
        stp     x14, x15, [x0, #112]
        stp     x16, x17, [x0, #128]
        stp     x18, x19, [x0, #144]
        stp     x20, x21, [x0, #160]
        stp     x22, x23, [x0, #176]
        stp     x24, x25, [x0, #192]
        stp     x26, x27, [x0, #208]
        str     x28, [x0, #224]
        mrs     x1, nzcv
        str     x1, [x0, #STATE_NZCV]
        mrs     x1, fpcr
        str     x1, [x0, #STATE_FPCR]
        mrs     x1, fpsr
        str     x1, [x0, #STATE_FPSR]
        .irp    reg, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30
        str     q\reg, [x0, #(STATE_Q + 16 * \reg)]
        .endr
        .irp    reg, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31
        str     q\reg, [x0, #(STATE_Q + 16 * \reg)]
        .endr
        ldp     x2, x3, [sp], #16
        stp     x2, x3, [x0]
        ret

        .globl  leave_test
leave_test:
        ldp     x2, x3, [sp, #176]
        msr     tpidr_el0, x2
        msr     fpcr, x3
        ldp     d8, d9, [sp, #96]
        ldp     d10, d11, [sp, #112]
        ldp     d12, d13, [sp, #128]
        ldp     d14, d15, [sp, #144]
        ldp     x29, x30, [sp, #80]
        ldp     x27, x28, [sp, #64]
        ldp     x25, x26, [sp, #48]
        ldp     x23, x24, [sp, #32]
        ldp     x21, x22, [sp, #16]
        ldp     x19, x20, [sp], #192
        ret

        .section .note.GNU-stack, "", %progbits
