// Some 60,500 blocks in a row, more than the code cache holds. long all_blocks(long value) returns value + 60500. long
// linked_blocks(long value) goes through 54,000 blocks, which do fit, and links both sides of each. These are more
// links than the engine keeps.
        .text
        .globl  all_blocks
all_blocks:
        .rept   60500
        add     x0, x0, #1
        b       1f
1:
        .endr
        ret

        .globl  linked_blocks
linked_blocks:
        .rept   54000
        add     x0, x0, #1
        tbz     x0, #63, 1f
1:
        .endr
        ret

        .section .note.GNU-stack, "", %progbits
