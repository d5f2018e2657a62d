// Loops of every kind of exit, for signals to arrive in. Each is a function
//   long loop_NAME(volatile int *flag)
// that loops until the flag is 1 and returns how many registers do not hold any more what they held before the loop.
// Its place in memory is loop_NAME_begin up to loop_NAME_end; a handler may send those that never end to loop_NAME_out.
//   x0 to x2, x8 and x30 belong to the loop; x3 to x7, x9 to x29, q0 to q31, FPCR and the flags are looked after.
        .text

        .irp    n, 3, 4, 5, 6, 7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29
        .equ    pattern_low_\n, 0x1100 + \n
        .equ    pattern_high_\n, 0x2200 + \n
        .endr

        .macro  fill reg
        mov     x\reg, #pattern_low_\reg
        movk    x\reg, #pattern_high_\reg, lsl #48
        .endm

        .macro  examine reg
        mov     x2, #pattern_low_\reg
        movk    x2, #pattern_high_\reg, lsl #48
        cmp     x\reg, x2
        cinc    x1, x1, ne
        .endm

        .macro  fill_vector reg
        mov     x2, #(0x3300 + \reg)
        dup     v\reg\().2d, x2
        add     x2, x2, #0x400
        ins     v\reg\().d[1], x2
        .endm

        .macro  examine_vector reg
        umov    x3, v\reg\().d[0]
        umov    x4, v\reg\().d[1]
        mov     x2, #(0x3300 + \reg)
        cmp     x3, x2
        cinc    x1, x1, ne
        add     x2, x2, #0x400
        cmp     x4, x2
        cinc    x1, x1, ne
        .endm

        .macro  for_registers what
        .irp    reg, 3, 4, 5, 6, 7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29
        \what   \reg
        .endr
        .endm

        .macro  for_vectors what
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        \what\()_vector \reg
        .endr
        .endm

        .equ    FLAGS, 0x60000000        // Z and C
        .equ    ROUND_TO_ZERO, 0xc00000  // of FPCR

        .macro  loop name
        .globl  loop_\name, loop_\name\()_begin, loop_\name\()_end, loop_\name\()_out
        .type   loop_\name, %function
loop_\name:
        stp     x29, x30, [sp, #-0xb0]!
        stp     x19, x20, [sp, #0x10]
        stp     x21, x22, [sp, #0x20]
        stp     x23, x24, [sp, #0x30]
        stp     x25, x26, [sp, #0x40]
        stp     x27, x28, [sp, #0x50]
        stp     d8, d9, [sp, #0x60]
        stp     d10, d11, [sp, #0x70]
        stp     d12, d13, [sp, #0x80]
        stp     d14, d15, [sp, #0x90]
        for_vectors fill
        for_registers fill
        mov     x2, #ROUND_TO_ZERO
        msr     fpcr, x2
        mov     x2, #FLAGS
        msr     nzcv, x2
loop_\name\()_begin:
        .endm

        // `flags`: whether they are what they were.
        .macro  end_loop name, flags=1
loop_\name\()_end:
loop_\name\()_out:
        mrs     x2, nzcv
        mov     x1, #0
        .if     \flags
        mov     x0, #FLAGS
        cmp     x0, x2
        cinc    x1, x1, ne
        .endif
        for_registers examine
        for_vectors examine
        mrs     x2, fpcr
        mov     x3, #ROUND_TO_ZERO
        cmp     x2, x3
        cinc    x1, x1, ne
        msr     fpcr, xzr
        mov     x0, x1
        ldp     d14, d15, [sp, #0x90]
        ldp     d12, d13, [sp, #0x80]
        ldp     d10, d11, [sp, #0x70]
        ldp     d8, d9, [sp, #0x60]
        ldp     x27, x28, [sp, #0x50]
        ldp     x25, x26, [sp, #0x40]
        ldp     x23, x24, [sp, #0x30]
        ldp     x21, x22, [sp, #0x20]
        ldp     x19, x20, [sp, #0x10]
        ldp     x29, x30, [sp], #0xb0
        ret
        .endm

        loop    compare_zero
1:      ldr     w1, [x0]
        cbz     w1, 1b
        end_loop compare_zero

        loop    condition
1:      ldr     w1, [x0]
        cmp     w1, #1
        b.ne    1b
        end_loop condition

        loop    bit
1:      ldr     w1, [x0]
        tbz     w1, #0, 1b
        end_loop bit

        loop    two_blocks
1:      ldr     w1, [x0]
        cbnz    w1, 3f
        b       2f
        nop
2:      b       1b
3:
        end_loop two_blocks

        loop    br_x0
        mov     x1, x0
        adr     x0, 1f
1:      ldr     w2, [x1]
        cbnz    w2, 2f
        br      x0
2:
        end_loop br_x0

        loop    br_x1
        adr     x1, 1f
1:      ldr     w2, [x0]
        cbnz    w2, 2f
        br      x1
2:
        end_loop br_x1

        loop    br_x2
        adr     x2, 1f
1:      ldr     w1, [x0]
        cbnz    w1, 2f
        br      x2
2:
        end_loop br_x2

        loop    blr_x30
1:      ldr     w1, [x0]
        cbnz    w1, 2f
        adr     x30, 1b
        blr     x30
2:
        end_loop blr_x30

        loop    call
1:      bl      2f
        ldr     w1, [x0]
        cbz     w1, 1b
        b       3f
2:      ret
3:
        end_loop call

        loop    system_call
        mov     x1, x0
1:      mov     x8, #173 // getppid
        svc     #0
        ldr     w2, [x1]
        cbz     w2, 1b
        end_loop system_call

// 400 instructions a pass, more than one block of the cache holds.
        loop    long_block
1:      .rept   200
        add     x2, x2, #1
        eor     x1, x1, x2
        .endr
        ldr     w1, [x0]
        cbz     w1, 1b
        end_loop long_block

        loop    forever
1:      add     x1, x1, #1
        b       1b
        end_loop forever

        loop    forever_register
        adr     x2, 1f
1:      add     x1, x1, #1
        br      x2
        end_loop forever_register

        .arch   armv8.3-a
        loop    signed_call
1:      bl      2f
        ldr     w1, [x0]
        cbz     w1, 1b
        b       3f
2:      paciasp
        retaa
3:
        end_loop signed_call

        loop    forever_signed
        adr     x2, 1f
        paciza  x2
1:      add     x1, x1, #1
        braaz   x2
        end_loop forever_signed

        .section .note.GNU-stack, "", %progbits
