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
run_at_end:

        .section .note.GNU-stack, "", %progbits
