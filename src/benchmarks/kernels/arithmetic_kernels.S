// The eight arithmetic kernels of the compute roofs, and the trampoline that enters them. What is executed here is the
// measuring instrument: any change of an instruction, a register or the order changes the roofs.
//
// Each kernel is an address word directly followed by code:
//
//   name:      +0  64-bit word that holds the address of `name`, that is, its own
//              +8  the code: the loop head first
//   name_flops_per_iteration, in .rodata: 64-bit data word, floating-point operations of one pass
//
// The word is absolute. It needs the executable that this is linked into not to be position-independent; a linker
// otherwise has to relocate the text.
//
//   void flops_kernel_trampoline(/* x1 */ std::uint64_t iterations, /* x2 */ std::uint64_t kernel)
//     x1   iterations: passes of the loop, counted down to 0. 0 would run 2^64 passes.
//     x2   kernel: the value of the kernel's address word
//
//   Called by  flops::run_kernel, through enter_flops_kernel of kernels.h, and nothing else: the arguments are not in
//              the registers of a C function.
//   Assumes    nothing of other registers. None is set before the loop: the arithmetic runs on whatever they hold, and
//              what it computes is of no use to anyone. No stack: leaf routines.
//   Overwrites x1, x2, the flags, the sticky bits of FPSR, and v0 to v31 in the kernels' union. flops_sp_fmadd and
//              flops_dp_fmadd overwrite v8 to v15, whose low halves a C function must keep. Keeps x0.
//   Leaves to  x30. The fcvt in front of the return is there for a result in d0, which no caller uses.
//
// The flags that b.ne tests are set at the head of the pass: nothing in a body touches them. No BTI landing pads: the
// property note is missing on purpose, and the linker then leaves the check off for the whole executable.

#include "benchmarks/kernels/data_word.inc"

        .arch   armv8.2-a+fp16

        .text
        .p2align 4
        .global flops_kernel_trampoline
        .type   flops_kernel_trampoline, %function
flops_kernel_trampoline:
        add     x2, x2, #8              // over the address word, to the code
        br      x2
        .size   flops_kernel_trampoline, . - flops_kernel_trampoline

// Opens a kernel: its data word, its address word, and the loop head at 1.
        .macro  begin_flops_kernel name, flops_per_iteration
        data_word \name\()_flops_per_iteration, \flops_per_iteration
        .global \name
        .type   \name, %object
        .size   \name, 8
\name:
        .xword  \name
        .type   \name\()_code, %function
\name\()_code:
1:      subs    x1, x1, #1
        .endm

        .macro  end_flops_kernel name
        b.ne    1b
        .endm

        .macro  return_from_flops_kernel name
        ret
        .size   \name\()_code, . - \name\()_code
        .endm

        .macro  fadd_step accumulator, addend, arrangement
        fadd    v\accumulator\().\arrangement, v\accumulator\().\arrangement, v\addend\().\arrangement
        .endm

// Sixteen independent additions of v`addend`. No accumulator is read again before the fifteen others were written.
        .macro  fadd_run addend, arrangement
        .irp    accumulator, 2, 5, 17, 16, 24, 22, 23, 21, 3, 4, 7, 6, 20, 18, 19, 25
        fadd_step \accumulator, \addend, \arrangement
        .endr
        .endm

// Overwrites v2-v7, v16-v25, and v0 by the fcvt.
        .macro  fadd_kernel name, arrangement, flops_per_iteration
        begin_flops_kernel \name, \flops_per_iteration
        fadd_run 1, \arrangement
        fadd_run 0, \arrangement
        end_flops_kernel \name
        fcvt    d0, s0
        return_from_flops_kernel \name
        .endm

        fadd_kernel flops_f16x8_fadd, 8h, 256
        fadd_kernel flops_f32x4_fadd, 4s, 128
        fadd_kernel flops_f64x2_fadd, 2d, 64

        .macro  fmla_step accumulator, factor, arrangement
        fmla    v\accumulator\().\arrangement, v\factor\().\arrangement, v0.\arrangement
        .endm

// Sixteen independent multiply-adds of v`factor` times v0.
        .macro  fmla_run factor, arrangement
        .irp    accumulator, 7, 16, 5, 4, 19, 21, 20, 22, 17, 18, 6, 3, 23, 24, 25, 26
        fmla_step \accumulator, \factor, \arrangement
        .endr
        .endm

