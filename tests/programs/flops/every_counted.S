// Every instruction that counts as floating-point work, in all its sizes and shapes, and what stands beside them in the
// instruction set and does not count. Each group is void group(long rounds): one loop over its instructions, each run
// once a round. Results are of no interest; v8 to v15 are left alone. What a processor must have for a group:
// every_counted.c.
        .arch   armv8.6-a+fp16+fp16fml+sve2+f64mm+bf16+sme

        .macro  group name
        .globl  \name
        .globl  \name\()_end
        .balign 4
\name:
        .endm

        .macro  group_end name
        subs    x0, x0, #1
        b.ne    \name
        ret
\name\()_end:
        .endm

// Scalar floating-point data processing on registers of type t (h, s, d).
        .macro  float_instructions t
        .irp    name, fadd, fdiv, fmax, fmaxnm, fmin, fminnm, fmul, fnmul, fsub
        \name   \t\()0, \t\()1, \t\()2
        .endr
        .irp    name, fabs, fneg, frinta, frinti, frintm, frintn, frintp, frintx, frintz, fsqrt
        \name   \t\()0, \t\()1
        .endr
        .irp    name, fmadd, fmsub, fnmadd, fnmsub
        \name   \t\()0, \t\()1, \t\()2, \t\()3
        .endr
        .irp    name, fcmp, fcmpe
        \name   \t\()0, \t\()1
        \name   \t\()0, #0.0
        .endr
        .irp    name, fccmp, fccmpe
        \name   \t\()0, \t\()1, #4, eq
        .endr
        fcsel   \t\()0, \t\()1, \t\()2, ne
        .irp    name, fcvtas, fcvtau, fcvtms, fcvtmu, fcvtns, fcvtnu, fcvtps, fcvtpu, fcvtzs, fcvtzu
        \name   w9, \t\()1
        \name   x9, \t\()1
        .endr
        .irp    name, fcvtzs, fcvtzu
        \name   w9, \t\()1, #7
        \name   x9, \t\()1, #41
        .endr
        .endm

// Advanced SIMD on single elements of type t.
        .macro  simd_scalar_instructions t
        .irp    name, facge, facgt, fcmeq, fcmge, fcmgt, fmulx, frecps, frsqrts
        \name   \t\()0, \t\()1, \t\()2
        .endr
        .irp    name, fcmeq, fcmge, fcmgt, fcmle, fcmlt
        \name   \t\()0, \t\()1, #0.0
        .endr
        .irp    name, fcvtas, fcvtau, fcvtms, fcvtmu, fcvtns, fcvtnu, fcvtps, fcvtpu, fcvtzs, fcvtzu
        \name   \t\()0, \t\()1
        .endr
        .irp    name, fcvtzs, fcvtzu
        \name   \t\()0, \t\()1, #5
        .endr
        .irp    name, fmla, fmls, fmul, fmulx
        \name   \t\()0, \t\()1, v2.\t\()[1]
        .endr
        .irp    name, faddp, fmaxnmp, fmaxp, fminnmp, fminp
        \name   \t\()0, v1.2\t
        .endr
        .endm

