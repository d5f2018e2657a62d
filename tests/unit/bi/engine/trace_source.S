// Code for traces to be made of. Nothing of it is run where it stands.
        .text

        .macro  source name
        .balign 16
        .globl  \name
\name:
        .endm

// The same, right behind the words before.
        .macro  fallen_into name
        .globl  \name
\name:
        .endm

// Each block of these is left the way its name says when the path goes on to the next.
source  skipped_by_eq
        add     x1, x1, #1
        b.eq    path_end
fallen_into taken_by_cbnz
        add     x1, x1, #2
        cbnz    x5, taken_by_tbz
        ret
source  taken_by_tbz
        add     x1, x1, #3
        tbz     x5, #37, direct
        ret
source  direct
        add     x1, x1, #4
        b       back_to_head
source  back_to_head
        add     x1, x1, #5
        b.ne    skipped_by_eq
source  path_end
        add     x1, x1, #6
        add     x1, x1, #7
        add     x1, x1, #8
        b       path_end
source  by_return
        add     x1, x1, #9
        ret
source  exit_only
        b.ne    by_return
        ret

// 30 blocks, each left by its fall-through side.
source  thirty_blocks
        .rept   30
        add     x1, x1, #1
        cbz     x9, path_end
        .endr
        ret

// Behind an exit that reaches 32 KiB, a block of 40 KiB; behind one that reaches 1 MiB, too.
source  tbz_before_much
        tbz     x9, #3, path_end
fallen_into much
        .rept   10000
        add     x1, x1, #1
        .endr
        b       path_end
source  cbz_before_much
        cbz     x9, path_end
        b       much

source  six_hundred_words
        .rept   600
        add     x1, x1, #1
        .endr
        b       six_hundred_words

source  on_to_six_hundred
        b       six_hundred_words
source  direct_to_path_end
        b       path_end
// The branch's sides are a return, and a return behind it.
source  branch_both_kinds
        b.eq    one_ret
        ret
source  to_itself_or_on
        cbnz    x4, to_itself_or_on
        ret


// Traces over compare and branch: each block is left by the side that its name says, or by the other one.
source  compare_head
        add     x1, x1, #1
        .inst   0x75000003 | 63 << 15 | 5 << 5  // cbgt w3, #63, compare_taken
fallen_into compare_skipped
        add     x1, x1, #2
        b       compare_head
        nop
        nop
fallen_into compare_taken
        add     x1, x1, #3
        .inst   0xf4c00003 | 4 << 16 | 3 << 5   // cbeq x3, x4, compare_end
fallen_into compare_closes
        add     x1, x1, #4
        b       compare_head
fallen_into compare_end
        add     x1, x1, #5
        .inst   0x74e08003 | 4 << 16 | (-11 & 0x1ff) << 5   // cbbne w3, w4, compare_head
        ret
source  compare_before_much
        .inst   0x75000003 | 63 << 15 | 2 << 5  // cbgt w3, #63, .+8
fallen_into compare_much
        .rept   200
        add     x1, x1, #1
        .endr
        b       compare_head

        .section .note.GNU-stack, "", %progbits
