// BR, BLR and RET through every register. The branch changes nothing but x30, if it links, and the register that holds
// its target.
#include "state.inc"

        .macro  through reg
        test    "br x\reg", \reg, 1f
        adr     x\reg, 1f
        br      x\reg
        udf     #1
1:
        end_test

        test    "ret x\reg", \reg, 1f
        adr     x\reg, 1f
        ret     x\reg
        udf     #2
1:
        end_test
        .endm

        .section .data.rel.ro.tests, "aw", %progbits
        .globl  tests, tests_end
        .balign 8
tests:
        .irp    reg, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        through \reg
        .endr
        .irp    reg, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30
        through \reg
        .endr

        .irp    reg, 0, 1, 2, 3, 8, 15, 16, 17, 18, 19, 28, 29
        test    "blr x\reg", \reg, 1f, 30, 2f
        adr     x\reg, 1f
        blr     x\reg
2:      udf     #3
1:
        end_test
        .endr

        test    "blr x30", 30, 2f
        adr     x30, 9f
        blr     x30
2:      udf     #4
        end_test

        test    "blr and ret, the target cached after the first of five rounds", 20, 0, 30, 2f
        mov     x20, #5
1:      adr     x16, 3f
        blr     x16
2:      sub     x20, x20, #1
        cbnz    x20, 1b
        adr     x16, 4f
        br      x16
3:      ret
4:      ldr     x16, =PATTERN + 16
        end_test
        .ltorg

        test    "one branch, two targets in turn", 20, 0, 21, 6
        mov     x20, #6
        mov     x21, #0
1:      adr     x1, 2f
        tbz     x20, #0, 4f
        adr     x1, 3f
4:      br      x1
2:      add     x21, x21, #2
        b       5f
3:      b       5f
5:      sub     x20, x20, #1
        cbnz    x20, 1b
        ldr     x1, =PATTERN + 1
        end_test
        .ltorg

        .section .data.rel.ro.tests, "aw", %progbits
tests_end:
        .section .note.GNU-stack, "", %progbits
