// From which memory of the application code has been translated, by any thread: one bit for each 64 bytes, 64 bits for
// each page of 4 KiB. One look tells whether a change of memory matters to the code caches. Shared by all threads,
// without a lock.
//
// A bit that is set may mean nothing: the fragments may be gone. A bit that is clear means that no fragment of the line
// is left but such as are dropped by a code epoch that has begun already (code_epoch.h).
//
//   who translates                     who changes memory
//   marks the line                     changes it
//   full fence                         full fence
//   reads the words                    looks at the line
//
// So the one reads the new words, or the other finds the mark.
#pragma once

#include <cstdint>

namespace ceilmeter {

inline constexpr std::uint64_t TRANSLATED_LINE = 64;

// Marks the lines of the range, and orders what is read of it from here on behind the marks.
void mark_translated(std::uint64_t start, std::uint64_t end);
// The same for the line that begins at an address.
void mark_translated_line(std::uint64_t line);

// Whether a line of the range is marked. The caller has changed the memory before.
bool has_translated(std::uint64_t start, std::uint64_t end);

// Clears the lines that lie in the range as wholes. What has been translated from them is about to be dropped.
void clear_translated(std::uint64_t start, std::uint64_t end);

}  // namespace ceilmeter
