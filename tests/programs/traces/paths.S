// Paths that become traces of every shape. Each is a function of the C calling convention,
//   long path_NAME(long count)
// that runs its path `count` times, at least 600, and returns what only the right sequence of its blocks gives. Nothing
// but registers is used, so that any number of threads may be in one, and signals may arrive at each of its
// instructions.
        .text

        .macro  path name
        .balign 16
        .globl  path_\name
        .type   path_\name, %function
path_\name:
        .endm

// x1 takes in one more step.
        .macro  step value
        add     x1, x1, x1, lsl #5
        add     x1, x1, #\value
        .endm

// One block, to itself.
path loop
        mov     x1, #0
1:      step    3
        subs    x0, x0, #1
        b.ne    1b
        mov     x0, x1
        ret

// One block, a branch to itself and nothing else, counted by the one before it.
path pair
        mov     x1, #0
1:      step    5
        cbz     x0, 2f
        sub     x0, x0, #1
        b       1b
2:      mov     x0, x1
        ret

// `blocks` blocks in a row, left by branches of all three kinds. None of the branches is ever taken, except the last.
        .macro  row name, blocks
path \name
        mov     x1, #0
1:
        .set    block, 1
        .rept   \blocks - 1
        step    block
        .if     block % 4 == 0
        cbz     x0, 2f
        .elseif block % 4 == 1
        tbnz    x0, #62, 2f
        .elseif block % 4 == 2
        cmp     x0, #0
        b.le    2f
        .else
        b       . + 4
        .endif
        .set    block, block + 1
        .endr
        step    77
        subs    x0, x0, #1
        b.ne    1b
2:      mov     x0, x1
        ret
        .endm

row     row_of_20, 20
row     row_of_21, 21
row     row_of_22, 22

// Every block with an exit of its own: as many as a trace can have, and more.
        .macro  exits name, blocks
path \name
        mov     x1, #0
1:
        .set    block, 1
        .rept   \blocks - 1
        step    block
        tbnz    x0, #30, 2f
        .set    block, block + 1
        .endr
        step    77
        subs    x0, x0, #1
        b.ne    1b
2:      mov     x0, x1
        ret
        .endm

exits   exits_21, 21
exits   exits_50, 50

// Ends in a return, in a jump, in a call by register.
path returns
        mov     x1, #0
        mov     x2, x30
1:      bl      3f
        step    9
        subs    x0, x0, #1
        b.ne    1b
        mov     x0, x1
        ret     x2
3:      step    11
        cbz     x0, 4f
        step    12
4:      ret

path jumps
        mov     x1, #0
        adr     x3, 3f
1:      step    9
        cbz     x0, 2f
        br      x3
2:      mov     x0, x1
        ret
3:      step    13
        sub     x0, x0, #1
        b       1b

path calls
        mov     x1, #0
        mov     x2, x30
        adr     x3, 3f
1:      step    9
        cbz     x0, 2f
        blr     x3
        sub     x0, x0, #1
        b       1b
2:      mov     x0, x1
        ret     x2
3:      step    15
        tbnz    x0, #50, 4f
        step    16
4:      ret

// The path of the outer loop reaches the inner loop, which is already a trace by then.
path nested
        mov     x1, #0
1:      mov     x2, #5
        step    1
        cbz     x0, 3f
2:      step    2
        subs    x2, x2, #1
        b.ne    2b
        sub     x0, x0, #1
        b       1b
3:      mov     x0, x1
        ret

// The side that is taken changes: every 8th time, every 64th time, and in the second half of 1024 times.
path phases
        mov     x1, #0
1:      tst     x0, #7
        b.eq    3f
        step    1
2:      tbnz    x0, #9, 4f
        step    2
5:      and     x2, x0, #63
        cbz     x2, 6f
        step    3
7:      subs    x0, x0, #1
        b.ne    1b
        mov     x0, x1
        ret
3:      step    4
        b       2b
4:      step    5
        b       5b
6:      step    6
        b       7b

// Blocks of a single branch, one behind the other.
path empty_blocks
        mov     x1, #0
1:      b       2f
2:      b       3f
3:      cbz     x0, 5f
        tbz     x0, #63, 4f
        b.al    5f
4:      b       6f
6:      step    21
        sub     x0, x0, #1
        b       1b
5:      mov     x0, x1
        ret

// Branches with both sides at one address, and a condition that always holds.
path same_sides
        mov     x1, #0
1:      step    1
        tbz     x0, #0, 2f
2:      step    2
        cmp     x1, x0
        b.hi    3f
3:      step    3
        b.al    4f
4:      subs    x0, x0, #1
        b.ne    1b
        mov     x0, x1
        ret

// Tests x0, x1 and x30, in their narrow forms too, because the exits' stubs push and load these registers.
path borrowed_registers
        mov     x3, x30
        mov     x2, x0
        mov     x0, #0
        mov     x1, #0
1:      add     x0, x0, #1
        cbz     w0, 2f
        add     x1, x1, x0
        tbnz    w1, #31, 2f
        mov     x30, x1
        cbz     x30, 2f
        tbnz    x30, #63, 2f
        subs    x2, x2, #1
        b.ne    1b
2:      eor     x0, x0, x1
        ret     x3

// The exit of a loop leads to a block that becomes hot later. By then the block has moved into a trace of its own, in
// reach of the exit or not. The first half of the runs stays in the loop; then `filler` takes up its part of the trace
// area.
        .macro  entered name, filler, kind
path entered_\name
        mov     x2, x30
        mov     x4, x0
        mov     x1, #0
        mov     x3, #32
        bl      7f
        .ifnc   \filler, none
        mov     x0, #600
        bl      \filler
        .endif
        mov     x0, x4
        mov     x3, #0
        bl      7f
        mov     x0, x1
        ret     x2
7:
1:      step    1
        .ifc    \kind, tbz
        tbz     x3, #5, 3f
        .else
        .ifc    \kind, cbz
        cbz     x3, 3f
        .else
        cmp     x3, #0
        b.eq    3f
        .endif
        .endif
2:      step    2
        subs    x0, x0, #1
        b.ne    1b
        ret
3:      step    3
        b       2b
        .endm

entered tbz_near, none, tbz
entered cbz_near, none, cbz
entered condition_near, none, condition
entered tbz_far, fill_48_kib, tbz
entered cbz_between, fill_48_kib, cbz
entered cbz_far, fill_1100_kib, cbz
entered condition_far, fill_1100_kib, condition

// One long block behind an exit, which is too long for the exit to reach over. Both keep x1 to x4.
        .macro  fill kib, kind
        .balign 16
2:      ret
fill_\kib\()_kib:
1:
        .ifc    \kind, tbz
        tbnz    x0, #30, 2b
        .else
        cbz     x0, 2b
        .endif
        .rept   \kib * 256
        add     x5, x5, #1
        .endr
        sub     x0, x0, #1
        .ifc    \kind, tbz
        cbnz    x0, 1b
        ret
        .else
        b       1b
        .endif
        .endm

fill    48, tbz
fill    1100, cbz

path too_long_for_tbz
        mov     x4, x30
        mov     x5, #0
        bl      fill_48_kib
        mov     x0, x5
        ret     x4

path too_long_for_cbz
        mov     x4, x30
        mov     x5, #0
        bl      fill_1100_kib
        mov     x0, x5
        ret     x4

        .section .note.GNU-stack, "", %progbits
