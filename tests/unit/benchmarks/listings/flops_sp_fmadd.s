// One pass of flops_sp_fmadd is 64 operations.
// data word: 64
// overwrites: x1 flags v0-v31
loop:
        subs    x1, x1, #1
        fmadd   s0, s1, s2, s0
        fmadd   s1, s2, s3, s1
        fmadd   s2, s3, s4, s2
        fmadd   s3, s4, s5, s3
        fmadd   s4, s5, s6, s4
        fmadd   s5, s6, s7, s5
        fmadd   s6, s7, s8, s6
        fmadd   s7, s8, s9, s7
        fmadd   s8, s9, s10, s8
        fmadd   s9, s10, s11, s9
        fmadd   s10, s11, s12, s10
        fmadd   s11, s12, s13, s11
        fmadd   s12, s13, s14, s12
        fmadd   s13, s14, s15, s13
        fmadd   s14, s15, s16, s14
        fmadd   s15, s16, s17, s15
        fmadd   s16, s17, s18, s16
        fmadd   s17, s18, s19, s17
        fmadd   s18, s19, s20, s18
        fmadd   s19, s20, s21, s19
        fmadd   s20, s21, s22, s20
        fmadd   s21, s22, s23, s21
        fmadd   s22, s23, s24, s22
        fmadd   s23, s24, s25, s23
        fmadd   s24, s25, s26, s24
        fmadd   s25, s26, s27, s25
        fmadd   s26, s27, s28, s26
        fmadd   s27, s28, s29, s27
        fmadd   s28, s29, s30, s28
        fmadd   s29, s30, s31, s29
        fmadd   s30, s31, s0, s30
        fmadd   s31, s0, s1, s31
        b.ne    loop
        fcvt    d0, s31
        ret
