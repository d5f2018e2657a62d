// Every load of a literal, into registers that the rewriting itself uses and others, from before and behind; PRFM of a
// literal; ADR and ADRP.
#include "state.inc"

        .section .data.rel.ro.tests, "aw", %progbits
        .globl  tests, tests_end
        .balign 8
tests:
        .text
        .balign 16
literals:
        .xword  0x8877665544332211, 0xffeeddccbbaa9988
unaligned_pair:
        .4byte  0x80000001, 0x7fffffff, 0x12345678

        .macro  into reg
        test    "ldr x\reg", \reg, 0x8877665544332211
        ldr     x\reg, literals
        end_test
        test    "ldr w\reg", \reg, 0xbbaa9988
        ldr     w\reg, literals + 8
        end_test
        test    "ldrsw x\reg", \reg, 0xffffffff80000001
        ldrsw   x\reg, unaligned_pair
        end_test
        test    "ldrsw x\reg, positive", \reg, 0x7fffffff
        ldrsw   x\reg, unaligned_pair + 4
        end_test
        test    "ldr x\reg, not aligned", \reg, 0x123456787fffffff
        ldr     x\reg, unaligned_pair + 4
        end_test
        test    "ldr x\reg, behind", \reg, 0x5a5a5a5a00000001
        ldr     x\reg, 1f
        b       9f
1:      .xword  0x5a5a5a5a00000001
        end_test
        test    "adr x\reg", \reg, 1f - 1
        adr     x\reg, 1f - 1
1:
        end_test
        test    "adr x\reg, its own", \reg, 1f
1:      adr     x\reg, .
        end_test
        .endm
        .irp    reg, 0, 1, 2, 15, 16, 18, 29, 30
        into    \reg
        .endr

        test    "into the zero register"
        ldr     xzr, literals
        ldr     wzr, literals
        ldrsw   xzr, literals
        adr     xzr, .
        end_test

        .macro  into_vector reg
        test    "ldr s\reg", 34 + 2 * \reg, 0x44332211, 35 + 2 * \reg, 0
        ldr     s\reg, literals
        end_test
        test    "ldr d\reg", 34 + 2 * \reg, 0xffeeddccbbaa9988, 35 + 2 * \reg, 0
        ldr     d\reg, literals + 8
        end_test
        test    "ldr q\reg", 34 + 2 * \reg, 0x8877665544332211, 35 + 2 * \reg, 0xffeeddccbbaa9988
        ldr     q\reg, literals
        end_test
        .endm
        .irp    reg, 0, 1, 7, 31
        into_vector \reg
        .endr

        .irp    operation, pldl1keep, pldl2strm, plil3keep, pstl1strm, #31
        test    "prfm \operation"
        prfm    \operation, literals
        end_test
        .endr

        test    "adrp", 0, STATE_page, 30, STATE_page
        adrp    x0, page
        adrp    x30, page + 4095
        end_test

        .section .data.rel.ro.tests, "aw", %progbits
tests_end:
        .bss
        .balign 4096
page:   .skip   4096
        .equ    STATE_page, page
        .section .note.GNU-stack, "", %progbits
