// Hand-written routines of the engine that run where they stand. The stub text (stubs.S) is copied into every thread's
// code cache; these are not, and they serve every thread. They are the ways in and out that C++ cannot write: the
// handler of all signals, the start and the end of a thread, the entry of the application into the code cache, and the
// engine's own system calls.
//
// Each routine says which registers it takes, what it keeps and how its frame lies.
#include "bi/code/stub_layout.h"
#include "bi/code/stub_macros.inc"

        .text

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
// caller in a frame that leave_thread returns through, and goes on to thread_start(thread_data, engine_sp). Below the
// frame the engine's stack of the thread begins; room for a system call's frame is kept there, which thread_start
// fills.
//
//   Frame, from sp up: x19, x20 0x00; x21, x22 0x10; ... x29, x30 0x50. Size 0x60.
global_label thread_start_stub
        stp     x19, x20, [sp, #-0x60]!
        x_pairs stp, 19, "21, 22", "23, 24", "25, 26", "27, 28", "29, 30"
        mov     x1, sp
        sub     sp, sp, #SYSCALL_FRAME_SIZE
        b       thread_start

// void leave_thread(std::uint64_t engine_sp, std::int32_t *library_tid_word, std::int32_t *application_tid_word):
// returns to the C library from thread_start_stub's frame, wherever the thread stands now. Does not return to its
// caller.
//   x0   the frame; x1, x2 handed on
//
//   Before it does, calls settle_tid_words(library_tid_word, application_tid_word): from that call on the application
//   may take its stack for another thread or unmap it. The frame has all the registers that the C library is owed.
global_label leave_thread
        mov     sp, x0
        mov     x0, x1
        mov     x1, x2
        bl      settle_tid_words
        x_pairs ldp, 19, "21, 22", "23, 24", "25, 26", "27, 28", "29, 30"
        ldp     x19, x20, [sp], #0x60
        mov     x0, #0
        ret

// [[noreturn]] void start_in_cache(std::uint64_t frame, std::uint64_t leave): a new thread's entry into the cache.
//   x0   a frame of syscall_wrapper, copied from the parent's, where the thread's own engine stack begins
//   x1   syscall_leave in the thread's copy of the stub text
//
//   The thread takes all registers that its parent had at the call, as the kernel would have it, and leaves the call
//   like its parent. x0, the stack pointer and where to go on are in the frame.
global_label start_in_cache
        mov     sp, x0
        add     x9, x0, #STUB_SIMD_REGS_SIZE
        clone_state ld, x9
        msr     fpcr, x20
        msr     fpsr, x21
        br      x1

// std::int64_t clone_in_memory(std::uint64_t flags, std::uint64_t parent_tid, std::uint64_t child_tid,
// thread_data *child): the clone of a child that shares the caller's memory while the caller sleeps. Returns in the
// parent, with the kernel's result.
//
//   The child's stack begins below the caller's stack pointer, where nobody writes meanwhile. Room for a system call's
//   frame is kept at its beginning; vfork_child_start(child, engine_stack_top) fills it.
global_label clone_in_memory
        mov     x9, x3
        mov     x4, x2
        mov     x2, x1
        sub     x1, sp, #0x100
        mov     x3, #0
        mov     x8, #NR_CLONE
        svc     #0
        cbz     x0, 1f
        ret
1:      mov     x0, x9
        mov     x1, sp
        sub     sp, sp, #SYSCALL_FRAME_SIZE
        b       vfork_child_start

// void enter_application(std::uint64_t block, std::uint64_t sp, std::uint64_t *engine_stack_word): the first entry into
// the cache. The block pops the two zeros, so that the application starts with x0 and x1 at 0 and sp at the value
// given. What lies below the tool's present stack pointer becomes the engine's stack. Does not return.
global_label enter_application
        mov     x3, sp
        str     x3, [x2]
        mrs     x4, tpidr_el0
        add     x4, x4, #:tprel_hi12:guarded_engine_stack, lsl #12
        add     x4, x4, #:tprel_lo12_nc:guarded_engine_stack
        str     x3, [x4]
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
