// One pass of flops_f32x4_fadd is 128 operations.
// data word: 128
// overwrites: x1 flags v0 v2-v7 v16-v25
loop:
        subs    x1, x1, #1
        fadd    v2.4s, v2.4s, v1.4s
        fadd    v5.4s, v5.4s, v1.4s
        fadd    v17.4s, v17.4s, v1.4s
        fadd    v16.4s, v16.4s, v1.4s
        fadd    v24.4s, v24.4s, v1.4s
        fadd    v22.4s, v22.4s, v1.4s
        fadd    v23.4s, v23.4s, v1.4s
        fadd    v21.4s, v21.4s, v1.4s
        fadd    v3.4s, v3.4s, v1.4s
        fadd    v4.4s, v4.4s, v1.4s
        fadd    v7.4s, v7.4s, v1.4s
        fadd    v6.4s, v6.4s, v1.4s
        fadd    v20.4s, v20.4s, v1.4s
        fadd    v18.4s, v18.4s, v1.4s
        fadd    v19.4s, v19.4s, v1.4s
        fadd    v25.4s, v25.4s, v1.4s
        fadd    v2.4s, v2.4s, v0.4s
        fadd    v5.4s, v5.4s, v0.4s
        fadd    v17.4s, v17.4s, v0.4s
        fadd    v16.4s, v16.4s, v0.4s
        fadd    v24.4s, v24.4s, v0.4s
        fadd    v22.4s, v22.4s, v0.4s
        fadd    v23.4s, v23.4s, v0.4s
        fadd    v21.4s, v21.4s, v0.4s
        fadd    v3.4s, v3.4s, v0.4s
        fadd    v4.4s, v4.4s, v0.4s
        fadd    v7.4s, v7.4s, v0.4s
        fadd    v6.4s, v6.4s, v0.4s
        fadd    v20.4s, v20.4s, v0.4s
        fadd    v18.4s, v18.4s, v0.4s
        fadd    v19.4s, v19.4s, v0.4s
        fadd    v25.4s, v25.4s, v0.4s
        b.ne    loop
        fcvt    d0, s0
        ret
