// The leaf that may fault, and the handler that turns its fault into a result, for a development machine that is not
// AArch64. checked_copy.h tells why both are assembly; checked_copy_aarch64.S is the same routine by routine.

#include "bi/kernel/checked_copy_offsets.h"

        .intel_syntax noprefix
        .text

// extern "C" int byte_copy(void* destination, const void* source, std::size_t size)
//   rdi destination, rsi source, rdx size. Returns 0 in eax. Clobbers rdi, rsi, rdx, cl, flags.
//   Pushes nothing: byte_copy_fault can take over at any instruction.
        .p2align 4
        .global byte_copy
        .type   byte_copy, @function
byte_copy:
        .cfi_startproc
        endbr64
        test    rdx, rdx
        je      2f
1:      mov     cl, [rsi]
        mov     [rdi], cl
        inc     rsi
        inc     rdi
        dec     rdx
        jne     1b
2:      xor     eax, eax
        ret
byte_copy_end:
        .cfi_endproc
        .size   byte_copy, . - byte_copy

// Where a faulting byte_copy goes on: its return of -1, to byte_copy's caller.
        .type   byte_copy_fault, @function
byte_copy_fault:
        .cfi_startproc
        mov     eax, -1
        ret
        .cfi_endproc
        .size   byte_copy_fault, . - byte_copy_fault

// extern "C" void checked_copy_handler(int signal, siginfo_t* info, void* context)
//   edi signal, rsi info, rdx context, [rsp] the way back into the kernel. Entered by the kernel for SIGSEGV. Returns
//   with the context's program counter in byte_copy_fault, or leaves to the old handler or to
//   checked_copy_default_action with rdi, rsi, rdx and rsp as they came. Clobbers rax, rcx.
        .p2align 4
        .global checked_copy_handler
        .hidden checked_copy_handler
        .type   checked_copy_handler, @function
checked_copy_handler:
        .cfi_startproc
        endbr64
        mov     rax, [rdx + UCONTEXT_PC_OFFSET]
        lea     rcx, [rip + byte_copy]
        cmp     rax, rcx
        jb      1f
        lea     rcx, [rip + byte_copy_end]
        cmp     rax, rcx
        jae     1f
        cmp     dword ptr [rsi + SIGINFO_CODE_OFFSET], 0
        jle     1f                      // sent by a process: it only happened to arrive here
        lea     rcx, [rip + byte_copy_fault]
        mov     [rdx + UCONTEXT_PC_OFFSET], rcx
        ret
1:      mov     rax, [rip + checked_copy_old_handler]
        cmp     rax, 1                  // SIG_DFL is 0, SIG_IGN 1
        jbe     checked_copy_default_action
        jmp     rax
        .cfi_endproc
        .size   checked_copy_handler, . - checked_copy_handler

        .section .note.GNU-stack, "", @progbits
