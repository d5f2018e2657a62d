// Loops that test one value in one way. Each is a function
//   long test_NAME(unsigned long value, volatile int* flag)
// that loops until the flag is 1, and returns 0. It returns 1 as soon as its branch goes the other way, which it never
// does for a value that the loop is for.
        .text

        // `stays`: the branch that goes back to 1.
        .macro  test name, stays:vararg
        .globl  test_\name
        .type   test_\name, %function
test_\name:
        mov     x5, x0
        mov     w0, #0
        b       1f
        .balign 4
2:      add     w0, w0, #1
        ret
1:      ldr     w2, [x1]
        cbnz    w2, 3f
        \stays
        b       2b
3:      ret
        .endm

        test    cbnz_x, cbnz x5, 1b
        test    cbz_w, cbz w5, 1b
        .irp    bit, 31, 32, 33, 37, 47, 62, 63
        test    tbnz_\bit, tbnz x5, #\bit, 1b
        test    tbz_\bit, tbz x5, #\bit, 1b
        .endr

        // The branch that tests falls through in the loop.
        .globl  test_cbz_x
        .type   test_cbz_x, %function
test_cbz_x:
        mov     x5, x0
        mov     w0, #0
1:      ldr     w2, [x1]
        cbnz    w2, 2f
        cbz     x5, 3f
        b       1b
3:      mov     w0, #1
2:      ret

        .section .note.GNU-stack, "", %progbits
