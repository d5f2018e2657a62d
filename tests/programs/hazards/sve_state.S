// The scalable state across exits from blocks. long sve_state(void *before, void *after): loads z0 to z31, p0 to p15
// and FFR from the first, goes through branches of all kinds and a hot loop, and stores them in the second. Registers
// take a vector's length each; predicates follow at `after` + 32 lengths.
        .arch   armv8.2-a+sve
        .text
        .balign 4
        .globl  sve_state
sve_state:
        stp     x29, x30, [sp, #-80]!
        stp     d8, d9, [sp, #16]
        stp     d10, d11, [sp, #32]
        stp     d12, d13, [sp, #48]
        stp     d14, d15, [sp, #64]
        addvl   x9, x0, #31
        addvl   x9, x9, #1
        ldr     p0, [x9, #16, mul vl]
        wrffr   p0.b
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        ldr     p\reg, [x9, #\reg, mul vl]
        .endr
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        ldr     z\reg, [x0, #\reg, mul vl]
        .endr
        b       1f
1:      cbz     xzr, 2f
        udf     #1
2:      cmp     x0, x0
        b.eq    3f
        udf     #2
3:      tbz     xzr, #5, 4f
        udf     #3
4:      adr     x3, 5f
        br      x3
5:      bl      8f
        adr     x3, 8f
        blr     x3
        mov     x4, #600
6:      sub     x4, x4, #1
        cbnz    x4, 6b
        b       9f
8:      ret
9:
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        str     z\reg, [x1, #\reg, mul vl]
        .endr
        addvl   x9, x1, #31
        addvl   x9, x9, #1
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        str     p\reg, [x9, #\reg, mul vl]
        .endr
        rdffr   p0.b
        str     p0, [x9, #16, mul vl]
        ldp     d8, d9, [sp, #16]
        ldp     d10, d11, [sp, #32]
        ldp     d12, d13, [sp, #48]
        ldp     d14, d15, [sp, #64]
        ldp     x29, x30, [sp], #80
        ret

// long sve_length(void): bytes of a vector.
        .globl  sve_length
sve_length:
        rdvl    x0, #1
        ret

// double sve_dot(const double *a, const double *b, long count)
        .globl  sve_dot
sve_dot:
        mov     x3, #0
        whilelt p0.d, x3, x2
        mov     z0.d, #0
1:      ld1d    {z1.d}, p0/z, [x0, x3, lsl #3]
        ld1d    {z2.d}, p0/z, [x1, x3, lsl #3]
        fmla    z0.d, p0/m, z1.d, z2.d
        incd    x3
        whilelt p0.d, x3, x2
        b.first 1b
        ptrue   p0.d
        faddv   d0, p0, z0.d
        ret

        .section .note.GNU-stack, "", %progbits
