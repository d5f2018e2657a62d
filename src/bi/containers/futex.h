// Sleeping on a word of the process's own memory, for locks.
#pragma once

#include <cstdint>

namespace ceilmeter {

// FUTEX_WAIT while the word has the value, or FUTEX_WAKE of as many. Keeps errno: a signal handler takes locks too, and
// the code that it has interrupted may be about to read it.
void call_futex(std::uint32_t* word, int operation, std::uint32_t value);

}  // namespace ceilmeter
