// 2003 instructions: three once and two 1000 times.
        .global _start
_start:
        mov     x0, #1000
1:      subs    x0, x0, #1
        b.ne    1b
        mov     x8, #94         // exit_group(0)
        svc     #0
