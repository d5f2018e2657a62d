// Exclusive pairs whose content is known: 10 rounds of a pair with two instructions in between, of which every second
// round also makes a load and a store; a pair that CLREX gives up; a pair around cache maintenance.
        .text
        .globl  _start
_start:
        adr     x1, cell
        mov     x5, #10
.globl watched_load
.globl watched_store
watched_load:
        ldxr    w2, [x1]
        tbz     x5, #0, watched_store
        ldr     x3, [x1, #8]
        str     x3, [x1, #16]
watched_store:
        stxr    w4, w2, [x1]
        sub     x5, x5, #1
        cbnz    x5, watched_load

        ldaxp   x2, x3, [x1]
        clrex
        stlxp   w4, x2, x3, [x1]

.globl maintained_load
.globl maintained_store
maintained_load:
        ldxrb   w2, [x1]
        dc      cvau, x1
        ic      ivau, x1
maintained_store:
        stlxrb  w4, w2, [x1]
        mov     x0, #0
        mov     x8, #94
        svc     #0

        .data
        .balign 16
cell:   .xword  0, 0, 0, 0
        .section .note.GNU-stack, "", %progbits
