// Hand-written routines of the engine that run where they stand. The stub text (stubs.S) is copied into every thread's
// code cache; these are not, and they serve every thread. They are the ways in and out that C++ cannot write: the
// handler of all signals, the start and the end of a thread, the entry of the application into the code cache, and the
// engine's own system calls.
//
// Each routine says which registers it takes, what it keeps and how its frame lies.
#include "bi/code/stub_layout.h"

        .text

        .macro  global_label name
        .globl  \name
\name:
        .endm

// signal_entry_stub: the handler that the kernel calls for every signal that the engine or the application handles. On
// the engine's signal stack, with every signal blocked.
//   sp   the kernel's frame, which begins with siginfo and ucontext
//   x29  the frame's end: its record of x29 and x30
//   x30  the restorer
//
//   No frame of its own. Nothing is saved, because the way on is always the return from the kernel's frame, which holds
//   all registers of the interrupted code. Calls signal_dispatcher(frame, record, restorer), which changes that frame
//   where the thread is to go elsewhere.
        .balign 4
global_label signal_entry_stub
        mov     x0, sp
        mov     x1, x29
        mov     x2, x30
        bl      signal_dispatcher
        mov     x8, #NR_RT_SIGRETURN
        svc     #0

// void *thread_start_stub(thread_data *): what pthread_create runs. Keeps the callee-saved registers of the C library's
// caller in a frame that leave_thread returns through, and goes on to thread_start(thread_data, engine_sp).
//
//   Frame, from sp up: x19, x20 0x00; x21, x22 0x10; ... x29, x30 0x50. Size 0x60.
global_label thread_start_stub
        stp     x19, x20, [sp, #-0x60]!
        stp     x21, x22, [sp, #0x10]
        stp     x23, x24, [sp, #0x20]
        stp     x25, x26, [sp, #0x30]
        stp     x27, x28, [sp, #0x40]
        stp     x29, x30, [sp, #0x50]
        mov     x1, sp
        b       thread_start

// void leave_thread(std::uint64_t engine_sp, std::int32_t *library_tid_word, std::int32_t *application_tid_word):
// returns to the C library from thread_start_stub's frame, wherever the thread stands now. Does not return to its
// caller.
//   x0   the frame; x1, x2 handed on
//
//   Before it does, and as soon as sp has left the application's stack, calls settle_tid_words(library_tid_word,
//   application_tid_word): from that call on the application may take its stack for another thread or unmap it.
//   Nothing of the caller's is needed any more; the frame has all the registers that the C library is owed.
global_label leave_thread
        mov     sp, x0
        mov     x0, x1
        mov     x1, x2
        bl      settle_tid_words
        ldp     x21, x22, [sp, #0x10]
        ldp     x23, x24, [sp, #0x20]
        ldp     x25, x26, [sp, #0x30]
        ldp     x27, x28, [sp, #0x40]
        ldp     x29, x30, [sp, #0x50]
        ldp     x19, x20, [sp], #0x60
        mov     x0, #0
        ret

// [[noreturn]] void start_on_stack(std::uint64_t save_area, std::uint64_t block): a new thread's entry into the cache.
//   x0   words 2 and on of the parent's save area, copied; above its 0xf0 bytes the two words that the block pops
//   x1   cache address of the block
//
//   A child is expected to need sp and x0 only; x22 and up take what lies at their numbers in the save area.
global_label start_on_stack
        mov     sp, x0
        mov     x0, x1
        ldp     x4, x5, [sp, #0x10]
        ldp     x6, x7, [sp, #0x20]
        ldp     x8, x9, [sp, #0x30]
        ldp     x10, x11, [sp, #0x40]
        ldp     x12, x13, [sp, #0x50]
        ldp     x14, x15, [sp, #0x60]
        ldp     x16, x17, [sp, #0x70]
        ldp     x18, x19, [sp, #0x80]
        ldp     x20, x21, [sp, #0x90]
        ldp     x22, x23, [sp, #0xa0]
        ldp     x24, x25, [sp, #0xb0]
        ldp     x26, x27, [sp, #0xc0]
        ldr     x28, [sp, #0xd0]
        ldp     x29, x30, [sp, #0xe0]
        ldp     x2, x3, [sp], #0xf0
        br      x0

// void enter_application(std::uint64_t block, std::uint64_t sp): the first entry into the cache. The block
// pops the two zeros, so that the application starts with x0 and x1 at 0 and sp at the value given. Does not return.
global_label enter_application
        mov     sp, x1
        stp     xzr, xzr, [sp, #-16]!
        br      x0

// std::int64_t raw_syscall(std::uint64_t number, a0, ..., a6): a system call past every interception; the kernel's
// result unchanged, negative numbers being errors. Leaf; clobbers what a call may.
global_label raw_syscall
        mov     x8, x0
        mov     x0, x1
        mov     x1, x2
        mov     x2, x3
        mov     x3, x4
        mov     x4, x5
        mov     x5, x6
        mov     x6, x7
        svc     #0
        ret

        .section .note.GNU-stack, "", %progbits
