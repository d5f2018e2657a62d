// A loop for each kind of access that may fault. Each is a function
//   long loop_NAME(char *const *places, long count)
// that makes the access at_NAME to one place after another and returns 2 * count. At the access x2 is the place, x5 the
// address of the access, x6 the thread pointer, x7 the literal 0x123456789abcdef0, and x9 an odd number that counts the
// rounds.
        .text

        .macro  fault_loop name, access:vararg
        .globl  loop_\name, at_\name
        .type   loop_\name, %function
loop_\name:
        stp     x29, x30, [sp, #-16]!
        mov     x9, #0
1:      ldr     x2, [x0], #8
        adr     x5, at_\name
        mrs     x6, tpidr_el0
        ldr     x7, 2f
        add     x9, x9, #1
at_\name:
        \access
        add     x9, x9, #1
        subs    x1, x1, #1
        b.ne    1b
        mov     x0, x9
        ldp     x29, x30, [sp], #16
        ret
        .balign 8
2:      .xword  0x123456789abcdef0
        .endm

        fault_loop load, ldr x3, [x2]
        fault_loop store, str x9, [x2, #8]
        fault_loop pair, ldp x3, x4, [x2, #16]!
        fault_loop vector, str q3, [x2, #32]
        fault_loop exclusive, ldxr x3, [x2]
        fault_loop structures, ld4 {v0.4s, v1.4s, v2.4s, v3.4s}, [x2]

// long call_to(void *code, long argument): calls the code with x1 to x7 set from 0x1101 up and the argument in x0. The
// call stands at at_call.
        .globl  call_to, at_call
        .type   call_to, %function
call_to:
        stp     x29, x30, [sp, #-16]!
        mov     x9, x0
        mov     x0, x1
        .irp    reg, 1, 2, 3, 4, 5, 6, 7
        mov     x\reg, #0x1100 + \reg
        .endr
at_call:
        blr     x9
        ldp     x29, x30, [sp], #16
        ret

        .section .note.GNU-stack, "", %progbits
