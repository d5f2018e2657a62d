// The stub through which code that plug-ins emit calls C functions. It runs where it stands, in the tool's own text,
// and serves every thread.
//
//   x0 to x7   the function's arguments
//   x8         the function
//   x30        where the fragment goes on, in the code cache
//
// Keeps everything except x0, x8 and x30. The emitted code has saved those that the application needs. x0 returns the
// function's result. The function runs with the default FPCR, because the tool's code expects default rounding and
// traps.
//
//   Frame on the engine's stack, from sp up, while the function runs:
//     the vector state, of save_vector_state
//     x1 to x7           0x00
//     the application's sp, less 16   0x38: x9, x10 lie there
//     x11 to x21         0x40
//     x29, x30           0xa0; x29 points here
//
// A signal that arrives meanwhile is only counted. The way back leads past cache_reentry_stub, straight into the
// fragment, so the signal dispatcher traps the exit of that fragment. guarded_return_address tells it which fragment
// that is. The word is 0 outside these stubs; inside it is 0 only where x30 itself is the address.
#include "bi/code/stub_macros.inc"

        .text
        .balign 4

// \reg = the address of \name, the calling thread's; x9 is TPIDR_EL0. The tool is a non-relocatable executable: the
// offset is a constant.
        .macro  load_thread_local reg, name
        add     \reg, x9, #:tprel_hi12:\name, lsl #12
        add     \reg, \reg, #:tprel_lo12_nc:\name
        .endm

// `sve` is the offset at which the two routines of the stub text are entered. 0: their first word branches to the
// shorter routines, for q0 to q31. 4: behind that word they save the whole vector state.
        .macro  guarded_call name, sve
        .globl  \name
\name:
        stp     x9, x10, [sp, #-0x10]!
        mrs     x9, tpidr_el0
        load_thread_local x10, guarded_return_address
        str     x30, [x10]
        load_thread_local x9, guarded_engine_stack
        ldr     x9, [x9]
        mov     x10, sp
        mov     sp, x9
        stp     x1, x2, [sp, #-0xb0]!
        x_pairs stp, 1, "3, 4", "5, 6"
        stp     x7, x10, [sp, #0x30]
        x_pairs stp, 3, "11, 12", "13, 14", "15, 16", "17, 18", "19, 20"
        str     x21, [sp, #0x90]
        stp     x29, x30, [sp, #0xa0]
        add     x29, sp, #0xa0
        mrs     x19, nzcv
        mrs     x20, fpcr
        mrs     x21, fpsr
        bl      save_vector_state + \sve
        msr     fpcr, xzr
        blr     x8
        bl      restore_vector_state + \sve
        msr     fpcr, x20
        msr     fpsr, x21
        msr     nzcv, x19
        ldp     x29, x30, [sp, #0xa0]
        ldr     x21, [sp, #0x90]
        x_pairs ldp, 3, "19, 20", "17, 18", "15, 16", "13, 14", "11, 12"
        ldp     x7, x10, [sp, #0x30]
        x_pairs ldp, 1, "5, 6", "3, 4"
        ldp     x1, x2, [sp]
        mov     sp, x10
        mrs     x9, tpidr_el0
        load_thread_local x9, guarded_return_address
        str     xzr, [x9]
        ldp     x9, x10, [sp], #0x10
        ret
        .endm

        guarded_call guarded_call_stub, 0
        guarded_call guarded_call_stub_sve, 4
        .globl  guarded_call_stubs_end
guarded_call_stubs_end:

        .section .note.GNU-stack, "", %progbits
