// The leaf that may fault, and the handler that turns its fault into a result. checked_copy.h tells why both are
// assembly. No BTI landing pads: the executable that this is linked into does without.

#include "bi/kernel/checked_copy_offsets.h"

        .text

// extern "C" int byte_copy(void* destination, const void* source, std::size_t size)
//   x0 destination, x1 source, x2 size. Returns 0 in w0. Clobbers x1, x2, w3, flags.
//   No frame, and x30 is never touched: byte_copy_fault can take over at any instruction.
        .p2align 4
        .global byte_copy
        .type   byte_copy, %function
byte_copy:
        .cfi_startproc
        cbz     x2, 2f
1:      ldrb    w3, [x1], #1
        strb    w3, [x0], #1
        subs    x2, x2, #1
        b.ne    1b
2:      mov     w0, #0
        ret
byte_copy_end:
        .cfi_endproc
        .size   byte_copy, . - byte_copy

// Where a faulting byte_copy goes on: its return of -1, to byte_copy's caller.
        .type   byte_copy_fault, %function
byte_copy_fault:
        .cfi_startproc
        mov     w0, #-1
        ret
        .cfi_endproc
        .size   byte_copy_fault, . - byte_copy_fault

// extern "C" void checked_copy_handler(int signal, siginfo_t* info, void* context)
//   w0 signal, x1 info, x2 context, x30 the way back into the kernel, sp the kernel's signal frame. Entered by the
//   kernel for SIGSEGV. Returns with the context's program counter in byte_copy_fault, or leaves to the old handler or
//   to checked_copy_default_action with x0, x1, x2, x30 and sp as they came. Clobbers x3, x4.
        .p2align 4
        .global checked_copy_handler
        .hidden checked_copy_handler
        .type   checked_copy_handler, %function
checked_copy_handler:
        .cfi_startproc
        ldr     x3, [x2, #UCONTEXT_PC_OFFSET]
        adr     x4, byte_copy
        cmp     x3, x4
        b.lo    1f
        adr     x4, byte_copy_end
        cmp     x3, x4
        b.hs    1f
        ldr     w3, [x1, #SIGINFO_CODE_OFFSET]
        cmp     w3, #0
        b.le    1f                      // sent by a process: it only happened to arrive here
        adr     x4, byte_copy_fault
        str     x4, [x2, #UCONTEXT_PC_OFFSET]
        ret
1:      adrp    x3, checked_copy_old_handler
        add     x3, x3, :lo12:checked_copy_old_handler
        ldar    x3, [x3]                // pairs with note_old_handler
        cmp     x3, #1                  // SIG_DFL is 0, SIG_IGN 1
        b.hi    2f
        b       checked_copy_default_action
2:      br      x3
        .cfi_endproc
        .size   checked_copy_handler, . - checked_copy_handler

        .section .note.GNU-stack, "", %progbits
