// One pass of flops_f32x4_fmla is 256 operations.
// data word: 256
// overwrites: x1 flags v0 v3-v7 v16-v26
loop:
        subs    x1, x1, #1
        fmla    v7.4s, v2.4s, v0.4s
        fmla    v16.4s, v2.4s, v0.4s
        fmla    v5.4s, v2.4s, v0.4s
        fmla    v4.4s, v2.4s, v0.4s
        fmla    v19.4s, v2.4s, v0.4s
        fmla    v21.4s, v2.4s, v0.4s
        fmla    v20.4s, v2.4s, v0.4s
        fmla    v22.4s, v2.4s, v0.4s
        fmla    v17.4s, v2.4s, v0.4s
        fmla    v18.4s, v2.4s, v0.4s
        fmla    v6.4s, v2.4s, v0.4s
        fmla    v3.4s, v2.4s, v0.4s
        fmla    v23.4s, v2.4s, v0.4s
        fmla    v24.4s, v2.4s, v0.4s
        fmla    v25.4s, v2.4s, v0.4s
        fmla    v26.4s, v2.4s, v0.4s
        fmla    v7.4s, v1.4s, v0.4s
        fmla    v16.4s, v1.4s, v0.4s
        fmla    v5.4s, v1.4s, v0.4s
        fmla    v4.4s, v1.4s, v0.4s
        fmla    v19.4s, v1.4s, v0.4s
        fmla    v21.4s, v1.4s, v0.4s
        fmla    v20.4s, v1.4s, v0.4s
        fmla    v22.4s, v1.4s, v0.4s
        fmla    v17.4s, v1.4s, v0.4s
        fmla    v18.4s, v1.4s, v0.4s
        fmla    v6.4s, v1.4s, v0.4s
        fmla    v3.4s, v1.4s, v0.4s
        fmla    v23.4s, v1.4s, v0.4s
        fmla    v24.4s, v1.4s, v0.4s
        fmla    v25.4s, v1.4s, v0.4s
        fmla    v26.4s, v1.4s, v0.4s
        b.ne    loop
        fcvt    d0, s0
        ret