// Advanced SIMD on whole vectors of n elements of type t.
        .macro  vector_instructions n, t
        .irp    name, fadd, fdiv, fmax, fmaxnm, fmin, fminnm, fmul, fmulx, fsub, facge, facgt, fcmeq, fcmge, fcmgt, \
                faddp, fmaxnmp, fmaxp, fminnmp, fminp, fmla, fmls, frecps, frsqrts
        \name   v0.\n\()\t, v1.\n\()\t, v2.\n\()\t
        .endr
        .irp    name, fabs, fneg, frinta, frinti, frintm, frintn, frintp, frintx, frintz, fsqrt, fcvtas, fcvtau, \
                fcvtms, fcvtmu, fcvtns, fcvtnu, fcvtps, fcvtpu, fcvtzs, fcvtzu
        \name   v0.\n\()\t, v1.\n\()\t
        .endr
        .irp    name, fcmeq, fcmge, fcmgt, fcmle, fcmlt
        \name   v0.\n\()\t, v1.\n\()\t, #0.0
        .endr
        .irp    name, fcvtzs, fcvtzu
        \name   v0.\n\()\t, v1.\n\()\t, #5
        .endr
        .irp    name, fmla, fmls, fmul, fmulx
        \name   v0.\n\()\t, v1.\n\()\t, v2.\t\()[1]
        .endr
        .endm

        .macro  reductions n, t
        .irp    name, fmaxnmv, fmaxv, fminnmv, fminv
        \name   \t\()0, v1.\n\()\t
        .endr
        .endm

        .text
        group   counted_scalars
        .irp    t, s, d
        float_instructions \t
        .endr
        group_end counted_scalars

        group   counted_half_scalars
        float_instructions h
        group_end counted_half_scalars

        group   counted_simd_scalars
        .irp    t, s, d
        simd_scalar_instructions \t
        .endr
        fcvtxn  s0, d1
        group_end counted_simd_scalars

        group   counted_half_simd_scalars
        simd_scalar_instructions h
        group_end counted_half_simd_scalars

        group   counted_vectors
        vector_instructions 2, s
        vector_instructions 4, s
        vector_instructions 2, d
        reductions 4, s
        fcvtl   v0.4s, v1.4h
        fcvtl2  v0.4s, v1.8h
        fcvtl   v0.2d, v1.2s
        fcvtl2  v0.2d, v1.4s
        fcvtn   v0.4h, v1.4s
        fcvtn2  v0.8h, v1.4s
        fcvtn   v0.2s, v1.2d
        fcvtn2  v0.4s, v1.2d
        fcvtxn  v0.2s, v1.2d
        fcvtxn2 v0.4s, v1.2d
        group_end counted_vectors

        group   counted_half_vectors
        vector_instructions 4, h
        vector_instructions 8, h
        reductions 4, h
        reductions 8, h
        group_end counted_half_vectors

// The SVE forms count with the multiplier of the counted instruction before them in their block: here with none before,
        group   counted_sve
        .irp    t, h, s, d
        fmla    z0.\t, z1.\t, z2.\t[1]
        fmls    z0.\t, z1.\t, z2.\t[1]
        fmul    z0.\t, z1.\t, z2.\t[1]
        .endr
        group_end counted_sve

// and here with one of multiplier 2 and one of 1 before them.
        group   counted_sve_after_others
        fmadd   d0, d1, d2, d3
        fmla    z0.d, z1.d, z2.d[0]
        fmul    z0.s, z1.s, z2.s[3]
        fadd    d0, d1, d2
        fmls    z0.h, z1.h, z2.h[7]
        fmul    z0.d, z1.d, z2.d[1]
        group_end counted_sve_after_others

        group   uncounted_base
        .irp    t, s, d
        fmov    \t\()0, \t\()1
        fmov    \t\()0, #1.5
        fabd    \t\()0, \t\()1, \t\()2
        frecpe  \t\()0, \t\()1
        frecpx  \t\()0, \t\()1
        frsqrte \t\()0, \t\()1
        .irp    name, scvtf, ucvtf
        \name   \t\()0, w9
        \name   \t\()0, x9
        \name   \t\()0, w9, #3
        \name   \t\()0, x9, #3
        \name   \t\()0, \t\()1
        \name   \t\()0, \t\()1, #5
        .endr
        .endr
        fmov    w9, s0
        fmov    s0, w9
        fmov    x9, d0
        fmov    d0, x9
        fmov    x9, v0.d[1]
        fmov    v0.d[1], x9
        fcvt    s0, d1
        fcvt    d0, s1
        fcvt    h0, s1
        fcvt    h0, d1
        fcvt    s0, h1
        fcvt    d0, h1
        .irp    shape, 2s, 4s, 2d
        fabd    v0.\shape, v1.\shape, v2.\shape
        frecpe  v0.\shape, v1.\shape
        frsqrte v0.\shape, v1.\shape
        scvtf   v0.\shape, v1.\shape
        ucvtf   v0.\shape, v1.\shape
        scvtf   v0.\shape, v1.\shape, #5
        ucvtf   v0.\shape, v1.\shape, #5
        fmov    v0.\shape, #2.0
        .endr
        urecpe  v0.4s, v1.4s
        ursqrte v0.4s, v1.4s
        add     v0.4s, v1.4s, v2.4s
        mla     v0.4s, v1.4s, v2.4s
        mul     v0.4s, v1.4s, v2.s[1]
        abs     d0, d1
        neg     v0.2d, v1.2d
        smaxv   s0, v1.4s
        addp    d0, v1.2d
        movi    v0.4s, #1
        mvni    v0.4s, #1
        add     x9, x9, #1
        madd    x9, x9, x9, x9
        group_end uncounted_base

