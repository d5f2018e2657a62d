// Loops that become traces, left at each of their exits now and then.
        .text
        .balign 16
        .globl  counted_code, counted_code_end, counted_loop, counted_pairs, counted_calls
counted_code:

// long counted_loop(long rounds, const char *good, const char *bad). A round has an access in each of its blocks, and
// one of them is to `bad` in each 97th round. Exits of four kinds are taken in every 8th, 16th, 32nd and 64th round.
        .type   counted_loop, %function
counted_loop:
        mov     x3, #0                  // the round
        mov     x4, #0                  // the result
        mov     x9, #0                  // a number that counts to 97
1:      add     x3, x3, #1
        add     x9, x9, #1
        cmp     x9, #97
        csel    x9, xzr, x9, eq
        mov     x5, x1
        mov     x6, x1
        mov     x7, x1
        b.ne    2f
        tst     x3, #1
        csel    x5, x2, x1, ne
        csel    x7, x2, x1, eq
2:      ldrb    w8, [x5]
        add     x4, x4, x8
        and     x10, x3, #7
        cbz     x10, 11f
3:      ldrb    w8, [x6, #1]
        add     x4, x4, #2
        and     x10, x3, #15
        cmp     x10, #3
        b.eq    12f
4:      ldrb    w8, [x7, #2]
        add     x4, x4, x8
        b       5f
        nop
5:      add     x4, x4, #1
        and     x10, x3, #31
        sub     x10, x10, #9
        cbz     x10, 13f
6:      ldrb    w8, [x1, #3]
        tbnz    x3, #6, 14f
7:      add     x4, x4, x8
        cmp     x3, x0
        b.lo    1b
        mov     x0, x4
        ret
11:     add     x4, x4, #7
        b       3b
12:     add     x4, x4, #9
        tbz     x3, #5, 4b
        b       1b
13:     sub     x4, x4, #1
        b       6b
14:     add     x4, x4, #5
        cmp     x3, x0
        b.lo    1b
        b       7b

// long counted_pairs(long rounds, long *word)
        .type   counted_pairs, %function
counted_pairs:
        mov     x3, #0
        mov     x6, #0
1:      add     x3, x3, #1
        tbz     x3, #3, 2f
        add     x4, x4, #1
2:      ldaxr   x5, [x1]
        cbnz    x6, 9f                  // never
        add     x5, x5, #1
        stlxr   w7, x5, [x1]
        cbnz    w7, 2b
3:      ldxr    x5, [x1]
        tst     x3, #31
        b.eq    4f                      // leaves the pair now and then
        add     x5, x5, #1
        stxr    w7, x5, [x1]
        cbnz    w7, 3b
        b       5f
4:      clrex
        ldr     x5, [x1]
        add     x5, x5, #1
        str     x5, [x1]
5:      mov     x6, #0
        tbnz    x3, #62, 9f
        cmp     x3, x0
        b.lo    1b
9:      mov     x0, x3
        ret

// long counted_calls(long rounds, long number, long argument, long length): the call is made in each 8th round.
        .type   counted_calls, %function
counted_calls:
        mov     x9, x0
        mov     x8, x1
        mov     x10, x2
        mov     x11, x3
        mov     x3, #0
1:      add     x3, x3, #1
        tst     x3, #7
        b.ne    3f
        cbz     x9, 3f
        mov     x0, x10
        mov     x1, x11
        mov     x2, #5                  // PROT_READ | PROT_EXEC
        svc     #0
        add     x12, x12, x0
        cbz     x9, 3f
        add     x12, x12, #1
3:      tbnz    x3, #60, 4f
        add     x12, x12, #2
        cmp     x3, x9
        b.lo    1b
4:      mov     x0, x3
        ret
        .size   counted_calls, . - counted_calls
counted_code_end:
        .section .note.GNU-stack, "", %progbits
