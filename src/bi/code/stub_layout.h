/* What the stub text and the C++ of the engine must agree on: frame offsets and the numbers of system calls. Both
   include this file, so that neither counts bytes by itself. Only preprocessor constants may stand here. */
#pragma once

/* Blocks of registers that the four subroutines of the stub text push and pop. */
#define STUB_INT_REGS_SIZE 0x90   /* x4 to x21 */
#define STUB_SIMD_REGS_SIZE 0x200 /* q0 to q31 */

/* All frames below lie on the engine's stack of the thread and end at the address in word_engine_stack. */

/* What a stub leaves on the application's stack while the engine runs: x2, x3, and above them x0, x1. */
#define STUB_APP_FRAME_SIZE 0x20

/* The frame of dispatcher_entry_stub, from its stack pointer before the register blocks. */
#define DISPATCH_NEXT 0x10   /* receives the cache address */
#define DISPATCH_TARGET 0x18 /* the source address to go to */
#define DISPATCH_APP_SP 0x20 /* the application's sp, less STUB_APP_FRAME_SIZE */
#define DISPATCH_SIZE 0x30

/* The frame of cache_reentry_stub, likewise. */
#define REENTRY_NEXT 0x10   /* cache and source address */
#define REENTRY_APP_SP 0x20 /* the application's sp, less STUB_APP_FRAME_SIZE */
#define REENTRY_RESULT 0x30 /* what deliver_pending_signal returns, 0x20 bytes */
#define REENTRY_SIZE 0x50

/* The save area of a system call, in bytes from its word 0. q0 to q31 lie below it. */
#define SYSCALL_X0 0x00
#define SYSCALL_X2 0x10
#define SYSCALL_X4 0x20
#define SYSCALL_X6 0x30
#define SYSCALL_X8 0x40
#define SYSCALL_CACHE_RETURN 0xb0 /* word 22 */
#define SYSCALL_NEXT_SOURCE 0xb8  /* word 23 */
#define SYSCALL_X29 0xc0          /* words 24 and 25 */
#define SYSCALL_X30 0xc8
#define SYSCALL_APP_SP 0xd0 /* word 26: the application's sp at the time of the SVC */
/* Filled for the clones that the engine makes itself. */
#define SYSCALL_NZCV 0xd8 /* words 27 to 29 */
#define SYSCALL_FPCR 0xe0
#define SYSCALL_FPSR 0xe8
#define SYSCALL_X22 0xf0 /* words 30 to 36: x22 to x28 */
#define SYSCALL_AREA_SIZE 0x130

/* The whole frame, from q0 to the end of the save area. */
#define SYSCALL_FRAME_SIZE 0x330

/* Numbers of system calls below this may be made by the short way; a byte of quick_calls for each says whether. */
#define QUICK_CALLS_BITS 9

/* Fields of thread_data and of engine_globals that a system call looks at. */
#define THREAD_STATUS 0x08
#define THREAD_RUNS_CALL 0x0c
#define THREAD_VISIT_WANTED 0x10
#define THREAD_PENDING_SIGNAL_COUNT 0x14
#define THREAD_CODE_EPOCH 0x18
#define ENGINE_CODE_EPOCH 0x00
#define ENGINE_EXIT_FLAG 0x08

#define KERNEL_MASK_SIZE 8 /* bytes of a signal mask */

#define NR_EXIT 0x5d
#define NR_CLONE 0xdc
#define NR_TGKILL 0x83
#define NR_RT_SIGPROCMASK 0x87
#define NR_RT_TGSIGQUEUEINFO 0xf0
#define NR_RT_SIGRETURN 0x8b
