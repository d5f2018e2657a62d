// One pass of cachebw_ldr_64 touches 64 bytes.
// data word: 64
// overwrites: x2 x12 x13 x14 flags v27-v30
        mov     x12, x0
        mov     w13, #0
        lsl     x2, x2, #2
loop:
        add     w13, w13, #1
        ldr     q27, [x12]
        ldr     q28, [x12, #0x10]
        ldr     q29, [x12, #0x20]
        ldr     q30, [x12, #0x30]
        add     x12, x12, #0x40
        sub     x14, x12, x0
        cmp     x14, x2
        csel    x12, x12, x0, ne
        cmp     w1, w13
        b.ne    loop
        ret
