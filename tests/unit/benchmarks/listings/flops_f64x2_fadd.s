// One pass of flops_f64x2_fadd is 64 operations.
// data word: 64
// overwrites: x1 flags v0 v2-v7 v16-v25
loop:
        subs    x1, x1, #1
        fadd    v2.2d, v2.2d, v1.2d
        fadd    v5.2d, v5.2d, v1.2d
        fadd    v17.2d, v17.2d, v1.2d
        fadd    v16.2d, v16.2d, v1.2d
        fadd    v24.2d, v24.2d, v1.2d
        fadd    v22.2d, v22.2d, v1.2d
        fadd    v23.2d, v23.2d, v1.2d
        fadd    v21.2d, v21.2d, v1.2d
        fadd    v3.2d, v3.2d, v1.2d
        fadd    v4.2d, v4.2d, v1.2d
        fadd    v7.2d, v7.2d, v1.2d
        fadd    v6.2d, v6.2d, v1.2d
        fadd    v20.2d, v20.2d, v1.2d
        fadd    v18.2d, v18.2d, v1.2d
        fadd    v19.2d, v19.2d, v1.2d
        fadd    v25.2d, v25.2d, v1.2d
        fadd    v2.2d, v2.2d, v0.2d
        fadd    v5.2d, v5.2d, v0.2d
        fadd    v17.2d, v17.2d, v0.2d
        fadd    v16.2d, v16.2d, v0.2d
        fadd    v24.2d, v24.2d, v0.2d
        fadd    v22.2d, v22.2d, v0.2d
        fadd    v23.2d, v23.2d, v0.2d
        fadd    v21.2d, v21.2d, v0.2d
        fadd    v3.2d, v3.2d, v0.2d
        fadd    v4.2d, v4.2d, v0.2d
        fadd    v7.2d, v7.2d, v0.2d
        fadd    v6.2d, v6.2d, v0.2d
        fadd    v20.2d, v20.2d, v0.2d
        fadd    v18.2d, v18.2d, v0.2d
        fadd    v19.2d, v19.2d, v0.2d
        fadd    v25.2d, v25.2d, v0.2d
        b.ne    loop
        fcvt    d0, s0
        ret
