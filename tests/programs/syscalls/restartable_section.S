// long restartable_section(volatile unsigned long *rseq_cs, long spins): a restartable sequence that counts down.
// Returns 0 if it came to its end. Returns 1 if it was interrupted, and the kernel sent the thread to the abort
// handler, which the signature precedes.
        .text
        .globl  restartable_section
        .type   restartable_section, %function
restartable_section:
        adrp    x2, descriptor
        add     x2, x2, :lo12:descriptor
        str     x2, [x0]
1:      subs    x1, x1, #1
        b.ne    1b
2:      str     xzr, [x0]
        mov     x0, #0
        ret
        .inst   0xd428bc00
3:      mov     x0, #1
        ret

        .section .data.rel.ro, "aw", %progbits
        .balign 32
descriptor:
        .word   0, 0                    // version, flags
        .xword  1b, 2b - 1b, 3b
        .section .note.GNU-stack, "", %progbits
