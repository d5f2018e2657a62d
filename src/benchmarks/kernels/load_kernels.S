// The five load kernels. A memory roof is measured with cachebw_ldp_256; the others stand by, to try how a machine
// answers to another form of load. What is executed here is the measuring instrument: any change changes the roofs.
//
// What holds for all of them:
//
//   void kernel(float* data, std::int32_t iterations, std::uint64_t elements)
//     x0   data: start of the calling thread's buffer
//     w1   iterations: passes of the loop, at least 1
//     x2   elements: 32-bit elements of the buffer
//
//   Called by  call_load_kernel (kernels.h) and nothing else: the registers are not those of a C function. v8 to v15
//              are overwritten whole, though a C function must keep their low halves.
//   Assumes    nothing of other registers, and no stack: they are leaf routines.
//   Uses       x12 the cursor, w13 the pass counter, x14 the bytes from the buffer's start to the cursor.
//   Overwrites x2, x12, x13, x14, the flags, and the vector registers that each names. Keeps x0 and x1.
//   Leaves to  x30.
//
// The cursor moves on by one pass and returns to the start of the buffer when it stands exactly at its end. So the
// buffer's bytes must be a whole multiple of the step of one pass: otherwise the cursor runs past the end.
//
// Beside each kernel stands its data word, 64 bits in .rodata: the bytes that one pass touches. No BTI landing pads:
// the property note is missing on purpose, and the linker then leaves the check off for the whole executable.

#include "benchmarks/kernels/data_word.inc"

        .arch   armv8-a

// Opens a kernel: its name, its data word, and the set-up in front of the loop head at 1.
        .macro  begin_load_kernel name, bytes
        data_word \name\()_bytes_per_iteration, \bytes
        .global \name
        .type   \name, %function
\name:
        mov     x12, x0
        mov     w13, #0
        lsl     x2, x2, #2              // elements to bytes
1:      add     w13, w13, #1
        .endm

// Closes a kernel: the cursor's return without a branch, and the loop's one branch.
        .macro  end_load_kernel name
        sub     x14, x12, x0
        cmp     x14, x2
        csel    x12, x12, x0, ne
        cmp     w1, w13
        b.ne    1b
        ret
        .size   \name, . - \name
        .endm

// Four pair loads from offset \at of the pass on.
        .macro  load_four_pairs at, a, b, c, d, e, f, g, h
        ldp     \a, \b, [x12, #(\at)]
        ldp     \c, \d, [x12, #(\at + 0x20)]
        ldp     \e, \f, [x12, #(\at + 0x40)]
        ldp     \g, \h, [x12, #(\at + 0x60)]
        .endm

// Eight pair loads. Overwrites v0-v7, v16-v23.
        begin_load_kernel cachebw_ldp_256, 256
        load_four_pairs 0, q0, q1, q2, q3, q4, q5, q6, q7
        load_four_pairs 0x80, q23, q22, q21, q20, q19, q18, q17, q16
        add     x12, x12, #0x100
        end_load_kernel cachebw_ldp_256

// Four loads of four registers each, the cursor moving on after each. Overwrites v0-v15.
        begin_load_kernel cachebw_ld1_256, 256
        ld1     {v0.2d, v1.2d, v2.2d, v3.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v4.2d, v5.2d, v6.2d, v7.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v8.2d, v9.2d, v10.2d, v11.2d}, [x12]
        add     x12, x12, #0x40
        ld1     {v12.2d, v13.2d, v14.2d, v15.2d}, [x12]
        add     x12, x12, #0x40
        end_load_kernel cachebw_ld1_256

// Sixteen pair loads. Overwrites v0-v31.
        begin_load_kernel cachebw_ldp_512, 512
        load_four_pairs 0, q0, q1, q2, q3, q4, q5, q6, q7
        load_four_pairs 0x80, q8, q9, q10, q11, q12, q13, q14, q15
        load_four_pairs 0x100, q24, q25, q26, q27, q28, q29, q30, q31
        load_four_pairs 0x180, q23, q22, q21, q20, q19, q18, q17, q16
        add     x12, x12, #0x200
        end_load_kernel cachebw_ldp_512

// Four single loads. Overwrites v27-v30.
        begin_load_kernel cachebw_ldr_64, 64
        ldr     q27, [x12]
        ldr     q28, [x12, #0x10]
        ldr     q29, [x12, #0x20]
        ldr     q30, [x12, #0x30]
        add     x12, x12, #0x40
        end_load_kernel cachebw_ldr_64

// A pair load from offset \at of the pass, and a store of its first register to the start of the pass.
        .macro  load_and_store at, first, second
        ldp     \first, \second, [x12, #(\at)]
        str     \first, [x12]
        .endm

// Eight pair loads, each followed by a store of its first register to the start of the pass. The data word counts the
// 256 bytes loaded and the 128 stored, the step is 256. Overwrites v0-v7, v16-v23 and the first 16 bytes of each pass.
        begin_load_kernel cachebw_ldp_str, 384
        load_and_store 0, q0, q1
        load_and_store 0x20, q2, q3
        load_and_store 0x40, q4, q5
        load_and_store 0x60, q6, q7
        load_and_store 0x80, q23, q22
        load_and_store 0xa0, q21, q20
        load_and_store 0xc0, q19, q18
        load_and_store 0xe0, q17, q16
        add     x12, x12, #0x100
        end_load_kernel cachebw_ldp_str

        .section .note.GNU-stack, "", %progbits
