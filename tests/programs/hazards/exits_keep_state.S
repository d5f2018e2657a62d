// The state of the machine across every way out of a block, and back in: branches of every kind, calls, system calls,
// loops that run hot, and so many new blocks that the code cache is flushed under way.
#include "state.inc"

        .section .data.rel.ro.tests, "aw", %progbits
        .globl  tests, tests_end
        .balign 8
tests:

        test    "nothing"
        end_test

        test    "direct branch"
        b       1f
        udf     #1
1:      b       9f
        udf     #1
        end_test

// The flags are N and C. Each branch skips the word behind it and comes to a block of its own.
        test    "conditions that hold"
        .irp    cond, ne, cs, mi, vc, hi, lt, le, al
        b.\cond 1f
        udf     #2
1:
        .endr
        end_test

        test    "conditions that do not hold"
        .irp    cond, eq, cc, pl, vs, ls, ge, gt
        b.\cond 2f
        .endr
        b       9f
2:      udf     #3
        end_test

        test    "compare and branch"
        cbnz    x0, 1f
        udf     #4
1:      cbz     w1, 2f
        cbz     xzr, 3f
2:      udf     #5
3:      cbnz    w30, 9f
        udf     #6
        end_test

        test    "test bit and branch"
        tbz     x0, #1, 1f
        udf     #7
1:      tbnz    x1, #0, 2f
        udf     #8
2:      tbz     x30, #63, 3f
        udf     #9
3:      tbnz    x30, #56, 9f
        udf     #10
        end_test

        test    "call", 30, 1f
        bl      9f
1:      udf     #11
        end_test

        test    "call of the next instruction", 30, 9f
        bl      9f
        end_test

        test    "call and return", 30, 1f
        bl      2f
1:      b       9f
2:      cbnz    x17, 3f
        udf     #12
3:      ret
        end_test

// set_tid_address returns a thread id; its number and the argument are the code's.
        test    "system calls", 0, -38, 8, 1000
        mov     x8, #1000
        svc     #0
        svc     #0x1234
        end_test

        test    "system call that succeeds", 0, 0, 8, 124
        mov     x8, #124        // sched_yield
        svc     #0
        end_test

// 3000 rounds, so that the counter of every block runs down several times.
        test    "hot loop", 20, 0
        mov     x20, #3000
1:      tbz     x20, #2, 2f
        b       3f
2:      cbz     xzr, 3f
        udf     #13
3:      sub     x20, x20, #1
        b.eq    4f
4:      cbnz    x20, 1b
        end_test

        test    "blocks by the ten thousands"
        .rept   60500
        b       8f
8:
        .endr
        end_test

        .section .data.rel.ro.tests, "aw", %progbits
tests_end:
        .section .note.GNU-stack, "", %progbits
