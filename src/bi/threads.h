// The application's threads and children under the engine: how they begin, how they end, and what a child forgets of its
// parent. Internal to the handlers of system calls; all of it runs on the calling application thread.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Blocks every signal for the calling thread, the engine's own SIGILL included, and returns the mask that was. No
// application code may run before restore_signal_mask: a trap in the cache would end the process.
std::uint64_t block_all_signals();
void restore_signal_mask(std::uint64_t mask);

// clone with CLONE_THREAD: starts a thread that goes on at `next_inst` with the state in `args`, the save area of the
// caller. Returns its id, or a negative error number as the kernel would.
std::int64_t mora_create_thread(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst);

// Any other clone, before the kernel makes it: rewrites the arguments in `args` so that the child comes back through the
// caller's frame with a memory of its own. finish_fork has to follow in the parent and in the child, with the call's result in
// word 0: it gives the arguments back that the application finds in its registers.
void prepare_fork(thread_data* thread, std::uint64_t* args);
void finish_fork(thread_data* thread, std::uint64_t* args);

// Makes the calling thread, which `thread` describes, the only one that the engine of a new process knows.
void reinit_after_fork(thread_data* thread);

// The application's call of exit: ends the calling thread, and the process if it is the last one.
[[noreturn]] void end_thread(thread_data* thread, std::int32_t status);

// Notes the word that the application wants cleared at the calling thread's end; null for none. True if the kernel has
// to be told by set_tid_address as well.
bool set_application_tid_word(thread_data* thread, std::int32_t* word);

}  // namespace ceilmeter
