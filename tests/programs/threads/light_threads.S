// The switch of light_threads.c.
        .text
        .balign 4

// void switch_stack(void **from, void *to): saves what a C function keeps for its caller on the stack in use, leaves
// the stack pointer in *from, and takes up the stack whose pointer is `to`.
//
//   Frame, from sp up: x19 to x30 0x00; d8 to d15 0x60. Size 0xa0.
        .globl  switch_stack
switch_stack:
        stp     x19, x20, [sp, #-0xa0]!
        stp     x21, x22, [sp, #0x10]
        stp     x23, x24, [sp, #0x20]
        stp     x25, x26, [sp, #0x30]
        stp     x27, x28, [sp, #0x40]
        stp     x29, x30, [sp, #0x50]
        stp     d8, d9, [sp, #0x60]
        stp     d10, d11, [sp, #0x70]
        stp     d12, d13, [sp, #0x80]
        stp     d14, d15, [sp, #0x90]
        mov     x9, sp
        str     x9, [x0]
        mov     sp, x1
        ldp     x21, x22, [sp, #0x10]
        ldp     x23, x24, [sp, #0x20]
        ldp     x25, x26, [sp, #0x30]
        ldp     x27, x28, [sp, #0x40]
        ldp     x29, x30, [sp, #0x50]
        ldp     d8, d9, [sp, #0x60]
        ldp     d10, d11, [sp, #0x70]
        ldp     d12, d13, [sp, #0x80]
        ldp     d14, d15, [sp, #0x90]
        ldp     x19, x20, [sp], #0xa0
        ret

        .section .note.GNU-stack, "", %progbits
