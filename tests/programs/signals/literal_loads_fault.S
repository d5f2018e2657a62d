// Literal loads whose literals lie in a page of their own. Each function sets the register of its load to a value, does
// the load, and returns the value that the register then has.
#define LARGEST_PAGE 0x10000

        .text
        .balign LARGEST_PAGE

// long NAME(long before): the value of `register` after the load of `form`.
        .macro  load_function name, form, register, width
        .globl  load_\name
        .globl  load_\name\()_at
load_\name:
        stp     x0, x1, [sp, #-32]!
        str     x30, [sp, #16]
        mov     \register, x0
load_\name\()_at:
        \form   \width, literal
        mov     x0, \register
        ldr     x30, [sp, #16]
        ldr     x1, [sp, #8]
        add     sp, sp, #32
        ret
        .endm

        load_function x0, ldr, x0, x0
        load_function x1, ldr, x1, x1
        load_function x5, ldr, x5, x5
        load_function w5, ldr, x5, w5
        load_function sw17, ldrsw, x17, x17
        load_function x30, ldr, x30, x30

        .balign LARGEST_PAGE
        .globl  literal
literal:
        .xword  0x123456789abcdef0
        .balign LARGEST_PAGE

        .section .note.GNU-stack, "", %progbits
