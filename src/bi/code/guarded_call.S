// The stub through which code that plug-ins emit calls C functions. It runs where it stands, in the tool's own text,
// and serves every thread.
//
//   x0 to x7   the function's arguments
//   x8         the function
//   x30        where the fragment goes on, in the code cache
//
// Keeps everything except x0 to x7 and x30. The emitted code has saved those of x0 to x7 that the application needs. x0
// returns the function's result. The function runs with the default FPCR, because the tool's code expects default
// rounding and traps.
//
//   Frame, from sp up, while the function runs:
//     the vector state, of save_vector_state
//     x8 to x21          0x00
//     x29, x30           0x70; x29 points here
//
// A signal that arrives meanwhile is only counted. The way back leads past cache_reentry_stub, straight into the
// fragment, so the signal dispatcher traps the exit of that fragment. guarded_return_address tells it which fragment
// that is. The word is 0 outside these stubs; inside it is 0 only where x30 itself is the address.
        .text
        .balign 4

// x9 = &guarded_return_address, the calling thread's. The tool is a non-relocatable executable: the offset is a
// constant.
        .macro  load_return_slot
        mrs     x9, tpidr_el0
        add     x9, x9, #:tprel_hi12:guarded_return_address, lsl #12
        add     x9, x9, #:tprel_lo12_nc:guarded_return_address
        .endm

// `sve` is the offset at which the two routines of the stub text are entered. 0: their first word branches to the
// shorter routines, for q0 to q31. 4: behind that word they save the whole vector state.
        .macro  guarded_call name, sve
        .globl  \name
\name:
        stp     x8, x9, [sp, #-0x80]!
        stp     x10, x11, [sp, #0x10]
        stp     x12, x13, [sp, #0x20]
        stp     x14, x15, [sp, #0x30]
        stp     x16, x17, [sp, #0x40]
        stp     x18, x19, [sp, #0x50]
        stp     x20, x21, [sp, #0x60]
        stp     x29, x30, [sp, #0x70]
        add     x29, sp, #0x70
        load_return_slot
        str     x30, [x9]
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
        ldp     x29, x30, [sp, #0x70]
        load_return_slot
        str     xzr, [x9]
        ldp     x20, x21, [sp, #0x60]
        ldp     x18, x19, [sp, #0x50]
        ldp     x16, x17, [sp, #0x40]
        ldp     x14, x15, [sp, #0x30]
        ldp     x12, x13, [sp, #0x20]
        ldp     x10, x11, [sp, #0x10]
        ldp     x8, x9, [sp], #0x80
        ret
        .endm

        guarded_call guarded_call_stub, 0
        guarded_call guarded_call_stub_sve, 4
        .globl  guarded_call_stubs_end
guarded_call_stubs_end:

        .section .note.GNU-stack, "", %progbits
