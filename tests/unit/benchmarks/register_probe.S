// extern "C" void probe_registers(const void* entry, register_file* file)
//   x0 entry, x1 file. Clobbers what a C function may; called by tests.
//
//   frame    sp+0    x29, x30      sp+16   x19, x20      sp+32   x21, x22      sp+48   x23, x24
//            sp+64   x25, x26      sp+80   x27, x28      sp+96   d8, d9        sp+112  d10, d11
//            sp+128  d12, d13      sp+144  d14, d15      sp+160  file, sp at the call
//
// register_file: x0-x30 at 0, sp_moved at 248, v0-v31 at 256.

        .equ    FILE, 160
        .equ    SP_MOVED, 248
        .equ    VECTORS, 256

        .text
        .p2align 4
        .global probe_registers
        .type   probe_registers, %function
probe_registers:
        stp     x29, x30, [sp, #-176]!
        stp     x19, x20, [sp, #16]
        stp     x21, x22, [sp, #32]
        stp     x23, x24, [sp, #48]
        stp     x25, x26, [sp, #64]
        stp     x27, x28, [sp, #80]
        stp     d8, d9, [sp, #96]
        stp     d10, d11, [sp, #112]
        stp     d12, d13, [sp, #128]
        stp     d14, d15, [sp, #144]
        mov     x2, sp
        stp     x1, x2, [sp, #FILE]
        mov     x16, x0
        mov     x30, x1

        add     x0, x30, #VECTORS
        ldp     q0, q1, [x0, #0]
        ldp     q2, q3, [x0, #32]
        ldp     q4, q5, [x0, #64]
        ldp     q6, q7, [x0, #96]
        ldp     q8, q9, [x0, #128]
        ldp     q10, q11, [x0, #160]
        ldp     q12, q13, [x0, #192]
        ldp     q14, q15, [x0, #224]
        ldp     q16, q17, [x0, #256]
        ldp     q18, q19, [x0, #288]
        ldp     q20, q21, [x0, #320]
        ldp     q22, q23, [x0, #352]
        ldp     q24, q25, [x0, #384]
        ldp     q26, q27, [x0, #416]
        ldp     q28, q29, [x0, #448]
        ldp     q30, q31, [x0, #480]
        ldp     x0, x1, [x30]
        ldp     x2, x3, [x30, #16]
        ldp     x4, x5, [x30, #32]
        ldp     x6, x7, [x30, #48]
        ldp     x8, x9, [x30, #64]
        ldp     x10, x11, [x30, #80]
        ldp     x12, x13, [x30, #96]
        ldp     x14, x15, [x30, #112]
        ldr     x17, [x30, #136]
        ldp     x18, x19, [x30, #144]
        ldp     x20, x21, [x30, #160]
        ldp     x22, x23, [x30, #176]
        ldp     x24, x25, [x30, #192]
        ldp     x26, x27, [x30, #208]
        ldp     x28, x29, [x30, #224]
        blr     x16

        ldr     x30, [sp, #FILE]
        stp     x0, x1, [x30]
        stp     x2, x3, [x30, #16]
        stp     x4, x5, [x30, #32]
        stp     x6, x7, [x30, #48]
        stp     x8, x9, [x30, #64]
        stp     x10, x11, [x30, #80]
        stp     x12, x13, [x30, #96]
        stp     x14, x15, [x30, #112]
        stp     x16, x17, [x30, #128]
        stp     x18, x19, [x30, #144]
        stp     x20, x21, [x30, #160]
        stp     x22, x23, [x30, #176]
        stp     x24, x25, [x30, #192]
        stp     x26, x27, [x30, #208]
        stp     x28, x29, [x30, #224]
        mov     x0, sp
        ldr     x1, [sp, #FILE + 8]
        sub     x0, x0, x1
        str     x0, [x30, #SP_MOVED]
        add     x0, x30, #VECTORS
        stp     q0, q1, [x0, #0]
        stp     q2, q3, [x0, #32]
        stp     q4, q5, [x0, #64]
        stp     q6, q7, [x0, #96]
        stp     q8, q9, [x0, #128]
        stp     q10, q11, [x0, #160]
        stp     q12, q13, [x0, #192]
        stp     q14, q15, [x0, #224]
        stp     q16, q17, [x0, #256]
        stp     q18, q19, [x0, #288]
        stp     q20, q21, [x0, #320]
        stp     q22, q23, [x0, #352]
        stp     q24, q25, [x0, #384]
        stp     q26, q27, [x0, #416]
        stp     q28, q29, [x0, #448]
        stp     q30, q31, [x0, #480]

        ldp     x19, x20, [sp, #16]
        ldp     x21, x22, [sp, #32]
        ldp     x23, x24, [sp, #48]
        ldp     x25, x26, [sp, #64]
        ldp     x27, x28, [sp, #80]
        ldp     d8, d9, [sp, #96]
        ldp     d10, d11, [sp, #112]
        ldp     d12, d13, [sp, #128]
        ldp     d14, d15, [sp, #144]
        ldp     x29, x30, [sp], #176
        ret
        .size   probe_registers, . - probe_registers

        .section .note.GNU-stack, "", %progbits
