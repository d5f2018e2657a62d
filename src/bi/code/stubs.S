// The stub text: position-independent code and data. Every thread's code cache begins with a copy of it. It is the only
// way from rewritten application code into the engine. A stub pushes up to 32 bytes on the application's stack, takes
// the engine's stack of this thread, saves the application's state there and calls an engine routine. It then restores
// the state, takes the application's stack again and goes on at a cache address.
//
//   the application's stack, while the engine runs        the engine's stack
//   +----------------+ the application's sp               +-----------------------+ word_engine_stack
//   | x0, x1         | pushed by an exit, or put here     | the stub's frame      | see each entry
//   +----------------+                                    | x4 to x21             |
//   | x2, x3         | from DISPATCH_APP_SP or x2         | the vector state      |
//   +----------------+ the frame of cache_reentry_stub    | the engine's routines | sp
//                                                         +-----------------------+
//
// The engine's stack is the thread's own stack of the tool's C library, below what the thread had there when it went
// into the cache. It is empty whenever rewritten code runs: every frame begins at word_engine_stack, so it can be found
// from a signal without sp. Nothing that runs on it goes into rewritten code except by a stub that leaves it.
//
// While a system call of the application's is in the kernel, and where a held signal is raised, sp is the
// application's: the kernel may copy sp for a child, and a signal is delivered as if the application had been running.
//
// A copy finds its thread by data words that init_thread patches into the copy, so it needs no register of the
// application's for that. Literal loads reach the data words, and everything in the text must stay in range of itself.
// Nothing in it may refer to its own address in the executable.
//
// Around every call into the engine the stubs preserve for the application: x0 to x21, x29, x30, the vector registers,
// and the condition flags (in x19, once x19 is saved). The engine's own code preserves x22 to x28, by the
// procedure-call standard. FPCR and FPSR stay as they are: the engine's code does not touch the rounding mode and
// executes no floating-point arithmetic.
#include "bi/code/stub_layout.h"
#include "bi/code/stub_macros.inc"

        .text
        .balign 8
        .globl  stub_text
        .globl  stub_text_end

stub_text:

// Subroutines, called by BL after the caller has saved x30. Each moves sp by the size of its block.

