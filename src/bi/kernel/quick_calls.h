// The system calls that the engine only passes on. The stub text makes them by the short way of syscall_wrapper, which
// calls nothing of the engine: most of what programs call is of this kind.
#pragma once

#include <cstdint>

#include "bi/code/stub_layout.h"

namespace ceilmeter {

inline constexpr std::uint64_t QUICK_CALL_NUMBERS = std::uint64_t{1} << QUICK_CALLS_BITS;

// Younger than some C libraries' headers.
inline constexpr std::uint64_t SYS_CLOSE_RANGE = 436;

// By number: 1 if the call goes the short way. Filled before the application starts, and read by the stub text.
extern "C" std::uint8_t quick_calls[QUICK_CALL_NUMBERS];

// Whether the engine only passes the call on. Of a number that the kernel does not know, too.
bool is_passed_on(std::uint64_t number);

// Fills the table, unless somebody wants to hear of each call: a plug-in, or who reads the log.
void allow_quick_calls();

}  // namespace ceilmeter
