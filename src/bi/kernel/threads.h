// The application's threads under the engine: how they begin and how they end. Internal to the handlers of system
// calls; all of it runs on the calling application thread.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Blocks every signal for the calling thread, including the engine's own SIGILL, and returns the mask from before. No
// application code may run before restore_signal_mask: a trap in the cache would end the process.
std::uint64_t block_all_signals();
void restore_signal_mask(std::uint64_t mask);

// The engine's stack of the calling thread begins at `top`.
void use_engine_stack(thread_data* thread, std::uint64_t top);

// clone with CLONE_THREAD: starts a thread that goes on at `next_inst` with the state in `args`, the save area of the
// caller. Returns its id, or a negative error number as the kernel would.
std::int64_t mora_create_thread(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst);

// Starts a detached pthread with a stack of a thread's size. Returns 0 or an error number.
int start_pthread(void* (*run)(void*), thread_data* child);

// A record with its cache, or null if the kernel refuses its memory; what was mapped until then is given back. The
// first refusal is logged, because the application gets an ordinary error and may not tell anybody of it.
thread_data* make_thread_record();

// For a thread or a child that begins with the state of the call `args`. The first makes a copy of the parent's frame
// where the engine's stack of the calling thread begins. The second goes into the cache from there: the caller comes
// back from the call as its parent does, with the same registers. Without a stack of its own it goes on where its
// parent stands.
void copy_parent_frame(const thread_data* thread, const std::uint64_t* args);
[[noreturn]] void leave_clone(thread_data* thread);

// Whether the process has begun to end. The caller holds thread_list_lock. mora_terminate sets the flag under the same
// lock, so the answer stays true for threads that enter the list later.
bool is_ending();

// The application's call of exit: ends the calling thread, and the process if it is the last one.
[[noreturn]] void end_thread(thread_data* thread, std::int32_t status);

// Notes the word that the application wants cleared at the calling thread's end; null for none. True if the kernel has
// to be told by set_tid_address as well.
bool set_application_tid_word(thread_data* thread, std::int32_t* word);

}  // namespace ceilmeter
