// One block of 5,000 instructions, 3,000 of them floating-point work, run three times.
        .text
        .global main
main:
        stp     x29, x30, [sp, #-16]!
        mov     w1, #3
        fmov    d0, #1.0
        fmov    v1.2d, #1.0
1:
        .rept   1000
        fadd    d2, d0, d0
        fmla    v3.2d, v1.2d, v1.2d
        add     x2, x2, #1
        fmadd   s4, s0, s0, s0
        eor     x3, x2, x1
        .endr
        subs    w1, w1, #1
        b.ne    1b
        mov     w0, #0
        ldp     x29, x30, [sp], #16
        ret
        .section .note.GNU-stack, "", %progbits
