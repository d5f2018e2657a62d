// What below_sp.c runs on the small stack. None of this code uses the stack, so any change below the stack pointer is
// not the program's.
        .text
        .balign 4

// long on_stack(void *sp, long (*what)(const long *), const long *arguments): `what` keeps x19 to x30.
        .globl  on_stack
on_stack:
        stp     x29, x30, [sp, #-0x60]!
        stp     x19, x20, [sp, #0x10]
        stp     x21, x22, [sp, #0x20]
        stp     x23, x24, [sp, #0x30]
        stp     x25, x26, [sp, #0x40]
        stp     x27, x28, [sp, #0x50]
        mov     x29, sp
        mov     x9, x0
        mov     x10, x1
        mov     x0, x2
        mov     sp, x9
        blr     x10
        mov     sp, x29
        ldp     x27, x28, [sp, #0x50]
        ldp     x25, x26, [sp, #0x40]
        ldp     x23, x24, [sp, #0x30]
        ldp     x21, x22, [sp, #0x20]
        ldp     x19, x20, [sp, #0x10]
        ldp     x29, x30, [sp], #0x60
        ret

// Every block new: conditional exits of each kind, calls and literals.
        .globl  new_blocks
new_blocks:
        mov     x9, #5
        cmp     x9, #5
        b.ne    9f
        cbz     x9, 9f
        tbz     x9, #0, 9f
        b       1f
        brk     #1
1:      adr     x10, 2f
        br      x10
        brk     #1
2:      ldr     d16, 8f
        ldr     x11, 8f
        prfm    pldl1keep, 8f
        mrs     x12, tpidr_el0
        .rept   40
        cbz     xzr, 3f
        brk     #1
3:
        .endr
        mov     x0, #0
        ret
9:      brk     #2
        .balign 8
8:      .xword  5

// Two paths, each often enough for a trace, with exits that leave them.
        .globl  hot_paths
hot_paths:
        mov     x9, #2000
1:      and     x10, x9, #7
        cbz     x10, 2f
        tbz     x9, #3, 3f
        add     x11, x11, #1
        b       4f
2:      add     x11, x11, #2
        b       4f
3:      add     x11, x11, #3
4:      subs    x9, x9, #1
        b.ne    1b
        mov     x0, #0
        ret

// Returns and indirect calls by the lookup, hot as well.
        .globl  hot_calls
hot_calls:
        mov     x15, x30
        mov     x9, #1000
        adr     x10, leaf
1:      bl      leaf
        blr     x10
        mov     x0, x10
        blr     x0
        subs    x9, x9, #1
        b.ne    1b
        mov     x30, x15
        mov     x0, #0
        ret
leaf:   add     x11, x11, #1
        ret

// A system call: the number, then its arguments.
        .globl  system_call
system_call:
        ldr     x8, [x0]
        ldp     x1, x2, [x0, #0x10]
        ldp     x3, x4, [x0, #0x20]
        ldp     x5, x6, [x0, #0x30]
        ldr     x0, [x0, #8]
        svc     #0
        ret

// A system call whose number stands beside it, as compilers write it.
        .globl  getppid_call
getppid_call:
        mov     x8, #173
        svc     #0
        ret

// Code that was translated is made known again, and a line that never was code: long invalidate(const long *).
        .globl  invalidate
invalidate:
        mov     x9, #5
1:      adr     x10, 2f
        ic      ivau, x10
        dsb     ish
        isb
        ic      ivau, x0
        dsb     ish
        isb
        b       2f
        .balign 64
2:      subs    x9, x9, #1
        b.ne    1b
        mov     x0, #0
        ret

// A load that faults. The handler goes on behind it.
        .globl  faulting_load
faulting_load:
        mov     x9, #8
        mov     x0, #1
        ldr     x0, [x9]
        ret

// Goes round until the word at x0 is not 0, by links and, where it is long, in a trace.
        .globl  wait_for_word
wait_for_word:
        ldr     w9, [x0]
        cbnz    w9, 2f
        tbz     x9, #3, 1f
        brk     #1
1:      adr     x10, wait_for_word
        br      x10
2:      mov     x0, #0
        ret

// A clone whose child ends at once, with the status 0. Arguments as above.
        .globl  clone_call
clone_call:
        ldr     x8, [x0]
        ldp     x1, x2, [x0, #0x10]
        ldp     x3, x4, [x0, #0x20]
        ldr     x0, [x0, #8]
        svc     #0
        cbnz    x0, 1f
        mov     x8, #93
        svc     #0
1:      ret

// Functions that plug-ins may watch, many times: long region(const long *). The marks of a region have the names that
// the tracer looks for; here they do nothing.
        .globl  region
region:
        mov     x15, x30
        mov     x9, #300
1:      adr     x0, region_name
        bl      start_perf_roofline_events
        bl      region_part
        adr     x0, region_name
        bl      stop_perf_roofline_events
        subs    x9, x9, #1
        b.ne    1b
        mov     x30, x15
        mov     x0, #0
        ret
        .globl  region_part
        .type   region_part, %function
region_part:
        fadd    d17, d17, d16
        add     x11, x11, #1
        ret
        .size   region_part, . - region_part
        .globl  start_perf_roofline_events
        .type   start_perf_roofline_events, %function
start_perf_roofline_events:
        ret
        .size   start_perf_roofline_events, . - start_perf_roofline_events
        .globl  stop_perf_roofline_events
        .type   stop_perf_roofline_events, %function
stop_perf_roofline_events:
        ret
        .size   stop_perf_roofline_events, . - stop_perf_roofline_events
region_name:
        .asciz  "small stack"
        .balign 4

        .section .note.GNU-stack, "", %progbits
