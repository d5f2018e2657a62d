// Code that uses no stack, with sp where the caller says: branches of every kind, calls, a system call, a loop.
        .text
        .balign 4

// long run_at(void *sp): returns 0x1234 if everything went the right way. While it runs, x1 is 0x101, x2 is 0x102, and
// so on up to x7; x0 counts the parts; x30 is what the latest call has left.
        .globl  run_at
        .globl  run_at_end
run_at:
        mov     x15, sp
        mov     x16, x30
        mov     x17, x29
        mov     sp, x0
        mov     x0, #0x200
        mov     x1, #0x101
        mov     x2, #0x102
        mov     x3, #0x103
        mov     x4, #0x104
        mov     x5, #0x105
        mov     x6, #0x106
        mov     x7, #0x107
        cmp     x1, x2
        b.eq    fail
        b.ne    1f
        b       fail
1:      add     x0, x0, #1
        cbz     x1, fail
        cbnz    x1, 2f
        b       fail
2:      add     x0, x0, #1
        tbz     x1, #0, fail
        tbnz    x1, #0, 3f
        b       fail
3:      add     x0, x0, #1
        bl      called
        adr     x9, called
        blr     x9
        adr     x9, 4f
        br      x9
        b       fail
4:      add     x0, x0, #1
        // A system call: x0 is its result.
        mov     x10, x0
        mov     x8, #172 // getpid
        svc     #0
        cmp     x0, #1
        b.lt    fail
        mov     x0, x10
        // Runs often enough to be made into a trace.
        mov     x11, #600
5:      subs    x11, x11, #1
        b.ne    5b
        bl      called
        // What is rewritten: literals in this page and elsewhere, and the thread pointer.
        ldr     x9, near
        ldr     x10, far_literal
        cmp     x9, x10
        b.ne    fail
        ldr     q0, far_literal
        fmov    x9, d0
        cmp     x9, x10
        b.ne    fail
        mrs     x9, tpidr_el0
        msr     tpidr_el0, x10
        mrs     x11, tpidr_el0
        msr     tpidr_el0, x9
        cmp     x10, x11
        b.ne    fail
        // Pairs of exclusives: one in a block of its own, and one with a branch in between.
        adrp    x9, word
        add     x9, x9, :lo12:word
        mov     w12, #100
6:      ldaxr   w10, [x9]
        add     w10, w10, #1
        stlxr   w11, w10, [x9]
        cbnz    w11, 6b
7:      ldaxr   w10, [x9]
        cmp     w10, #0
        b.eq    fail
        add     w10, w10, #1
        stlxr   w11, w10, [x9]
        cbnz    w11, 7b
        subs    w12, w12, #1
        b.ne    6b
        ldr     w10, [x9]
        tbnz    w10, #0, fail
        // Words that use sp: a store above it, and an address.
        str     x1, [sp, #0]
        ldr     x9, [sp]
        cmp     x9, x1
        b.ne    fail
        mov     x9, sp
        add     x10, sp, #16
        sub     x10, x10, x9
        cmp     x10, #16
        b.ne    fail
        mov     x0, #0x1234
leave:
        mov     sp, x15
        mov     x29, x17
        mov     x30, x16
        ret
fail:
        mov     x0, #0
        b       leave
called:
        add     x0, x0, #1
        ret
        .balign 8
near:   .xword  0x123456789
run_at_end:

// Not returned to: what a handler leaves a stack overflow by. It takes the stack pointer from where main has left it.
        .globl  escape
escape:
        adrp    x0, outer_sp
        add     x0, x0, :lo12:outer_sp
        ldr     x1, [x0]
        mov     sp, x1
        b       back_from_escape

// long call_and_keep(long (*function)(long)): calls it, and returns its result, or that of the escape.
        .globl  call_and_keep
call_and_keep:
        stp     x29, x30, [sp, #-0x60]!
        stp     x19, x20, [sp, #0x10]
        stp     x21, x22, [sp, #0x20]
        stp     x23, x24, [sp, #0x30]
        stp     x25, x26, [sp, #0x40]
        stp     x27, x28, [sp, #0x50]
        adrp    x1, outer_sp
        add     x1, x1, :lo12:outer_sp
        mov     x2, sp
        str     x2, [x1]
        mov     x1, x0
        mov     x0, #1
        blr     x1
        b       1f
back_from_escape:
        mov     x0, #0x77
1:      ldp     x27, x28, [sp, #0x50]
        ldp     x25, x26, [sp, #0x40]
        ldp     x23, x24, [sp, #0x30]
        ldp     x21, x22, [sp, #0x20]
        ldp     x19, x20, [sp, #0x10]
        ldp     x29, x30, [sp], #0x60
        ret

// long push_at(void *sp): one push with sp at the end. Returns how far the handler has brought it.
        .globl  push_at
        .globl  the_push
push_at:
        mov     x15, sp
        mov     sp, x0
        mov     x0, #5
        add     x0, x0, #1
        b       the_push
the_push:
        stp     x29, x30, [sp, #-16]!
        add     x0, x0, #1
        mov     sp, x15
        ret

// long spin_at(void *sp, volatile int *word): until the word is not 0.
        .globl  spin_at
spin_at:
        mov     x15, sp
        mov     x16, x30
        mov     sp, x0
        mov     x0, #0
1:      add     x0, x0, #1
        bl      2f
        ldr     w2, [x1]
        cbz     w2, 1b
        mov     x2, sp
        mov     sp, x15
        mov     x0, x2
        mov     x30, x16
        ret
2:      ret

// long read_at(void *sp, int file, void *byte): reads one byte.
        .globl  read_at
read_at:
        mov     x15, sp
        mov     sp, x0
        mov     w0, w1
        mov     x1, x2
        mov     x2, #1
        mov     x8, #63 // read
        svc     #0
        mov     sp, x15
        ret

        .skip   8192
        .balign 16
far_literal:
        .xword  0x123456789, 0

        .data
        .balign 16
word:   .word   0, 0
outer_sp:
        .xword  0

        .section .note.GNU-stack, "", %progbits
