// The three standard descriptors that the application has closed. The tool logs and prints by them, so the close is
// only noted and the descriptor stays open. A program that closes one and then duplicates a pipe into its place finds
// the pipe there, as natively; dup2 works as well. A new file or socket takes the place of standard input only. In the
// place of the other two it would receive what the tool writes at the end. A program that the application executes
// finds the descriptor closed.
#pragma once

#include <atomic>
#include <cstdint>

namespace ceilmeter {

// Bit n: descriptor n was closed and has not been opened since. Threads that open at once may both find a bit set: the
// one that clears it has the number.
extern std::atomic<std::uint32_t> closed_standard_files;

// If the descriptor is a standard one, notes its close and returns true: the close is not made.
bool note_close(std::uint32_t fd);

// Closes those that are noted, in a process that has descriptors of its own and does not print.
void close_noted_files();

// Forgets the notes: the process has closed what they stand for.
void forget_noted_files();

// After a call that was made: returns the result that the application gets. If a standard descriptor was closed and the
// new descriptor would have got its number natively, the new descriptor moves to the lowest such number.
std::int64_t settle_among_closed(std::uint64_t number, const std::uint64_t* args, std::int64_t result);
inline std::int64_t settle_descriptor(std::uint64_t number, const std::uint64_t* args, std::int64_t result) {
  if (closed_standard_files.load(std::memory_order_relaxed) == 0 || result < 0) return result;
  return settle_among_closed(number, args, result);
}

}  // namespace ceilmeter
