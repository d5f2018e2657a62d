// A load that faults between two instructions of a block, 10 times; the handler steps over it.
        .global _start, counted_begin, counted_end
_start:
        mov     x0, #11         // rt_sigaction(SIGSEGV, action, 0, 8)
        adr     x1, action
        adr     x3, handler
        str     x3, [x1]
        mov     x2, #0
        mov     x3, #8
        mov     x8, #134
        svc     #0
        mov     x20, #10
        mov     x1, #0
counted_begin:
        add     x2, x2, #1
        ldr     x0, [x1]
        add     x2, x2, #1
        subs    x20, x20, #1
        b.ne    counted_begin
counted_end:
        mov     x0, #0
        mov     x8, #94
        svc     #0
handler:                        // x2 is the context; its pc stands at 440.
        ldr     x0, [x2, #440]
        add     x0, x0, #4
        str     x0, [x2, #440]
        ret
        .data
        .balign 8
action:
        .quad   0, 4, 0, 0      // handler, SA_SIGINFO, no restorer, no mask
