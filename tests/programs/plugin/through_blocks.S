// The blocks of kept_state.c: fill, go through a direct, a conditional and a register branch, store.
        .text

// One block each, with every kind of link between them. x0 is kept; x30 is used for the call.
        .macro  go_through_blocks
        b       1f
        nop
1:      b.al    2f
        nop
2:      cbz     xzr, 3f
        nop
3:      bl      4f
        b       5f
4:      ret
5:
        .endm

// void through_blocks(struct state* state)
//   x1 to x28 at 8 * n, flags 0xf8, fpcr 0x100, fpsr 0x108, q0 to q31 from 0x110
        .globl  through_blocks
        .type   through_blocks, %function
through_blocks:
        stp     x29, x30, [sp, #-0xc0]!
        stp     x19, x20, [sp, #0x10]
        stp     x21, x22, [sp, #0x20]
        stp     x23, x24, [sp, #0x30]
        stp     x25, x26, [sp, #0x40]
        stp     x27, x28, [sp, #0x50]
        stp     d8, d9, [sp, #0x60]
        stp     d10, d11, [sp, #0x70]
        stp     d12, d13, [sp, #0x80]
        stp     d14, d15, [sp, #0x90]
        mrs     x1, fpcr
        mrs     x2, fpsr
        stp     x1, x2, [sp, #0xa0]
        add     x1, x0, #0x110
        .irp    reg, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30
        ldr     q\reg, [x1], #16
        .set    odd, \reg + 1
        .irp    next, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31
        .if     odd == \next
        ldr     q\next, [x1], #16
        .endif
        .endr
        .endr
        ldr     x1, [x0, #0x100]
        msr     fpcr, x1
        ldr     x1, [x0, #0x108]
        msr     fpsr, x1
        ldr     x1, [x0, #0xf8]
        msr     nzcv, x1
        .irp    reg, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28
        ldr     x\reg, [x0, #8 * \reg]
        .endr
        go_through_blocks
        .irp    reg, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28
        str     x\reg, [x0, #8 * \reg]
        .endr
        mrs     x1, nzcv
        str     x1, [x0, #0xf8]
        mrs     x1, fpcr
        str     x1, [x0, #0x100]
        mrs     x1, fpsr
        str     x1, [x0, #0x108]
        add     x1, x0, #0x110
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        str     q\reg, [x1], #16
        .endr
        ldp     x1, x2, [sp, #0xa0]
        msr     fpcr, x1
        msr     fpsr, x2
        ldp     d14, d15, [sp, #0x90]
        ldp     d12, d13, [sp, #0x80]
        ldp     d10, d11, [sp, #0x70]
        ldp     d8, d9, [sp, #0x60]
        ldp     x27, x28, [sp, #0x50]
        ldp     x25, x26, [sp, #0x40]
        ldp     x23, x24, [sp, #0x30]
        ldp     x21, x22, [sp, #0x20]
        ldp     x19, x20, [sp, #0x10]
        ldp     x29, x30, [sp], #0xc0
        ret
        .size   through_blocks, . - through_blocks

// void through_blocks_sve(uint8_t* z, uint8_t* p)
        .arch   armv8-a+sve
        .globl  through_blocks_sve
        .type   through_blocks_sve, %function
through_blocks_sve:
        stp     x29, x30, [sp, #-0x60]!
        stp     d8, d9, [sp, #0x10]
        stp     d10, d11, [sp, #0x20]
        stp     d12, d13, [sp, #0x30]
        stp     d14, d15, [sp, #0x40]
        str     x19, [sp, #0x50]
        mov     x19, x1
        add     x2, x1, #512
        ldr     p0, [x2]
        wrffr   p0.b
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        add     x2, x1, #32 * \reg
        ldr     p\reg, [x2]
        .endr
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        mov     x2, #256 * \reg
        add     x2, x0, x2
        ldr     z\reg, [x2]
        .endr
        go_through_blocks
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        mov     x2, #256 * \reg
        add     x2, x0, x2
        str     z\reg, [x2]
        .endr
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        add     x2, x19, #32 * \reg
        str     p\reg, [x2]
        .endr
        rdffr   p0.b
        add     x2, x19, #512
        str     p0, [x2]
        ldr     x19, [sp, #0x50]
        ldp     d14, d15, [sp, #0x40]
        ldp     d12, d13, [sp, #0x30]
        ldp     d10, d11, [sp, #0x20]
        ldp     d8, d9, [sp, #0x10]
        ldp     x29, x30, [sp], #0x60
        ret
        .size   through_blocks_sve, . - through_blocks_sve
        .section .note.GNU-stack, "", %progbits