// FMOV of a constant to a vector of halves has words of the classifier's row of a conversion to fixed-point, which
// counts.
        group   uncounted_halves
        fmov    h0, h1
        fmov    h0, #1.5
        fmov    w9, h0
        fmov    h0, w9
        fmov    x9, h0
        fmov    h0, x9
        fabd    h0, h1, h2
        frecpe  h0, h1
        frecpx  h0, h1
        frsqrte h0, h1
        .irp    name, scvtf, ucvtf
        \name   h0, w9
        \name   h0, x9
        \name   h0, w9, #3
        \name   h0, x9, #3
        \name   h0, h1
        \name   h0, h1, #5
        .endr
        .irp    shape, 4h, 8h
        fabd    v0.\shape, v1.\shape, v2.\shape
        frecpe  v0.\shape, v1.\shape
        frsqrte v0.\shape, v1.\shape
        scvtf   v0.\shape, v1.\shape
        ucvtf   v0.\shape, v1.\shape
        scvtf   v0.\shape, v1.\shape, #5
        ucvtf   v0.\shape, v1.\shape, #5
        fmov    v0.\shape, #2.0
        .endr
        group_end uncounted_halves

        group   uncounted_complex
        .irp    shape, 2s, 4s, 2d
        fcadd   v0.\shape, v1.\shape, v2.\shape, #90
        fcmla   v0.\shape, v1.\shape, v2.\shape, #180
        .endr
        fcmla   v0.4s, v1.4s, v2.s[0], #90
        fjcvtzs w9, d1
        group_end uncounted_complex

        group   uncounted_half_products
        fmlal   v0.2s, v1.2h, v2.2h
        fmlal   v0.4s, v1.4h, v2.4h
        fmlal2  v0.4s, v1.4h, v2.4h
        fmlsl   v0.4s, v1.4h, v2.4h
        fmlsl2  v0.4s, v1.4h, v2.4h
        fmlal   v0.4s, v1.4h, v2.h[1]
        fmlal2  v0.4s, v1.4h, v2.h[1]
        fmlsl   v0.4s, v1.4h, v2.h[1]
        fmlsl2  v0.4s, v1.4h, v2.h[1]
        group_end uncounted_half_products

        group   uncounted_bounded_roundings
        .irp    name, frint32x, frint32z, frint64x, frint64z
        \name   s0, s1
        \name   d0, d1
        \name   v0.2s, v1.2s
        \name   v0.4s, v1.4s
        \name   v0.2d, v1.2d
        .endr
        group_end uncounted_bounded_roundings

        group   uncounted_bfloat
        bfcvt   h0, s1
        bfcvtn  v0.4h, v1.4s
        bfcvtn2 v0.8h, v1.4s
        bfdot   v0.4s, v1.8h, v2.8h
        bfdot   v0.4s, v1.8h, v2.2h[1]
        bfmlalb v0.4s, v1.8h, v2.8h
        bfmlalt v0.4s, v1.8h, v2.h[1]
        bfmmla  v0.4s, v1.8h, v2.8h
        group_end uncounted_bfloat

        group   uncounted_sve
        ptrue   p0.b
        .irp    t, h, s, d
        fadd    z0.\t, z1.\t, z2.\t
        fadd    z0.\t, p0/m, z0.\t, z2.\t
        fadd    z0.\t, p0/m, z0.\t, #1.0
        fsub    z0.\t, z1.\t, z2.\t
        fmul    z0.\t, z1.\t, z2.\t
        fmul    z0.\t, p0/m, z0.\t, z2.\t
        fmul    z0.\t, p0/m, z0.\t, #2.0
        fdiv    z0.\t, p0/m, z0.\t, z2.\t
        fmla    z0.\t, p0/m, z1.\t, z2.\t
        fmls    z0.\t, p0/m, z1.\t, z2.\t
        fmad    z0.\t, p0/m, z1.\t, z2.\t
        fnmla   z0.\t, p0/m, z1.\t, z2.\t
        fmax    z0.\t, p0/m, z0.\t, z2.\t
        fabs    z0.\t, p0/m, z1.\t
        fneg    z0.\t, p0/m, z1.\t
        fsqrt   z0.\t, p0/m, z1.\t
        frinta  z0.\t, p0/m, z1.\t
        frecps  z0.\t, z1.\t, z2.\t
        frsqrts z0.\t, z1.\t, z2.\t
        fmulx   z0.\t, p0/m, z0.\t, z2.\t
        faddv   \t\()0, p0, z1.\t
        fmaxv   \t\()0, p0, z1.\t
        fcmeq   p1.\t, p0/z, z1.\t, #0.0
        fcmgt   p1.\t, p0/z, z1.\t, z2.\t
        fcmne   p1.\t, p0/z, z1.\t, z2.\t
        fcmuo   p1.\t, p0/z, z1.\t, z2.\t
        fcadd   z0.\t, p0/m, z0.\t, z2.\t, #90
        fcmla   z0.\t, p0/m, z1.\t, z2.\t, #90
        fcvtzs  z0.\t, p0/m, z1.\t
        scvtf   z0.\t, p0/m, z1.\t
        .endr
        fcvt    z0.s, p0/m, z1.d
        mla     z0.s, p0/m, z1.s, z2.s
        group_end uncounted_sve

        group   uncounted_sve2
        ptrue   p0.b
        .irp    t, h, s, d
        .irp    name, faddp, fmaxnmp, fmaxp, fminnmp, fminp
        \name   z0.\t, p0/m, z0.\t, z2.\t
        .endr
        .endr
        fmlalb  z0.s, z1.h, z2.h
        fmlalt  z0.s, z1.h, z2.h[1]
        fmlslb  z0.s, z1.h, z2.h
        fcvtlt  z0.s, p0/m, z1.h
        fcvtnt  z0.h, p0/m, z1.s
        flogb   z0.s, p0/m, z1.s
        mul     z0.s, z1.s, z2.s[1]
        mla     z0.s, z1.s, z2.s[1]
        group_end uncounted_sve2

// The mode is left before the loop ends, so that nothing else runs in it. Entering and leaving clear all vectors.
        group   uncounted_sme
        stp     d8, d9, [sp, #-64]!
        stp     d10, d11, [sp, #16]
        stp     d12, d13, [sp, #32]
        stp     d14, d15, [sp, #48]
        smstart
        ptrue   p0.b
        fmopa   za0.s, p0/m, p0/m, z1.s, z2.s
        fmops   za0.s, p0/m, p0/m, z1.s, z2.s
        fmopa   za0.s, p0/m, p0/m, z1.h, z2.h
        bfmopa  za0.s, p0/m, p0/m, z1.h, z2.h
        smstop
        ldp     d14, d15, [sp, #48]
        ldp     d12, d13, [sp, #32]
        ldp     d10, d11, [sp, #16]
        ldp     d8, d9, [sp], #64
        group_end uncounted_sme

        .section .note.GNU-stack, "", %progbits
