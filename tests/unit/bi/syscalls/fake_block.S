// In place of a new thread's first block: pops x0 and x1 as every block does, and hands the registers that it was
// entered with to fake_thread_body, on the thread's application stack.
        .text
        .balign 4
        .globl fake_block
fake_block:
        ldp     x0, x1, [sp], #16
        mov     x9, sp
        stp     x0, x1, [sp, #-0x50]!
        stp     x2, x3, [sp, #0x10]
        stp     x4, x8, [sp, #0x20]
        stp     x10, x21, [sp, #0x30]
        stp     x9, xzr, [sp, #0x40]
        mov     x0, sp
        bl      fake_thread_body
        .section .note.GNU-stack, "", %progbits
