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
        .section .note.GNU-stack, "", %progbits
