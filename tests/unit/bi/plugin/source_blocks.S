// Application code for the scanner to translate. Nobody runs it.
        .text
        .balign 64
        .macro  block name
        .globl  \name
\name:
        .endm

block source_plain
        add     x1, x2, x3
        sub     x4, x5, x6
        ret
block source_direct
        add     x1, x2, x3
        b       source_plain
block source_conditional
        cmp     x1, x2
        b.le    source_plain
block source_unknown
        add     x1, x2, x3
        .inst   0xf8bfc022              // ldapr x2, [x1], which the decoder does not know.
        ret
block source_syscall
        mov     x8, #172
        svc     #0
        add     x1, x2, x3
        ret
block source_long
        .rept   64
        add     x1, x2, x3
        .endr
        svc     #0
        ret
// The blocks behind the branch of a compare and swap, and what does not begin between the two halves of a pair.
block source_between
        add     x1, x1, #1
        stlxr   w9, x1, [x2]
        cbnz    w9, source_plain
block source_between_far
        .rept   31
        add     x1, x1, #1
        .endr
        stxr    w9, x1, [x2]
        cbnz    w9, source_plain
block source_between_further
        .rept   32
        add     x1, x1, #1
        .endr
        stxr    w9, x1, [x2]
        cbnz    w9, source_plain

// One word each that ends the look for a store, which stands behind it.
block source_no_pair
        .macro  before_store instruction:vararg
        \instruction
        stxr    w9, x1, [x2]
        .endm
        before_store ldxr x1, [x2]
        before_store ldaxrb w1, [x2]
        before_store ldxrh w1, [x2]
        before_store ldxp x1, x3, [x2]
        before_store ldaxp w1, w3, [x2]
        before_store svc #0
        before_store brk #1
        before_store clrex
        before_store b source_plain
        before_store bl source_plain
        before_store b.ne source_plain
        before_store cbz x3, source_plain
        before_store tbnz x3, #1, source_plain
        before_store br x3
        before_store blr x3
        before_store ret
        before_store .inst 0xd65f0bff   // retaa
        before_store .inst 0x74c08003   // cbbeq w3, w0
        before_store .inst 0xf8bfc022   // ldapr x2, [x1]
block source_no_pair_end

// Behind none of these is the store far.
block source_before_store
        before_store ldar x1, [x3]
        before_store stlr x1, [x3]
        before_store .inst 0xc8a37c41   // cas x3, x1, [x2]
        before_store .inst 0x48267c40   // casp x6, x7, x0, x1, [x2]
        before_store dmb ish
        before_store prfm pstl1keep, [x2]
        before_store adr x3, source_plain
block source_before_store_end

block source_stores
        stxr    w9, x1, [x2]
        stxr    w9, w1, [x2]
        stxrh   w9, w1, [x2]
        stxrb   w9, w1, [x2]
        stlxr   w9, x1, [x2]
        stlxr   w9, w1, [x2]
        stlxrh  w9, w1, [x2]
        stlxrb  w9, w1, [x2]
        stxp    w9, x1, x3, [x2]
        stxp    w9, w1, w3, [x2]
        stlxp   w9, x1, x3, [x2]
        stlxp   w9, w1, w3, [x2]
block source_stores_end
        ret
        .section .note.GNU-stack, "", %progbits
