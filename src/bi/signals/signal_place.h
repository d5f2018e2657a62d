// Where a signal has found its thread: in a fragment, in one of the windows of the stubs, or elsewhere in the engine;
// and how the thread's context is made the application's again where a stub holds part of it.
#pragma once

#include <ucontext.h>

#include <cstdint>

#include "bi/code/code_cache.h"
#include "bi/mora.h"

namespace ceilmeter {

// At a label of the thread's copy of the stub text.
bool is_stub_point(const thread_data* thread, std::uint64_t pc, const std::uint8_t* place);

// The place in a fragment that the thread stands at, or that it returns to without a look at the held signals: from a
// plug-in's function.
std::uint64_t fragment_place(const mcontext_t& context);

// Between the last look at the held signals and a system call that has not been made. A call that does not return is
// not covered: only calls that do return set the thread's status.
bool is_before_syscall(const thread_data* thread, std::uint64_t pc);

// At the first word behind a system call, by either way of the wrapper.
bool is_behind_syscall(const thread_data* thread, std::uint64_t pc);

// Sends a thread that has read the count of held signals, and has not acted on it, back to the read. Otherwise the
// signal that has come now would wait until the thread next reads the count, which may be never. Signals that came
// earlier are still raised first.
void look_again(const thread_data* thread, mcontext_t& context);

// The signal was raised on purpose in cache_reentry_stub: takes the stub's frame apart.
void leave_reentry_stub(const thread_data* thread, mcontext_t& context);

// The signal came at the return of a system call: takes the wrapper's frame apart. The application stands behind its
// SVC, and x0 to x8 are as the kernel left them.
void leave_syscall_wrapper(thread_data* thread, mcontext_t& context);

// Before that: if the call brings a signal mask for its own time and has been interrupted, that mask is in force, and
// `*mask` becomes it.
void find_mask_of_call(const thread_data* thread, const mcontext_t& context, std::uint64_t* mask);

// The signal came before the call was made, or has interrupted it in a way that lets it be made again (SA_RESTART): the
// application stands at its own SVC, with the arguments as they were.
void undo_syscall(thread_data* thread, mcontext_t& context);

// The thread has faulted in a fragment: the context becomes that of the source instruction, its program counter and all
// registers that the rewritten code has borrowed. A fault of the engine's own push on the application's stack, at its
// end, belongs to the instruction that the push is made for, or to the one that a branch has led to. Returns false and
// changes nothing where no source instruction stands behind the fault, as in a stub.
bool restore_faulted_context(thread_data* thread, mcontext_t& context);

// Whether the word is the application's own: the last one of its source word's code. And whether it is the trap `code`
// of code/spare_stack.h, or looks like it.
bool is_copy(const thread_data* thread, const std::uint32_t* place);
bool is_sp_trap(std::uint32_t word, std::uint32_t code);

// Whether the stack pointer is not the application's where `pc` stands in a block of the thread's own kind
// (has_own_blocks). It is not at the entry.
bool has_lowered_sp(const thread_data* thread, std::uint64_t pc);

// A stub's first push on the application's stack has faulted: the application stands at the instruction that the push
// is made for, or at the one that a branch has led to. What the stub's caller has pushed before is taken back.
bool leave_stub_entry(thread_data* thread, mcontext_t& context);

// Whether the thread stands in a block for a place that cannot be executed.
bool is_in_fault_block(const thread_data* thread, std::uint64_t pc);

}  // namespace ceilmeter
