// One pass of flops_f16x8_fmla is 512 operations.
// data word: 512
// overwrites: x1 flags v0 v3-v7 v16-v26
loop:
        subs    x1, x1, #1
        fmla    v7.8h, v2.8h, v0.8h
        fmla    v16.8h, v2.8h, v0.8h
        fmla    v5.8h, v2.8h, v0.8h
        fmla    v4.8h, v2.8h, v0.8h
        fmla    v19.8h, v2.8h, v0.8h
        fmla    v21.8h, v2.8h, v0.8h
        fmla    v20.8h, v2.8h, v0.8h
        fmla    v22.8h, v2.8h, v0.8h
        fmla    v17.8h, v2.8h, v0.8h
        fmla    v18.8h, v2.8h, v0.8h
        fmla    v6.8h, v2.8h, v0.8h
        fmla    v3.8h, v2.8h, v0.8h
        fmla    v23.8h, v2.8h, v0.8h
        fmla    v24.8h, v2.8h, v0.8h
        fmla    v25.8h, v2.8h, v0.8h
        fmla    v26.8h, v2.8h, v0.8h
        fmla    v7.8h, v1.8h, v0.8h
        fmla    v16.8h, v1.8h, v0.8h
        fmla    v5.8h, v1.8h, v0.8h
        fmla    v4.8h, v1.8h, v0.8h
        fmla    v19.8h, v1.8h, v0.8h
        fmla    v21.8h, v1.8h, v0.8h
        fmla    v20.8h, v1.8h, v0.8h
        fmla    v22.8h, v1.8h, v0.8h
        fmla    v17.8h, v1.8h, v0.8h
        fmla    v18.8h, v1.8h, v0.8h
        fmla    v6.8h, v1.8h, v0.8h
        fmla    v3.8h, v1.8h, v0.8h
        fmla    v23.8h, v1.8h, v0.8h
        fmla    v24.8h, v1.8h, v0.8h
        fmla    v25.8h, v1.8h, v0.8h
        fmla    v26.8h, v1.8h, v0.8h
        b.ne    loop
        fcvt    d0, s0
        ret
