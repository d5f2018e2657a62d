// 60,000 blocks in a row, run three times. A code cache holds fewer, so every round flushes it.
        .text
        .global main
main:
        stp     x29, x30, [sp, #-16]!
        mov     w1, #3
        fmov    d0, #1.0
1:
        .rept   60000
        fadd    d1, d0, d1
        b       . + 4
        .endr
        subs    w1, w1, #1
        cbz     w1, 2f
        b       1b
2:
        mov     w0, #0
        ldp     x29, x30, [sp], #16
        ret
        .section .note.GNU-stack, "", %progbits
