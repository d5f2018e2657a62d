// Instructions of every kind that the engine rewrites, in a number that is the same in every run: no library, no
// address and no environment that could change it.
        .text
        .globl  _start
_start:
        mov     x19, #300
1:      mov     x0, #6
        bl      recurse
        adr     x1, tail
        blr     x1
        adrp    x1, word
        add     x1, x1, :lo12:word
        .inst   0xf8bfc022              // ldapr x2, [x1]: unknown to the engine, in the middle of a block.
        .inst   0xf8bfc023              // ldapr x3, [x1]: and another one behind it.
        ldr     x4, word
        cmp     x2, x4
        b.ne    fail
        tst     x19, #1
        b.eq    2f
        mov     x8, #172                // getpid()
        svc     #0
        mov     x5, #1
        svc     #0                      // Again, in the middle of a block.
2:      tbz     x19, #1, 3f
        mrs     x6, tpidr_el0
        msr     tpidr_el0, x6
3:      sub     x19, x19, #1
        cbnz    x19, 1b
        mov     x0, #0
leave:  mov     x8, #94                 // exit_group(x0)
        svc     #0
fail:   mov     x0, #1
        b       leave

recurse:
        stp     x29, x30, [sp, #-16]!
        sub     x0, x0, #1
        cbz     x0, 4f
        bl      recurse
        b.al    4f
        nop
4:      ldp     x29, x30, [sp], #16
        ret

tail:   b       5f
        nop
5:      ret

        .balign 8
word:   .xword  0x0123456789abcdef
