// Paths during which code is dropped or the code cache emptied, or something else comes between. For bare.S; each
// path_NAME(count) as in paths.S, with the caller's stack for its own.
        .text

        .macro  path name
        .balign 16
        .globl  path_\name
        .type   path_\name, %function
path_\name:
        .endm

        .macro  step value
        add     x19, x19, x19, lsl #5
        add     x19, x19, #\value
        .endm

        .equ    NR_RT_SIGACTION, 134
        .equ    NR_RT_SIGRETURN, 139
        .equ    NR_GETPID, 172
        .equ    NR_GETPPID, 173
        .equ    NR_KILL, 129
        .equ    NR_MPROTECT, 226
        .equ    SIGUSR1, 10

// The path protects its own page, with the rights that it has, after 240 runs, then after 241 more, and so on up to
// 275. Each time that drops the rewritten code of the page, once just while the path's trace is being made. The call
// stands in the third fragment of the trace.
        .balign 256                     // The path lies in one page.
path flush_while_built
        mov     x20, x30
        mov     x19, #0
        mov     x21, #240               // The runs up to the next call.
        adr     x23, 1f
        and     x23, x23, #~0xfff
1:      mov     x22, x21
2:      step    1
        cbz     x22, 3f
        step    2
        tbnz    x22, #40, 3f
        step    3
        mov     x0, x23
        mov     x1, #4096
        mov     x2, #5                  // PROT_READ | PROT_EXEC
        cmp     x22, #1
        mov     x8, #NR_GETPPID
        mov     x9, #NR_MPROTECT
        csel    x8, x9, x8, eq
        svc     #0
        cbz     x22, 3f
        step    4
        subs    x22, x22, #1
        b.ne    2b
        add     x21, x21, #1
        cmp     x21, #276
        b.ne    1b
3:      mov     x0, x19
        ret     x20

// A signal is handled in the middle of the path, and its handler becomes hot in the very run in which the path's trace
// is made. So the handler's trace is begun while the other is half made.
path abandoned
        mov     x20, x30
        mov     x19, #0
        mov     x21, x0
        sub     sp, sp, #32
        adr     x2, 8f
        mov     x3, #0x04000000         // SA_RESTORER
        adr     x4, 9f
        stp     x2, x3, [sp]
        stp     x4, xzr, [sp, #16]
        mov     x0, #SIGUSR1
        mov     x1, sp
        mov     x2, #0
        mov     x3, #8
        mov     x8, #NR_RT_SIGACTION
        svc     #0
        add     sp, sp, #32
        mov     x8, #NR_GETPID
        svc     #0
        mov     x22, x0
1:      step    1
        cbz     x21, 2f
        step    2
        mov     x0, x22
        mov     x1, #SIGUSR1
        mov     x8, #NR_KILL
        svc     #0
        step    3
        cbz     x21, 2f
        step    4
        subs    x21, x21, #1
        b.ne    1b
2:      adrp    x1, handled
        ldr     x1, [x1, :lo12:handled]
        eor     x0, x19, x1
        ret     x20
8:      adrp    x1, handled
        add     x1, x1, :lo12:handled
        ldr     x2, [x1]
        add     x2, x2, #1
        cbz     x2, 7f
        str     x2, [x1]
7:      ret
9:      mov     x8, #NR_RT_SIGRETURN
        svc     #0

// More hot loops than the trace area holds: it fills up in the middle of the run and is emptied.
path area_full
        mov     x1, #0
        .rept   3400
        mov     x2, #260
1:
        .rept   200
        add     x1, x1, x2
        .endr
        subs    x2, x2, #1
        b.ne    1b
        .endr
        mov     x0, x1
        ret

        .data
        .balign 8
handled:
        .quad   0
        .section .note.GNU-stack, "", %progbits
