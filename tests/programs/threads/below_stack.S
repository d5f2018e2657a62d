// The parts of below_stack.c that must do without a stack.
        .text
        .balign 4

// long start_bare(long flags, void *stack, int *tid): a thread whose arguments lie below its stack pointer, as the
// parent has put them. It goes through blocks of several kinds and a system call before it reads them, and leaves what
// it finds in the words of the first one.
        .globl  start_bare
start_bare:
        adrp    x9, answer
        add     x9, x9, :lo12:answer
        stur    x9, [x1, #-8]
        mov     x9, #77
        stur    x9, [x1, #-16]
        mov     x9, #78
        stur    x9, [x1, #-24]
        stur    x9, [x1, #-32]
        stur    x9, [x1, #-64]
        str     x9, [x1, #-128]
        mov     x9, #-400
        mov     x10, #79
        str     x10, [x1, x9]
        stp     x19, x20, [sp, #-0x50]!
        stp     x21, x22, [sp, #0x10]
        stp     x23, x24, [sp, #0x20]
        stp     x25, x26, [sp, #0x30]
        stp     x27, x28, [sp, #0x40]
        mov     x4, x2
        mov     x2, #0
        mov     x3, #33
        mov     x22, #122
        mov     x25, #125
        mov     x28, #128
        mov     x7, #107
        mov     x17, #117
        fmov    d9, #9.0
        fmov    d31, #31.0
        cmp     x22, #122
        mov     x8, #220
        svc     #0
        cbnz    x0, 9f
        b.ne    8f
        cmp     x22, #122
        b.ne    8f
        tbz     x22, #1, 8f
        mrs     x9, tpidr_el0
        ldr     d2, 7f
        mov     x8, #178                // gettid
        svc     #0
        cbz     x0, 8f
        adr     x9, 1f
        br      x9
1:      ldur    x10, [sp, #-8]
        str     x3, [x10]
        str     x22, [x10, #8]
        str     x25, [x10, #16]
        str     x28, [x10, #24]
        str     x7, [x10, #32]
        str     x17, [x10, #40]
        str     d9, [x10, #48]
        str     d31, [x10, #56]
        ldur    x11, [sp, #-16]
        str     x11, [x10, #64]
        ldur    x11, [sp, #-24]
        str     x11, [x10, #72]
        ldur    x11, [sp, #-32]
        str     x11, [x10, #80]
        ldur    x11, [sp, #-64]
        str     x11, [x10, #88]
        ldur    x11, [sp, #-128]
        str     x11, [x10, #96]
        mov     x9, #-400
        ldr     x11, [sp, x9]
        str     x11, [x10, #104]
        stp     x29, x30, [sp, #-16]!   // From here on it has a stack like any other.
        ldp     x29, x30, [sp], #16
8:      mov     x0, #0
        mov     x8, #93
        svc     #0
9:      ldp     x27, x28, [sp, #0x40]
        ldp     x25, x26, [sp, #0x30]
        ldp     x23, x24, [sp, #0x20]
        ldp     x21, x22, [sp, #0x10]
        ldp     x19, x20, [sp], #0x50
        ret
        .balign 8
7:      .xword  0

// long start_spinning(long flags, void *stack, int *tid, volatile int *words, const stack_t *signals): a thread that
// uses no stack. It takes its signal stack, stores 1 in the first word and ends when the second one is set.
        .globl  start_spinning
start_spinning:
        mov     x10, x3
        mov     x11, x4
        mov     x4, x2
        mov     x2, #0
        mov     x3, #0
        mov     x8, #220
        svc     #0
        cbnz    x0, 9f
        mov     x0, x11
        mov     x1, #0
        mov     x8, #132                // sigaltstack
        svc     #0
        mov     w9, #1
        str     w9, [x10]
1:      ldr     w9, [x10, #4]
        cbz     w9, 1b
        mov     x0, #0
        mov     x8, #93
        svc     #0
9:      ret

// [[noreturn]] void unmap_and_exit(void *memory, long size): gives its own stack back and ends the thread.
        .globl  unmap_and_exit
unmap_and_exit:
        mov     x8, #215
        svc     #0
        cbnz    x0, 1f
        mov     x0, #0
        mov     x8, #93
        svc     #0
1:      brk     #1

        .bss
        .balign 16
        .globl  answer
answer: .skip   128

        .section .note.GNU-stack, "", %progbits
