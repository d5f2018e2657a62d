// Code for the scanner to read. Nothing of it is run where it stands, and none of it is meant to be.
        .text
        .balign 64

        .macro  source name
        .balign 16
        .globl  \name
\name:
        .endm

source  one_branch
        b       one_ret
source  one_ret
        ret
source  call_to_next
        bl      1f
1:      ret
source  call_back
        bl      one_ret

source  branch_eq
        b.eq    one_ret
        ret
source  branch_al
        b.al    one_ret
source  branch_nv
        b.nv    one_ret
source  branch_both_same
        b.eq    1f
1:      ret
source  cbnz_x0
        cbnz    x0, one_ret
        ret
source  cbz_x3
        cbz     x3, one_ret
        ret
source  cbz_w3
        cbz     w3, one_ret
        ret
source  tbnz_bit_37
        tbnz    x1, #37, one_ret
        ret
source  tbz_bit_5
        tbz     x3, #5, one_ret
        ret

// Compare and branch, which assemblers do not know yet, over the return behind it.
        .macro  compare_over_ret name, word
source  \name
        .inst   \word | 2 << 5
        ret
        ret
        .endm
compare_over_ret cbgt_w3_63, 0x75000003 | 63 << 15
compare_over_ret cblt_x1_0, 0xf5200001
compare_over_ret cbhs_x3_x4, 0xf4600003 | 4 << 16
compare_over_ret cbbeq_w3_w4, 0x74c08003 | 4 << 16

source  ret_x30
        ret
source  br_x17
        br      x17
source  blr_x30
        blr     x30
        nop
source  blr_x0
        blr     x0
        nop
source  br_x1
        br      x1
source  blr_x2
        blr     x2
        nop

        .arch_extension pauth
source  signed_return
        nop
        retaa
source  signed_branch_x5_x1
        braa    x5, x1
source  signed_call_x2_x1
        blrab   x2, x1
source  signed_branch_x17
        brabz   x17
source  prefixed_branch
        .inst   0x0420bc00      // movprfx z0, z0
        retab

        .balign 256             // With its literals in one page.
source  literal_x0
        ldr     x0, literals
        ret
source  literal_w5
        ldr     w5, literals
        ret
source  literal_ldrsw
        ldrsw   x5, literals
        ret
source  literal_prfm
        prfm    pldl1keep, literals
        ret
source  literal_s
        ldr     s0, literals
        ret
source  literal_d
        ldr     d1, literals
        ret
source  literal_q
        ldr     q31, literals
        ret
source  literal_zero_register
        ldr     xzr, literals
        ret
source  literals
        .quad   0x1122334455667788, 0x99aabbccddeeff00
source  far_literal_x0
        ldr     x0, far_literals
        ret
source  far_literal_w5
        ldr     w5, far_literals
        ret
        .balign 4096
source  far_literals
        .quad   0x1122334455667788
source  literal_unallocated
        .inst   0xdc000000
        ret

source  unknown_first
        .inst   0x00000000
        ret
source  unknown_second
        nop
        .inst   0x00000000
        ret

source  prefixed
        .inst   0x0420bc20              // movprfx z0, z1
        .inst   0x04000080              // add z0.b, p0/m, z0.b, z4.b
        ret
source  prefix_predicated
        .inst   0x04912020              // movprfx z0.s, p0/m, z1.s
        .inst   0x04800080              // add z0.s, p0/m, z0.s, z4.s
        .inst   0x04800080
        ret
source  memory_copy
        .inst   0x19020460              // cpyfp [x0]!, [x2]!, x3!
        .inst   0x19420460              // cpyfm
        .inst   0x19820460              // cpyfe
        .inst   0x19820460
        ret
source  memory_set
        .inst   0x19c20460              // setp [x0]!, x3!, x2
        .inst   0x19c24460              // setm
        .inst   0x19c28460              // sete
        .inst   0x19c28460
        ret
source  prefix_alone
        .inst   0x0420bc20
        ret

source  call_then_branch
        mov     x8, #172
        svc     #0
        b       one_ret
source  call_then_return
        mov     x8, #172
        svc     #7
        ret
source  call_alone_number
        svc     #0
        ret

source  reads_thread_pointer
        mrs     x5, tpidr_el0
        ret
source  reads_thread_pointer_x0
        mrs     x0, tpidr_el0
        ret
source  writes_thread_pointer
        msr     tpidr_el0, x5
        ret
source  reads_flags
        mrs     x5, nzcv
        ret

source  adr_here
        adr     x4, adr_here
        ret
source  adrp_next_page
        .inst   0xb0000004      // adrp x4, to the next page
        ret

source  copied_words
        ldxr    x1, [x2]
        stxr    w3, x1, [x2]
        dmb     ish
        add     x1, x2, x3
        fadd    v0.4s, v1.4s, v2.4s
        isb
        ret

source  long_block
        .rept   300
        add     x1, x1, #1
        .endr
        b       one_ret

source  loop_to_itself
        add     x1, x1, #1
        b       loop_to_itself

        .section .note.GNU-stack, "", %progbits
