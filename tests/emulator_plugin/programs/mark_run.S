// mark_run NUMBER: tells the plug-in cache_coherence that the run with this number begins.
        .globl  _start
        .text
_start:
        ldr     x1, [sp, #16]           // argv[1]
        mov     x0, #0
        mov     x3, #10
next_digit:
        ldrb    w2, [x1], #1
        cbz     w2, told
        sub     w2, w2, #'0'
        madd    x0, x0, x3, x2
        b       next_digit
told:
        hint    #112
        mov     x0, #0
        mov     x8, #93                 // exit
        svc     #0
