// The three standard descriptors that the application has closed. They are the tool's as well, which logs and prints by
// them: the close is only noted, and the descriptor stays open. A program that closes one and then duplicates a pipe,
// say, into its place finds the pipe there all the same, as natively and as with dup2. A new file or socket takes the
// place of standard input only: in that of the others it would, unasked, receive what the tool writes at the end. A
// program that the application executes finds the descriptor closed.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Whether the descriptor is a standard one, whose close is noted here and not made.
bool note_close(std::uint32_t fd);

// Behind a call that was made: the result that the application gets. A new descriptor moves to the lowest number that
// was closed and that it would have got.
std::int64_t settle_descriptor(std::uint64_t number, const std::uint64_t* args, std::int64_t result);

}  // namespace ceilmeter
