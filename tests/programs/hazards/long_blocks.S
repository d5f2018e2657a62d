// Blocks far longer than one piece of the code cache: plain instructions, instructions that grow when they are
// rewritten, and system calls inside; one for every kind of exit. long name(long value)
        .macro  function name
        .globl  \name
        .balign 4
\name:
        .endm

        .macro  plain count
        .rept   \count
        add     x0, x0, #1
        .endr
        .endm

// Each adds 3: a literal, an address's distance, and the thread pointer's distance from itself.
        .macro  growing count
        .rept   \count
        ldr     x1, two
        add     x0, x0, x1
        adr     x2, .
        adr     x3, . + 1 - 4
        sub     x3, x3, x2
        add     x0, x0, x3
        mrs     x4, tpidr_el0
        mrs     x5, tpidr_el0
        sub     x4, x4, x5
        add     x0, x0, x4
        ldr     d1, two
        prfm    pldl1keep, two
        .endr
        .endm

        .text
        function plain_100
        plain   100
        ret

        function plain_6000
        plain   6000
        ret

        function plain_6000_b
        plain   6000
        b       1f
1:      ret

        function plain_7000_tbz
        plain   7000
        tbz     x0, #0, 1f
        sub     x0, x0, #1
1:      ret

        function plain_7000_cond
        plain   7000
        tst     x0, #1
        b.eq    1f
        sub     x0, x0, #1
1:      ret

        function plain_7000_br
        mov     x9, x30
        plain   7000
        br      x9

        function plain_7000_blr
        mov     x9, x30
        adr     x1, plain_100
        plain   7000
        blr     x1
        ret     x9

        function growing_1500
        growing 1500
        ret
        .balign 8
two:    .xword  2

// Blocks of all lengths around those that fill a piece of the cache. Any of these lengths could end in a bad place.
        .macro  of_length count
        function length_\count
        plain   \count
        cbz     x0, 1f
        mov     x9, x30
        bl      plain_100
        ret     x9
1:      ret
        .section .data.rel.ro.lengths, "aw", %progbits
        .xword  length_\count
        .text
        .endm
        .section .data.rel.ro.lengths, "aw", %progbits
        .balign 8
        .globl  lengths
lengths:
        .text
        .irp    count, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70, 71
        of_length \count
        .endr

        function with_calls             // 200 system calls that fail, in one block.
        mov     x10, x0
        mov     x11, x8
        .rept   200
        mov     x8, #1000
        svc     #0
        sub     x10, x10, x0            // -ENOSYS is -38.
        .endr
        mov     x8, x11
        mov     x0, x10
        ret

        .section .note.GNU-stack, "", %progbits
