// long sve_loop(volatile int *flag, char *before, char *after): fills z0 to z31, p0 to p15 and FFR, loops until the
// flag is 1, and stores them before and after the loop. Returns the length of a vector in bytes: each area has 32
// vectors, 16 predicates and FFR, behind one another. sve_loop_begin to sve_loop_end is the loop.
        .arch   armv8-a+sve
        .text
        .macro  store_all base
        .irp    n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        str     z\n, [\base, #\n, mul vl]
        .endr
        addvl   \base, \base, #31
        addvl   \base, \base, #1
        .irp    n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        str     p\n, [\base, #\n, mul vl]
        .endr
        rdffr   p0.b
        str     p0, [\base, #16, mul vl]
        ldr     p0, [\base, #0, mul vl]
        .endm

        .globl  sve_loop, sve_loop_begin, sve_loop_end
        .type   sve_loop, %function
sve_loop:
        stp     d8, d9, [sp, #-0x40]!
        stp     d10, d11, [sp, #0x10]
        stp     d12, d13, [sp, #0x20]
        stp     d14, d15, [sp, #0x30]
        .irp    n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        mov     w3, #(0x100 * \n + 5)
        index   z\n\().s, w3, #1
        .endr
        mov     x3, #9
        whilelo p0.b, xzr, x3
        wrffr   p0.b
        .irp    n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        mov     x3, #(\n + 1)
        whilelo p\n\().b, xzr, x3
        .endr
        store_all x1
sve_loop_begin:
1:      ldr     w3, [x0]
        cbz     w3, 1b
sve_loop_end:
        store_all x2
        ldp     d14, d15, [sp, #0x30]
        ldp     d12, d13, [sp, #0x20]
        ldp     d10, d11, [sp, #0x10]
        ldp     d8, d9, [sp], #0x40
        cntb    x0
        ret

        .section .note.GNU-stack, "", %progbits