// Overwrites v3-v7, v16-v26, and v0 by the fcvt. `rounds` is how often the 32 stand in one pass.
        .macro  fmla_kernel name, arrangement, rounds, flops_per_iteration
        begin_flops_kernel \name, \flops_per_iteration
        .rept   \rounds
        fmla_run 2, \arrangement
        fmla_run 1, \arrangement
        .endr
        end_flops_kernel \name
        fcvt    d0, s0
        return_from_flops_kernel \name
        .endm

        fmla_kernel flops_f32x4_fmla, 4s, 1, 256
        fmla_kernel flops_f64x2_fmla, 2d, 2, 256
        fmla_kernel flops_f16x8_fmla, 8h, 1, 512

// Thirty-two scalar multiply-adds, each into its own register from the two that follow it, the numbers wrapping at 32.
// No instruction reads a result from fewer than 30 instructions back.
        .macro  fmadd_run letter
        fmadd   \letter\()0, \letter\()1, \letter\()2, \letter\()0
        fmadd   \letter\()1, \letter\()2, \letter\()3, \letter\()1
        fmadd   \letter\()2, \letter\()3, \letter\()4, \letter\()2
        fmadd   \letter\()3, \letter\()4, \letter\()5, \letter\()3
        fmadd   \letter\()4, \letter\()5, \letter\()6, \letter\()4
        fmadd   \letter\()5, \letter\()6, \letter\()7, \letter\()5
        fmadd   \letter\()6, \letter\()7, \letter\()8, \letter\()6
        fmadd   \letter\()7, \letter\()8, \letter\()9, \letter\()7
        fmadd   \letter\()8, \letter\()9, \letter\()10, \letter\()8
        fmadd   \letter\()9, \letter\()10, \letter\()11, \letter\()9
        fmadd   \letter\()10, \letter\()11, \letter\()12, \letter\()10
        fmadd   \letter\()11, \letter\()12, \letter\()13, \letter\()11
        fmadd   \letter\()12, \letter\()13, \letter\()14, \letter\()12
        fmadd   \letter\()13, \letter\()14, \letter\()15, \letter\()13
        fmadd   \letter\()14, \letter\()15, \letter\()16, \letter\()14
        fmadd   \letter\()15, \letter\()16, \letter\()17, \letter\()15
        fmadd   \letter\()16, \letter\()17, \letter\()18, \letter\()16
        fmadd   \letter\()17, \letter\()18, \letter\()19, \letter\()17
        fmadd   \letter\()18, \letter\()19, \letter\()20, \letter\()18
        fmadd   \letter\()19, \letter\()20, \letter\()21, \letter\()19
        fmadd   \letter\()20, \letter\()21, \letter\()22, \letter\()20
        fmadd   \letter\()21, \letter\()22, \letter\()23, \letter\()21
        fmadd   \letter\()22, \letter\()23, \letter\()24, \letter\()22
        fmadd   \letter\()23, \letter\()24, \letter\()25, \letter\()23
        fmadd   \letter\()24, \letter\()25, \letter\()26, \letter\()24
        fmadd   \letter\()25, \letter\()26, \letter\()27, \letter\()25
        fmadd   \letter\()26, \letter\()27, \letter\()28, \letter\()26
        fmadd   \letter\()27, \letter\()28, \letter\()29, \letter\()27
        fmadd   \letter\()28, \letter\()29, \letter\()30, \letter\()28
        fmadd   \letter\()29, \letter\()30, \letter\()31, \letter\()29
        fmadd   \letter\()30, \letter\()31, \letter\()0, \letter\()30
        fmadd   \letter\()31, \letter\()0, \letter\()1, \letter\()31
        .endm

// Both overwrite v0-v31.
        begin_flops_kernel flops_sp_fmadd, 64
        fmadd_run s
        end_flops_kernel flops_sp_fmadd
        fcvt    d0, s31
        return_from_flops_kernel flops_sp_fmadd

        begin_flops_kernel flops_dp_fmadd, 64
        fmadd_run d
        end_flops_kernel flops_dp_fmadd
        return_from_flops_kernel flops_dp_fmadd

        .section .note.GNU-stack, "", %progbits
