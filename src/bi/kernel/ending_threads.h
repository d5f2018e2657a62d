// Threads that have left the engine for good and are in the C library's end of a thread. There they take locks of the
// heap and of the library. A child that is forked meanwhile would find such a lock held for ever. So a fork waits until
// the kernel does not know these threads any more.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Notes the thread. The caller holds callbacks_lock shared. A fork waits while it holds the lock alone, so no thread is
// added meanwhile.
void note_ending_thread(std::int32_t tid);

// A new thread may have the id of one that is gone. A fork must not wait for the new thread.
void forget_ending_thread(std::int32_t tid);

// Waits until at most `most` threads are left.
void wait_for_ending_threads(std::size_t most);

// In the child of a fork: the parent's threads are not there.
void reset_ending_threads();

}  // namespace ceilmeter
