// Maps memory of the size of a code cache, and runs code in it: a RET at its start 5 times, and at 256 bytes a loop of
// 100 rounds and a RET, 3 times. Then unmaps it, maps one page less in its place, and runs a RET there 7 times.
//   42 instructions before the first loop is entered; cache: 3 * (1 + 200 + 1); stubs: 5
        .global _start
_start:
        mov     x0, #0          // mmap(0, 16 MiB, RWX, PRIVATE | ANONYMOUS, -1, 0)
        mov     x1, #0x1000000
        mov     x2, #7
        mov     x3, #0x22
        mov     x4, #-1
        mov     x5, #0
        mov     x8, #222
        svc     #0              // 8
        mov     x19, x0
        ldr     w1, code_ret
        str     w1, [x19]
        str     w1, [x19, #0x10c]
        ldr     w1, code_mov
        str     w1, [x19, #0x100]
        ldr     w1, code_subs
        str     w1, [x19, #0x104]
        ldr     w1, code_branch
        str     w1, [x19, #0x108] // 18
        ic      ivau, x19
        add     x1, x19, #0x100
        ic      ivau, x1
        dsb     ish
        isb                     // 23
        mov     x20, #5
1:      blr     x19             // 24 and 5 * 3 = 39
        subs    x20, x20, #1
        b.ne    1b
        add     x21, x19, #0x100
        mov     x20, #3         // 41
2:      blr     x21             // 42 before the first entry
        subs    x20, x20, #1
        b.ne    2b
        mov     x0, x19         // munmap
        mov     x1, #0x1000000
        mov     x8, #215
        svc     #0
        mov     x0, x19         // mmap(the same place, a page less, RWX, PRIVATE | FIXED | ANONYMOUS, -1, 0)
        mov     x1, #0xfff000
        mov     x2, #7
        mov     x3, #0x32
        mov     x4, #-1
        mov     x5, #0
        mov     x8, #222
        svc     #0
        ldr     w1, code_ret
        str     w1, [x19]
        ic      ivau, x19
        dsb     ish
        isb
        mov     x20, #7
3:      blr     x19
        subs    x20, x20, #1
        b.ne    3b
        mov     x0, #0
        mov     x8, #94
        svc     #0
code_ret:
        ret
code_mov:
        mov     x0, #100
code_subs:
        subs    x0, x0, #1
code_branch:
        b.ne    code_subs