//   +0x000 q0, q1 ... +0x1e0 q30, q31
save_simd_regs:
        stp     q0, q1, [sp, #-STUB_SIMD_REGS_SIZE]!
        q_pairs stp, "2, 3", "4, 5", "6, 7", "8, 9", "10, 11", "12, 13", "14, 15", "16, 17"
        q_pairs stp, "18, 19", "20, 21", "22, 23", "24, 25", "26, 27", "28, 29", "30, 31"
        ret

restore_simd_regs:
        q_pairs ldp, "30, 31", "28, 29", "26, 27", "24, 25", "22, 23", "20, 21", "18, 19"
        q_pairs ldp, "16, 17", "14, 15", "12, 13", "10, 11", "8, 9", "6, 7", "4, 5", "2, 3"
        ldp     q0, q1, [sp], #STUB_SIMD_REGS_SIZE
        ret

//   +0x00 x4, x5 ... +0x80 x20, x21
save_int_regs:
        stp     x4, x5, [sp, #-STUB_INT_REGS_SIZE]!
        x_pairs stp, 4, "6, 7", "8, 9", "10, 11", "12, 13", "14, 15", "16, 17", "18, 19", "20, 21"
        ret

restore_int_regs:
        x_pairs ldp, 4, "20, 21", "18, 19", "16, 17", "14, 15", "12, 13", "10, 11", "8, 9", "6, 7"
        ldp     x4, x5, [sp], #STUB_INT_REGS_SIZE
        ret

// The whole vector state. On a machine without SVE the first word of a copy stays as it is, and q0 to q31 are all there
// is. With SVE init_thread makes it a NOP. The longer code is needed there: a load of a q register clears the rest of
// its z register, and the C library's own copying clobbers predicates, but an application between two blocks still
// needs both. System calls do not use these two routines: their interface gives the rest of the state up.
//
//   The SVE frame, from sp up: p0 to p15 and FFR, 17 PL; unused, up to 3 VL; z0 to z31. VL is a vector's length, PL an
//   eighth of it. Both steps of sp are whole vectors, so that sp stays aligned to 16.
        .arch   armv8-a+sve
global_label save_vector_state
        b       save_simd_regs
        addvl   sp, sp, #-32
        addvl   sp, sp, #-3
        each_predicate str
        rdffr   p0.b
        str     p0, [sp, #16, mul vl]
        each_vector str
        ret

global_label restore_vector_state
        b       restore_simd_regs
        ldr     p0, [sp, #16, mul vl]
        wrffr   p0.b
        each_predicate ldr
        each_vector ldr
        addvl   sp, sp, #31
        addvl   sp, sp, #4
        ret
        .arch   armv8-a

// redirect_stub: a signal's context is led here, with all of the application's registers in place and sp as between two
// blocks. Does what an exit does, to the source address in the thread's redirect_target. The push is made here and not
// in the context, because it may fault.
global_label redirect_stub
        stp     x0, x1, [sp, #-16]!
        ldr     x0, word_redirect_target
        ldr     x0, [x0]
        mov     x1, #0 // No link is made.
        b       dispatcher_entry_stub

// dispatcher_entry_stub: an exit without a link pushes the application's x0 and x1 and comes here by B.
//   x0   source address to go to
//   x1   bb_meta index of the fragment that left, 0 if none
//
//   Frame on the engine's stack, from sp up, while dispatcher runs:
//     the vector state                  of save_vector_state
//     x4 to x21                         STUB_INT_REGS_SIZE
//     x29, x30                          0x00 of the frame
//     cache address, from dispatcher    DISPATCH_NEXT
//     source address                    DISPATCH_TARGET
//     the application's sp, less 32     DISPATCH_APP_SP: x2, x3 and the exit's x0, x1 lie there
//
//   Calls dispatcher(target, source_index, next_addr, thread_data) and leaves to reentry_window.
global_label dispatcher_entry_stub
        stp     x2, x3, [sp, #-16]!
        mov     x2, sp
        ldr     x3, word_engine_stack
        mov     sp, x3
        stp     x29, x30, [sp, #-DISPATCH_SIZE]!
        stp     x0, x2, [sp, #DISPATCH_TARGET]
        bl      save_int_regs
        mrs     x19, nzcv
        add     x2, sp, #(STUB_INT_REGS_SIZE + DISPATCH_NEXT)
        ldr     x3, word_thread_data
        ldr     x9, word_dispatcher
        bl      save_vector_state
        blr     x9
dispatcher_leave:
        bl      restore_vector_state
        msr     nzcv, x19
        bl      restore_int_regs
        ldp     x0, x1, [sp, #DISPATCH_NEXT]
        ldr     x2, [sp, #DISPATCH_APP_SP]
        ldp     x29, x30, [sp]
        mov     sp, x2
        ldr     x3, [sp, #8]
        b       reentry_window

// hot_counter_stub: called by BL from the counter at a block's head when the block has become hot, by the engine's own
// counter or by a plug-in's (run_counter.h). create_trace(thread_data, source_index, ret) tells where to go on in its
// place.
//   x30  in the block's first 256 bytes; the application's x1 and x30 are on the stack, in this order
//
//   The frame is that of dispatcher_entry_stub; `ret` is at DISPATCH_NEXT. On the application's stack x0 and x1 take
//   the place of x1 and x30. The blocks lie at multiples of 256 bytes from the start of this text's copy.
global_label hot_counter_stub
        stp     x2, x3, [sp, #-16]!
        adr     x1, stub_text
        sub     x1, x30, x1
        lsr     x1, x1, #8
        ldp     x2, x30, [sp, #0x10]
        stp     x0, x2, [sp, #0x10]
        mov     x2, sp
        ldr     x3, word_engine_stack
        mov     sp, x3
        stp     x29, x30, [sp, #-DISPATCH_SIZE]!
        str     x2, [sp, #DISPATCH_APP_SP]
        bl      save_int_regs
        mrs     x19, nzcv
        add     x2, sp, #(STUB_INT_REGS_SIZE + DISPATCH_NEXT)
        ldr     x0, word_thread_data
        ldr     x3, word_create_trace
        bl      save_vector_state
        blr     x3
        b       dispatcher_leave

// Calls the function in the data word \word as (number, args, next_inst, thread_data), from the save area of a system
// call, which lies behind q0 to q31 at sp.
        .macro  call_with_save_area word
        ldr     x0, [sp, #(STUB_SIMD_REGS_SIZE + SYSCALL_X8)]
        add     x1, sp, #STUB_SIMD_REGS_SIZE
        ldr     x2, [sp, #(STUB_SIMD_REGS_SIZE + SYSCALL_NEXT_SOURCE)]
        ldr     x3, word_thread_data
        ldr     x9, \word
        blr     x9
        .endm

// The offset of a word of a system call's save area from where the engine's stack begins.
#define AREA(word) (word - SYSCALL_AREA_SIZE)

// syscall_wrapper: called by BL from a rewritten SVC.
//   x29   source address of the next instruction; the application's x29 and x30 are on the stack
//   x30   cache address of the rest of the block
//
//   The short way, for a call that the engine only passes on: quick_calls has a byte for each number that says so. All
//   other calls go on at syscall_whole. The short way keeps five words of the save area of stub_layout.h, where that
//   lies on the engine's stack: the two return addresses, x29, x30, and the application's sp. Nothing else is saved:
//   the kernel keeps all registers but x0, and no code of the engine's runs. The flags are not changed, either. While
//   the call is in the kernel, every register and sp are the application's, so a signal that comes there has the
//   context of the application already, but for its pc.
//
//   What the two ends do is that of syscall_handler_pre and syscall_handler_post for such a call (enter_call,
//   come_back), with the same order of accesses.
global_label syscall_wrapper
        stp     x0, x1, [sp, #-16]!
        lsr     w0, w8, #QUICK_CALLS_BITS
        cbnz    w0, syscall_whole
        ldr     x1, word_quick_calls
        ldrb    w0, [x1, w8, uxtw]
        cbz     w0, syscall_whole
        ldr     x1, word_engine_stack
        stp     x30, x29, [x1, #AREA(SYSCALL_CACHE_RETURN)]
        add     x0, sp, #0x20
        str     x0, [x1, #AREA(SYSCALL_APP_SP)]
        ldp     x29, x30, [sp, #0x10]
        stp     x29, x30, [x1, #AREA(SYSCALL_X29)]
        ldr     x1, word_thread_data
        mov     w0, #1
        str     w0, [x1, #THREAD_RUNS_CALL]
        dmb     ish // As in enter_call. It also makes the store of the status below a release.
        ldr     w0, [x1, #THREAD_VISIT_WANTED]
        cbnz    w0, quick_call_whole
        mov     w0, #1 // THREAD_IN_SYSCALL
        str     w0, [x1, #THREAD_STATUS]
// As at syscall_restart_window: a signal that comes in this window makes the thread look again.
global_label quick_restart_window
        ldr     w0, [x1, #THREAD_PENDING_SIGNAL_COUNT]
        cbnz    w0, quick_call_whole
// As at syscall_call_window: a signal that comes here, at the SVC included, finds the call not made.
global_label quick_call_window
        ldp     x0, x1, [sp], #0x20
global_label quick_call
        svc     #0
global_label quick_return_point
        stp     x0, x1, [sp, #-16]!
        ldr     x30, word_thread_data
        str     xzr, [x30, #THREAD_STATUS] // And THREAD_RUNS_CALL. Aligned, so that readers of either see one store.
        dmb     ish // Between these stores and the next two loads, as in come_back.
        ldr     x29, word_engine
        ldr     x0, [x29, #ENGINE_CODE_EPOCH]
        ldr     w29, [x29, #ENGINE_EXIT_FLAG]
        ldr     x1, [x30, #THREAD_CODE_EPOCH]
        eor     x0, x0, x1
        orr     x29, x29, x0
// A signal that comes from here on is counted too late. The thread is then sent to quick_call_visit, by what the save
// area keeps. That way always comes to the engine.
global_label quick_look_window
        ldr     w0, [x30, #THREAD_PENDING_SIGNAL_COUNT]
        orr     x29, x29, x0
        ldr     x30, word_engine_stack
        ldp     x0, x1, [x30, #AREA(SYSCALL_CACHE_RETURN)]
        cbnz    x29, 1f
        ldp     x29, x30, [x30, #AREA(SYSCALL_X29)]
global_label quick_branch
        br      x0
1:      ldp     x29, x30, [x30, #AREA(SYSCALL_X29)]
// The process ends, code was dropped, or signals are held: deliver_pending_signal looks at all three, in this order.
// The state is that of cache_reentry_stub.
global_label quick_call_visit
        stp     x2, x3, [sp, #-16]!
        b       reentry_visit

// There is something to be done before the call. If it was noted as one that is in the kernel, syscall_handler_pre
// finds that in the status and leaves it so.
quick_call_whole:
        ldr     x1, word_engine_stack
        ldp     x30, x29, [x1, #AREA(SYSCALL_CACHE_RETURN)]
        b       syscall_whole

// The whole way. A block with a key of its own (has_own_blocks) comes here straight away, because the kernel is to find
// another sp than such a block has.
//
//   Frame on the engine's stack, from sp up: q0 to q31, then the save area of stub_layout.h (SYSCALL_*): x0 to x21, the
//   two return addresses, x29, x30, the application's sp; and for clones the rest of its state. SYSCALL_FRAME_SIZE in
//   all.
//
//   Calls syscall_handler_pre(number, args, next_inst, thread_data). If its result is 1, makes the call with the
//   application's sp and calls syscall_handler_post with the same arguments. Leaves to reentry_window. While the call
//   is in the kernel, x19 holds the flags, x20 FPCR and x21 FPSR. The signal dispatcher finds them there if it has to
//   take the frame apart at syscall_return_point. An rt_sigreturn does not come back.
global_label syscall_of_own_block
        stp     x0, x1, [sp, #-16]!
syscall_whole:
        mov     x0, sp
        ldr     x1, word_engine_stack
        sub     sp, x1, #(SYSCALL_AREA_SIZE - SYSCALL_X29)
        stp     x30, x29, [sp, #-16]!
        bl      save_int_regs
        ldp     x4, x5, [x0]
        ldp     x6, x7, [x0, #0x10]
        add     x9, x0, #0x20
        stp     x4, x5, [sp, #-0x20]!
        stp     x2, x3, [sp, #SYSCALL_X2]
        stp     x6, x7, [sp, #SYSCALL_X29]
        str     x9, [sp, #SYSCALL_APP_SP]
        bl      save_simd_regs
        mrs     x19, nzcv
        mrs     x20, fpcr
        mrs     x21, fpsr
        mov     x0, x8
        add     x1, sp, #STUB_SIMD_REGS_SIZE
        mov     x2, x29
        ldr     x3, word_thread_data
        ldr     x9, word_syscall_handler_pre
        blr     x9
        cbz     x0, syscall_leave
        tbnz    x0, #1, syscall_clone_in_engine
        mov     w10, #0 // how many held signals have been judged
// A signal that came before this point was only counted, and the call might never return. So it is raised first. A
// signal that comes in this window makes the thread look again.
global_label syscall_restart_window
        ldr     x9, word_pending_signal_count
        ldr     w9, [x9]
        cmp     w9, w10
        b.ne    syscall_with_held_signals
// If a signal comes between here and the SVC, the SVC included, the call has not been made. The signal dispatcher then
// takes the frame apart and lets the handler run, and the application makes the call anew. So no call sleeps over a
// signal that arrived before it.
global_label syscall_call_window
        add     x9, sp, #STUB_SIMD_REGS_SIZE
        ldr     x10, [x9, #SYSCALL_APP_SP]
        ldp     x0, x1, [x9, #SYSCALL_X0]
        ldp     x2, x3, [x9, #SYSCALL_X2]
        ldp     x4, x5, [x9, #SYSCALL_X4]
        ldp     x6, x7, [x9, #SYSCALL_X6]
        ldr     x8, [x9, #SYSCALL_X8]
        mov     sp, x10
        svc     #0
global_label syscall_return_point
        ldr     x1, word_engine_stack
        sub     sp, x1, #SYSCALL_FRAME_SIZE
        str     x0, [sp, #(STUB_SIMD_REGS_SIZE + SYSCALL_X0)]
        call_with_save_area word_syscall_handler_post
// A new thread begins here, on a copy of its parent's frame, see start_in_cache.
global_label syscall_leave
        bl      restore_simd_regs
        msr     nzcv, x19
        ldr     x29, [sp, #SYSCALL_APP_SP]
        ldp     x2, x3, [sp, #SYSCALL_X2]
        ldp     x0, x1, [sp], #0x20
        // The frame of cache_reentry_stub. The application's x0 and x1 take the place of its x29 and x30, where the
        // fragment pops them.
        stp     x0, x1, [x29, #-0x10]
        stp     x2, x3, [x29, #-0x20]
        sub     x2, x29, #0x20
        bl      restore_int_regs
        ldp     x29, x30, [sp, #0x10]
        ldp     x0, x1, [sp]
        mov     sp, x2
        b       reentry_window

// cache_reentry_stub: the one way back into the cache.
//   x0   cache address to go to
//   x1   source address that it stands for; the application's x0 and x1 are on the stack
//
//   Held signals are raised here and nowhere else. All of the application's state is in place at that point, except
//   x0 to x3 and x8. Those are at known places, see reentry_signal_point.
//
//   Frame on the engine's stack while deliver_pending_signal runs, from sp up: the vector state; x4 to x21; then
//     x29, x30               0x00
//     cache, source address  REENTRY_NEXT
//     the application's sp, less 32; unused   REENTRY_APP_SP
//     result area            REENTRY_RESULT: the call's first three arguments
//   On the application's stack: x2, x3; x0, x1.
global_label cache_reentry_stub
        stp     x2, x3, [sp, #-16]!
// Between the look at the count and the branch that leaves, a signal would be counted too late: the thread might not
// come here again for as long as it runs. The same holds for the second window below. From either one the signal
// dispatcher sends the thread back to this window, because everything is at known places up to the branch.
global_label reentry_window
        ldr     x2, word_pending_signal_count
        ldr     w2, [x2]
        cbnz    w2, reentry_visit
        ldr     x2, [sp], #16
global_label reentry_branch
        br      x0
// Comes to the engine in any case.
reentry_visit:
        mov     x2, sp
        ldr     x3, word_engine_stack
        mov     sp, x3
        stp     x29, x30, [sp, #-REENTRY_SIZE]!
        stp     x0, x1, [sp, #REENTRY_NEXT]
        str     x2, [sp, #REENTRY_APP_SP]
        mov     x0, x1
        add     x1, sp, #REENTRY_RESULT
        bl      save_int_regs
        bl      save_vector_state
        mrs     x19, nzcv
        // No program has this target. A thread that has it stops here, so that a debugger can be attached.
2:      mov     x2, #0xd6db
        cmp     x0, x2
        b.eq    2b
        ldr     x3, word_deliver_pending_signal
        blr     x3
        msr     nzcv, x19
        bl      restore_vector_state
        bl      restore_int_regs
        ldp     x29, x30, [sp]
        cbz     x0, reentry_resume
        // The signal is pending in the kernel already, and everything is blocked. The call puts the application's mask
        // in force: x0 to x2 are the change, the mask and none to be read.
        ldr     x3, [sp, #REENTRY_APP_SP]
        ldp     x0, x1, [sp, #REENTRY_RESULT]
        ldr     x2, [sp, #(REENTRY_RESULT + 0x10)]
        mov     sp, x3
        // x8 takes the place of x3 on the application's stack.
        ldr     x3, [sp, #8]
        str     x8, [sp, #8]
        ldr     x8, word_raised_signal
        str     x3, [x8]
        mov     x3, #KERNEL_MASK_SIZE
        mov     x8, #NR_RT_SIGPROCMASK
// With SVE a copy has a trap here. A system call gives up the vectors' upper parts and the predicates, which the
// application needs. The signal dispatcher has the mask restored with the context instead, and the kernel raises the
// signal where this call would have raised it.
global_label reentry_raise
        svc     #0
// The signal is raised here, with sp on the application's stack: x2, x8; x0, x1. The application's x3 is where
// word_raised_signal says. The cache address and the source address are where the frame was on the engine's stack.
global_label reentry_signal_point
        // The signal was not raised: its action is to ignore it meanwhile. There may be others.
        ldr     x8, word_raised_signal
        ldr     x3, [x8]
        ldr     x2, word_engine_stack
        ldp     x0, x1, [x2, #(REENTRY_NEXT - REENTRY_SIZE)]
        ldp     x2, x8, [sp], #16
        b       cache_reentry_stub
// The held signals have to wait on. The frame is there, less x29 and x30; how many signals have been judged is in the
// result area.
reentry_resume:
        ldr     w1, [sp, #REENTRY_RESULT]
global_label reentry_resume_window
        ldr     x2, word_pending_signal_count
        ldr     w2, [x2]
        sub     w2, w2, w1
        cbnz    w2, 3f
        ldp     x0, x1, [sp, #REENTRY_NEXT]
        ldr     x2, [sp, #REENTRY_APP_SP]
        mov     sp, x2
        ldp     x2, x3, [sp], #16
global_label reentry_resume_branch
        br      x0
3:      ldp     x0, x1, [sp, #REENTRY_NEXT]
        ldr     x2, [sp, #REENTRY_APP_SP]
        mov     sp, x2
        b       reentry_visit

// Part of syscall_wrapper, for the clones that the engine makes itself: a thread, and a child in the same memory.
// Either begins with all of the caller's registers, so those that C++ keeps are added to the save area. Calls
// syscall_clone(number, args, next_inst, thread_data), which leaves the result in the save area.
syscall_clone_in_engine:
        add     x1, sp, #STUB_SIMD_REGS_SIZE
        clone_state st, x1
        ldr     x0, [x1, #SYSCALL_X8]
        ldr     x2, [x1, #SYSCALL_NEXT_SOURCE]
        ldr     x3, word_thread_data
        ldr     x9, word_syscall_clone
        blr     x9
        b       syscall_leave

// Part of syscall_wrapper, for the case that signals are held. Calls syscall_held_signals(number, args, next_inst,
// thread_data). If a signal is to be raised, the function changes the two return addresses so that the call is made
// anew afterwards, and returns 0. Otherwise it returns 1 more than the number of signals that have to wait on.
syscall_with_held_signals:
        call_with_save_area word_syscall_held_signals
        cbz     x0, syscall_leave
        sub     w10, w0, #1
        b       syscall_restart_window

// The data words. The first five differ from thread to thread; init_thread fills them, and word_engine, in each copy,
// and the way into the cache fills word_engine_stack.
        .balign 8
global_label word_engine_stack
        .xword  0
global_label word_thread_data
        .xword  0
global_label word_pending_signal_count
        .xword  0
global_label word_raised_signal
        .xword  0
global_label word_redirect_target
        .xword  0
global_label word_engine
        .xword  0
word_quick_calls:
        .xword  quick_calls
word_dispatcher:
        .xword  dispatcher
word_syscall_handler_pre:
        .xword  syscall_handler_pre
word_syscall_held_signals:
        .xword  syscall_held_signals
word_syscall_handler_post:
        .xword  syscall_handler_post
word_syscall_clone:
        .xword  syscall_clone
word_create_trace:
        .xword  create_trace
word_deliver_pending_signal:
        .xword  deliver_pending_signal
stub_text_end:

        .section .note.GNU-stack, "", %progbits
