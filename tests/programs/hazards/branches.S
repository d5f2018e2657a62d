// Every conditional branch, forwards and backwards, on registers that the rewriting itself uses and on others. A row of
// the table: long function(long value), which returns whether the branch was taken; kind; condition or sense; bit.

        .macro  row kind, sense, bit
        .section .data.rel.ro.branches, "aw", %progbits
        .xword  3b, \kind, \sense, \bit
        .text
        .endm

        .macro  branch_on reg, kind, sense, bit, branch
3:      mov     x9, x30
        .ifc    \reg, nzcv
        msr     nzcv, x0
        .else
        .ifnc   \reg, 31
        mov     x\reg, x0
        .endif
        .endif
        \branch 1f
        mov     x0, #0
        ret     x9
1:      mov     x0, #1
        ret     x9
        row     \kind, \sense, \bit

2:      mov     x0, #1
        ret     x9
3:      mov     x9, x30
        .ifc    \reg, nzcv
        msr     nzcv, x0
        .else
        .ifnc   \reg, 31
        mov     x\reg, x0
        .endif
        .endif
        \branch 2b
        mov     x0, #0
        ret     x9
        row     \kind, \sense, \bit
        .endm

        .macro  compare_branches_on reg
        branch_on \reg, 1, 0, 0, "cbz w\reg,"
        branch_on \reg, 1, 1, 0, "cbnz w\reg,"
        branch_on \reg, 2, 0, 0, "cbz x\reg,"
        branch_on \reg, 2, 1, 0, "cbnz x\reg,"
        .endm

        .macro  test_branches_on reg
        .irp    bit, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63
        branch_on \reg, 3, 0, \bit, "tbz x\reg, #\bit,"
        branch_on \reg, 3, 1, \bit, "tbnz x\reg, #\bit,"
        .endr
        .endm

        .section .data.rel.ro.branches, "aw", %progbits
        .balign 8
        .globl  branches, branches_end
branches:
        .text
        branch_on nzcv, 0, 0, 0, "b.eq"
        branch_on nzcv, 0, 1, 0, "b.ne"
        branch_on nzcv, 0, 2, 0, "b.cs"
        branch_on nzcv, 0, 3, 0, "b.cc"
        branch_on nzcv, 0, 4, 0, "b.mi"
        branch_on nzcv, 0, 5, 0, "b.pl"
        branch_on nzcv, 0, 6, 0, "b.vs"
        branch_on nzcv, 0, 7, 0, "b.vc"
        branch_on nzcv, 0, 8, 0, "b.hi"
        branch_on nzcv, 0, 9, 0, "b.ls"
        branch_on nzcv, 0, 10, 0, "b.ge"
        branch_on nzcv, 0, 11, 0, "b.lt"
        branch_on nzcv, 0, 12, 0, "b.gt"
        branch_on nzcv, 0, 13, 0, "b.le"
        branch_on nzcv, 0, 14, 0, "b.al"
        branch_on nzcv, 0, 15, 0, "b.nv"
        .irp    reg, 0, 1, 2, 15, 16, 30
        compare_branches_on \reg
        .endr
        branch_on 31, 4, 0, 0, "cbz wzr,"
        branch_on 31, 4, 1, 0, "cbnz wzr,"
        branch_on 31, 4, 0, 0, "cbz xzr,"
        branch_on 31, 4, 1, 0, "cbnz xzr,"
        branch_on 31, 4, 0, 0, "tbz xzr, #63,"
        branch_on 31, 4, 1, 0, "tbnz wzr, #0,"
        .irp    reg, 0, 1, 7, 30
        test_branches_on \reg
        .endr
        .section .data.rel.ro.branches, "aw", %progbits
branches_end:
        .section .note.GNU-stack, "", %progbits
