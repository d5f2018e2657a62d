// TPIDR_EL0 written and read through many registers, within a block, across blocks and across system calls. state.S
// puts the C library's value back before any C code runs.
#include "state.inc"

        .section .data.rel.ro.tests, "aw", %progbits
        .globl  tests, tests_end
        .balign 8
tests:
        .irp    reg, 0, 1, 2, 15, 16, 18, 29, 30
        test    "write x\reg and read", 3, PATTERN + \reg
        msr     tpidr_el0, x\reg
        mrs     x3, tpidr_el0
        end_test

        test    "write and read x\reg", \reg, PATTERN + 5
        msr     tpidr_el0, x5
        mrs     x\reg, tpidr_el0
        end_test

        test    "write x\reg, a block further read it", \reg, PATTERN + \reg
        msr     tpidr_el0, x\reg
        mov     x\reg, #0
        b       1f
1:      cbz     x\reg, 2f
2:      mrs     x\reg, tpidr_el0
        end_test
        .endr

        test    "the zero register", 3, 0
        msr     tpidr_el0, x5
        mrs     xzr, tpidr_el0
        msr     tpidr_el0, xzr
        mrs     x3, tpidr_el0
        end_test

        test    "across system calls", 3, PATTERN + 7
        msr     tpidr_el0, x7
        mov     x19, x8
        mov     x21, x0
        mov     x8, #124        // sched_yield
        svc     #0
        mov     x8, #1000
        svc     #0
        mov     x8, x19
        mov     x0, x21
        ldr     x19, =PATTERN + 19
        ldr     x21, =PATTERN + 21
        mrs     x3, tpidr_el0
        end_test
        .ltorg

        test    "other system registers are the machine's", 3, 0x03400000
        mrs     x3, fpcr
        mrs     x4, ctr_el0
        mrs     x5, dczid_el0
        mrs     x6, cntvct_el0
        ldr     x4, =PATTERN + 4
        ldr     x5, =PATTERN + 5
        ldr     x6, =PATTERN + 6
        end_test
        .ltorg

        .section .data.rel.ro.tests, "aw", %progbits
tests_end:
        .section .note.GNU-stack, "", %progbits
