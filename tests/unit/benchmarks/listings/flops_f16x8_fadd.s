// One pass of flops_f16x8_fadd is 256 operations.
// data word: 256
// overwrites: x1 flags v0 v2-v7 v16-v25
loop:
        subs    x1, x1, #1
        fadd    v2.8h, v2.8h, v1.8h
        fadd    v5.8h, v5.8h, v1.8h
        fadd    v17.8h, v17.8h, v1.8h
        fadd    v16.8h, v16.8h, v1.8h
        fadd    v24.8h, v24.8h, v1.8h
        fadd    v22.8h, v22.8h, v1.8h
        fadd    v23.8h, v23.8h, v1.8h
        fadd    v21.8h, v21.8h, v1.8h
        fadd    v3.8h, v3.8h, v1.8h
        fadd    v4.8h, v4.8h, v1.8h
        fadd    v7.8h, v7.8h, v1.8h
        fadd    v6.8h, v6.8h, v1.8h
        fadd    v20.8h, v20.8h, v1.8h
        fadd    v18.8h, v18.8h, v1.8h
        fadd    v19.8h, v19.8h, v1.8h
        fadd    v25.8h, v25.8h, v1.8h
        fadd    v2.8h, v2.8h, v0.8h
        fadd    v5.8h, v5.8h, v0.8h
        fadd    v17.8h, v17.8h, v0.8h
        fadd    v16.8h, v16.8h, v0.8h
        fadd    v24.8h, v24.8h, v0.8h
        fadd    v22.8h, v22.8h, v0.8h
        fadd    v23.8h, v23.8h, v0.8h
        fadd    v21.8h, v21.8h, v0.8h
        fadd    v3.8h, v3.8h, v0.8h
        fadd    v4.8h, v4.8h, v0.8h
        fadd    v7.8h, v7.8h, v0.8h
        fadd    v6.8h, v6.8h, v0.8h
        fadd    v20.8h, v20.8h, v0.8h
        fadd    v18.8h, v18.8h, v0.8h
        fadd    v19.8h, v19.8h, v0.8h
        fadd    v25.8h, v25.8h, v0.8h
        b.ne    loop
        fcvt    d0, s0
        ret
