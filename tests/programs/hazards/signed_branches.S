// Branches to signed addresses, which they authenticate. Every register serves as the target, and all sorts of
// registers as the modifier. The address is signed in the register and removed from it at the target, so a register
// that the branch has changed, also the modifier's, shows as a wrong word.
#include "state.inc"
#define HWCAP_PACA (1 << 30)
        .arch   armv8.3-a

        .section .rodata.needed_hwcap, "a", %progbits
        .globl  needed_hwcap
        .balign 8
needed_hwcap:
        .xword  HWCAP_PACA

// One branch with key k (a or b), from x\reg to behind itself.
        .macro  jump k, reg, modifier
        .ifnc   x\reg, \modifier
        test    "bra\k x\reg, \modifier", \reg, 1f
        adr     x\reg, 1f
        paci\k  x\reg, \modifier
        bra\k   x\reg, \modifier
        udf     #1
1:      auti\k  x\reg, \modifier
        end_test
        .endif
        .endm

        .macro  call k, reg, modifier
        .ifnc   x\reg, \modifier
        .ifnc   x30, \modifier
        test    "blra\k x\reg, \modifier", \reg, 1f, 30, 2f
        adr     x\reg, 1f
        paci\k  x\reg, \modifier
        blra\k  x\reg, \modifier
2:      udf     #2
1:      auti\k  x\reg, \modifier
        end_test
        .endif
        .endif
        .endm

        .macro  without_modifier k, reg
        test    "bra\k\()z x\reg", \reg, 1f
        adr     x\reg, 1f
        paciz\k x\reg
        bra\k\()z x\reg
        udf     #3
1:      autiz\k x\reg
        end_test
        .endm

        .macro  call_without_modifier k, reg
        test    "blra\k\()z x\reg", \reg, 1f, 30, 2f
        adr     x\reg, 1f
        paciz\k x\reg
        blra\k\()z x\reg
2:      udf     #4
1:      autiz\k x\reg
        end_test
        .endm

// The link replaces the target, or the modifier.
        .macro  link_over k
        test    "blra\k x30, x5", 30, 2f
        adr     x30, 9f
        paci\k  x30, x5
        blra\k  x30, x5
2:      udf     #5
        end_test

        test    "blra\k\()z x30", 30, 2f
        adr     x30, 9f
        paciz\k x30
        blra\k\()z x30
2:      udf     #6
        end_test

        test    "blra\k x5, x30", 5, 1f, 30, 2f
        adr     x5, 1f
        paci\k  x5, x30
        blra\k  x5, x30
2:      udf     #7
1:      xpaci   x5
        end_test
        .endm

        .macro  give_back k
        test    "reta\k", 30, 1f
        adr     x30, 1f
        paci\k  x30, sp
        reta\k
        udf     #8
1:      auti\k  x30, sp
        end_test
        .endm

        .macro  every_modifier k, reg
        .irp    modifier, x0, x1, x2, x3, x30, sp
        jump    \k, \reg, \modifier
        call    \k, \reg, \modifier
        .endr
        without_modifier \k, \reg
        call_without_modifier \k, \reg
        .endm

        .section .data.rel.ro.tests, "aw", %progbits
        .globl  tests, tests_end
        .balign 8
tests:
        .irp    k, a, b
        .irp    reg, 0, 1, 2, 3, 8, 16, 17, 18, 29
        every_modifier \k, \reg
        .endr
        .irp    modifier, x0, x1, x2, x3, sp
        jump    \k, 30, \modifier
        .endr
        without_modifier \k, 30
        link_over \k
        give_back \k
        .endr

        test    "a signed call and return, the target cached after the first of five rounds", 20, 0, 30, 2f
        mov     x20, #5
1:      adr     x16, 3f
        paciza  x16
        blraaz  x16
2:      sub     x20, x20, #1
        cbnz    x20, 1b
        adr     x16, 4f
        br      x16
3:      pacibsp
        retab
4:      xpaci   x30
        ldr     x16, =PATTERN + 16
        end_test
        .ltorg

        .section .data.rel.ro.tests, "aw", %progbits
tests_end:
        .section .note.GNU-stack, "", %progbits
