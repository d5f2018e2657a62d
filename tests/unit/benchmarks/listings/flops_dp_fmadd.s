// One pass of flops_dp_fmadd is 64 operations.
// data word: 64
// overwrites: x1 flags v0-v31
loop:
        subs    x1, x1, #1
        fmadd   d0, d1, d2, d0
        fmadd   d1, d2, d3, d1
        fmadd   d2, d3, d4, d2
        fmadd   d3, d4, d5, d3
        fmadd   d4, d5, d6, d4
        fmadd   d5, d6, d7, d5
        fmadd   d6, d7, d8, d6
        fmadd   d7, d8, d9, d7
        fmadd   d8, d9, d10, d8
        fmadd   d9, d10, d11, d9
        fmadd   d10, d11, d12, d10
        fmadd   d11, d12, d13, d11
        fmadd   d12, d13, d14, d12
        fmadd   d13, d14, d15, d13
        fmadd   d14, d15, d16, d14
        fmadd   d15, d16, d17, d15
        fmadd   d16, d17, d18, d16
        fmadd   d17, d18, d19, d17
        fmadd   d18, d19, d20, d18
        fmadd   d19, d20, d21, d19
        fmadd   d20, d21, d22, d20
        fmadd   d21, d22, d23, d21
        fmadd   d22, d23, d24, d22
        fmadd   d23, d24, d25, d23
        fmadd   d24, d25, d26, d24
        fmadd   d25, d26, d27, d25
        fmadd   d26, d27, d28, d26
        fmadd   d27, d28, d29, d27
        fmadd   d28, d29, d30, d28
        fmadd   d29, d30, d31, d29
        fmadd   d30, d31, d0, d30
        fmadd   d31, d0, d1, d31
        b.ne    loop
        ret
