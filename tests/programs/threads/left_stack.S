// What left_stack.c runs on a stack that it gives away.
        .text
        .balign 4

// A loop that becomes a trace, so that the code behind it begins a fragment.
        .macro  run_long
        mov     x19, #0
1:      add     x19, x19, #1
        cmp     x19, #600
        b.ne    1b
        .endm

// Fills 64 bytes below the stack pointer with a pattern, stores their address and the pattern at x0, and ends the
// thread. `number`, if it is given, goes into x8 in between.
        .macro  give_stack_away number
        sub     x9, sp, #64
        mov     x10, #0x5a5a
        str     x10, [x0, #8]
        .ifnb \number
        mov     x8, \number
        .endif
        stp     x10, x10, [x9]
        stp     x10, x10, [x9, #16]
        stp     x10, x10, [x9, #32]
        stp     x10, x10, [x9, #48]
        str     x9, [x0]
        mov     x0, #0
        svc     #0
        brk     #1
        .endm

// [[noreturn]] void leave_stack(uint64_t *words): ends the thread on a stack that it has given away.
        .globl  leave_stack
leave_stack:
        run_long
        give_stack_away #93

// [[noreturn]] void leave_stack_later(uint64_t *words): the same, and the number of the call is there long before the
// fragment of the SVC.
        .globl  leave_stack_later
leave_stack_later:
        mov     x8, #93
        run_long
        give_stack_away

// [[noreturn]] void leave_stack_by_function(uint64_t *words): the same, and the number comes from another register.
        .globl  leave_stack_by_function
leave_stack_by_function:
        mov     x7, #93
        b       1f
1:      give_stack_away x7

// long call_between(long number): the number of a thread's end stands in x8 shortly before another call is made.
        .globl  call_between
call_between:
        mov     x9, x0
        mov     x8, #93
        mov     x8, x9
        svc     #0
        ret

        .section .note.GNU-stack, "", %progbits
