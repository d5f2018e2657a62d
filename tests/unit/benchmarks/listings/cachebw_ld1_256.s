// One pass of cachebw_ld1_256 touches 256 bytes.
// data word: 256
// overwrites: x2 x12 x13 x14 flags v0-v15
        mov     x12, x0
        mov     w13, #0
        lsl     x2, x2, #2
loop:
        add     w13, w13, #1
        ld1     {v0.2d, v1.2d, v2.2d, v3.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v4.2d, v5.2d, v6.2d, v7.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v8.2d, v9.2d, v10.2d, v11.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v12.2d, v13.2d, v14.2d, v15.2d}, [x12]
        add     x12, x12, #0x40
        sub     x14, x12, x0
        cmp     x14, x2
        csel    x12, x12, x0, ne
        cmp     w1, w13
        b.ne    loop
        ret
