// The code that the emission services are to write, in the assembler's words, found by name (emission_fixture.h).
        .macro  code name
        .pushsection .data.rel.ro.expected, "aw"
        .xword  8f, \name, \name\()_end
        .popsection
        .pushsection .rodata
8:      .asciz  "\name"
        .popsection
\name:
        .endm
        .macro  code_end name
\name\()_end:
        .endm

        .pushsection .data.rel.ro.expected, "aw"
        .balign 8
        .globl  expected_code
expected_code:
        .popsection

        .text

code save_x0
        str     x0, [sp, #-16]!
code_end save_x0
code restore_x0
        ldr     x0, [sp], #16
code_end restore_x0
code save_x20_x21
        stp     x20, x21, [sp, #-16]!
code_end save_x20_x21
code restore_x20_x21
        ldp     x20, x21, [sp], #16
code_end restore_x20_x21
code save_x1_x3_x5
        str     x5, [sp, #-16]!
        stp     x1, x3, [sp, #-16]!
code_end save_x1_x3_x5
code restore_x1_x3_x5
        ldp     x1, x3, [sp], #16
        ldr     x5, [sp], #16
code_end restore_x1_x3_x5
code save_0x400001ff
        stp     x8, x30, [sp, #-16]!
        stp     x6, x7, [sp, #-16]!
        stp     x4, x5, [sp, #-16]!
        stp     x2, x3, [sp, #-16]!
        stp     x0, x1, [sp, #-16]!
code_end save_0x400001ff
code restore_0x400001ff
        ldp     x0, x1, [sp], #16
        ldp     x2, x3, [sp], #16
        ldp     x4, x5, [sp], #16
        ldp     x6, x7, [sp], #16
        ldp     x8, x30, [sp], #16
code_end restore_0x400001ff
code save_0x400001fc
        stp     x8, x30, [sp, #-16]!
        stp     x6, x7, [sp, #-16]!
        stp     x4, x5, [sp, #-16]!
        stp     x2, x3, [sp, #-16]!
code_end save_0x400001fc
code restore_0x400001fc
        ldp     x2, x3, [sp], #16
        ldp     x4, x5, [sp], #16
        ldp     x6, x7, [sp], #16
        ldp     x8, x30, [sp], #16
code_end restore_0x400001fc
code save_x0_x1
        stp     x0, x1, [sp, #-16]!
code_end save_x0_x1
code restore_x0_x1
        ldp     x0, x1, [sp], #16
code_end restore_x0_x1

code load_const_0
        movz    x7, #0
code_end load_const_0
code load_const_0x0000123400005678
        movz    x7, #0x5678
        movk    x7, #0x1234, lsl #32
code_end load_const_0x0000123400005678
code load_const_all_parts
        movz    x7, #0xcdef
        movk    x7, #0x89ab, lsl #16
        movk    x7, #0x4567, lsl #32
        movk    x7, #0x0123, lsl #48
code_end load_const_all_parts

code mov_x3_x4
        mov     x3, x4
code_end mov_x3_x4
code mov_x3_sp
        mov     x3, sp
code_end mov_x3_sp

code add_low
        add     x3, x4, #0xabc
code_end add_low
code add_high
        add     x3, x4, #0xabc, lsl #12
code_end add_high
code add_both
        add     x3, x4, #0xfff
        add     x3, x3, #0xfff, lsl #12
code_end add_both
code sub_both
        sub     x3, x4, #0xfff
        sub     x3, x3, #0xfff, lsl #12
code_end sub_both
code sub_high
        sub     x3, x4, #1, lsl #12
code_end sub_high
code add_sp
        add     sp, sp, #16
code_end add_sp

code add_registers
        add     x3, x4, x5
code_end add_registers
code sub_registers
        sub     x3, x4, x5
code_end sub_registers
code add_lsl
        add     x3, x4, x5, lsl #63
code_end add_lsl
code add_lsr
        add     x3, x4, x5, lsr #1
code_end add_lsr
code sub_asr
        sub     x3, x4, x5, asr #7
code_end sub_asr

code ldr
        ldr     x20, [x21]
code_end ldr
code str
        str     x20, [x21]
code_end str
code ldr_offset
        ldr     x20, [x21, #32760]
code_end ldr_offset
code str_offset
        str     x20, [sp, #8]
code_end str_offset
code ldr_pre
        ldr     x20, [x21, #-256]!
code_end ldr_pre
code ldr_post
        ldr     x20, [x21], #255
code_end ldr_post
code str_pre
        str     x20, [x21, #255]!
code_end str_pre
code str_post
        str     x20, [x21], #-256
code_end str_post
code stp_offset
        stp     x20, x22, [x21, #-512]
code_end stp_offset
code ldp_post
        ldp     x20, x22, [x21], #504
code_end ldp_post
code push_pair
        stp     x20, x22, [x21, #-16]!
code_end push_pair
code pop_pair
        ldp     x20, x22, [x21], #16
code_end pop_pair

code and_registers
        and     x3, x4, x5
code_end and_registers
code and_0x1ffffc
        and     x3, x4, #0x1ffffc
code_end and_0x1ffffc
code and_0x5555555555555555
        and     x3, x4, #0x5555555555555555
code_end and_0x5555555555555555

code tbz_back
        tbz     x3, #5, . - 0x8000
code_end tbz_back
code tbz_ahead
        tbz     x3, #63, . + 0x7ffc
code_end tbz_ahead
code b_ahead
        b       . + 0x10
code_end b_ahead
code b_le_ahead
        b.le    . + 0x10
code_end b_le_ahead
code cbz_ahead
        cbz     x3, . + 0x10
code_end cbz_ahead
code cbnz_ahead
        cbnz    x3, . + 0x10
code_end cbnz_ahead
code bl_ahead
        bl      . + 0x10
code_end bl_ahead
code nop
        nop
code_end nop

code reserved_b_eq
        b.eq    . + 12
        mov     x3, x4
        mov     x3, x4
code_end reserved_b_eq
code reserved_b
        b       . + 12
        mov     x3, x4
        mov     x3, x4
code_end reserved_b
code reserved_bl
        bl      . + 12
        mov     x3, x4
        mov     x3, x4
code_end reserved_bl
code reserved_cbz
        cbz     x9, . + 12
        mov     x3, x4
        mov     x3, x4
code_end reserved_cbz
code reserved_cbnz
        cbnz    x9, . + 12
        mov     x3, x4
        mov     x3, x4
code_end reserved_cbnz

code far_call
        movz    x30, #0x1230
        movk    x30, #0x5678, lsl #32
        blr     x30
code_end far_call

code counter_add
        stp     x0, x1, [sp, #-16]!
        movz    x0, #0x1230
        movk    x0, #0x5678, lsl #32
        ldr     x1, [x0]
        add     x1, x1, #4095
        str     x1, [x0]
        ldp     x0, x1, [sp], #16
code_end counter_add
code run_counter
        stp     x1, x30, [sp, #-16]!
        movz    x1, #0x1230
        movk    x1, #0x5678, lsl #32
        ldr     x30, [x1]
        add     x30, x30, #1
        str     x30, [x1]
        ldp     x1, x30, [sp], #16
code_end run_counter

        .pushsection .data.rel.ro.expected, "aw"
        .globl  expected_code_end
expected_code_end:
        .popsection
        .section .note.GNU-stack, "", %progbits
