// The maintenance of both caches over written words.
#include "bi/code/stub_macros.inc"

        .text

// void maintain_caches(const written_range *ranges, std::size_t count, std::uint64_t cache_type): cleans the data cache
// to the point of unification over all ranges, then invalidates the instruction cache over all of them, line by line.
// Both broadcast to all processors, so that it does not matter which of them the thread runs on when it comes back.
//   x0   the ranges: first byte and end of each; an empty one is passed over
//   x1   how many
//   x2   CTR_EL0, which tells the sizes of lines and what the processor can do without:
//          IDC   fetches see what the data cache holds: nothing has to be cleaned
//          DIC   fetches see what the point of unification holds: nothing has to be invalidated
//
//   Uses x0 to x8 and the flags; no frame. A line of instructions may be a page: a kernel that has to make up for a
//   processor says so.
//
// The order is the architecture's for code that its writer runs:
//   DC CVAU   is ordered behind the stores, to the same words
//   DSB ISH   waits until they are clean; with IDC, until the stores themselves are seen
//   IC IVAU   before that barrier, it could let the old word be fetched again
//   DSB ISH   waits until no processor holds the old words
//   ISB       drops what this processor has fetched ahead
//
// tests/system/coherence leaves out each of these in turn, and makes a line one word where `lsl` computes its size.
        .balign 4
global_label maintain_caches
        add     x1, x0, x1, lsl #4
        mov     w8, #4                  // The fields hold logarithms of words.
        tbnz    x2, #28, 4f             // IDC
        ubfx    w4, w2, #16, #4         // DminLine
        lsl     w4, w8, w4
        neg     x5, x4
        mov     x6, x0
        b       3f
1:      ldp     x3, x7, [x6], #16
        cmp     x3, x7
        b.hs    3f
        and     x3, x3, x5
2:      dc      cvau, x3
        add     x3, x3, x4
        cmp     x3, x7
        b.lo    2b
3:      cmp     x6, x1
        b.lo    1b
4:      dsb     ish
        tbnz    x2, #29, 8f             // DIC
        and     w4, w2, #15             // IminLine
        lsl     w4, w8, w4
        neg     x5, x4
        b       7f
5:      ldp     x3, x7, [x0], #16
        cmp     x3, x7
        b.hs    7f
        and     x3, x3, x5
6:      ic      ivau, x3
        add     x3, x3, x4
        cmp     x3, x7
        b.lo    6b
7:      cmp     x0, x1
        b.lo    5b
        dsb     ish
8:      isb
        ret
        .size   maintain_caches, . - maintain_caches

        .section .note.GNU-stack, "", %progbits
