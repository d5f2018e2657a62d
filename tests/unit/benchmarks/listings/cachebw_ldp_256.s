// One pass of cachebw_ldp_256 touches 256 bytes.
// data word: 256
// overwrites: x2 x12 x13 x14 flags v0-v7 v16-v23
        mov     x12, x0
        mov     w13, #0
        lsl     x2, x2, #2
loop:
        add     w13, w13, #1
        ldp     q0, q1, [x12]
        ldp     q2, q3, [x12, #0x20]
        ldp     q4, q5, [x12, #0x40]
        ldp     q6, q7, [x12, #0x60]
        ldp     q23, q22, [x12, #0x80]
        ldp     q21, q20, [x12, #0xa0]
        ldp     q19, q18, [x12, #0xc0]
        ldp     q17, q16, [x12, #0xe0]
        add     x12, x12, #0x100
        sub     x14, x12, x0
        cmp     x14, x2
        csel    x12, x12, x0, ne
        cmp     w1, w13
        b.ne    loop
        ret
