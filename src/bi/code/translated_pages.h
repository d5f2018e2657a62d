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

// The record itself, as rewritten code looks at it behind an IC IVAU (scan_rules.cpp). A leaf is null, or an array of a
// word for each page, with a bit for each of its lines.
inline constexpr int TRANSLATED_ADDRESS_BITS = 48;  // Of the application's half. Higher addresses are not told apart.
inline constexpr int TRANSLATED_LEAF_BITS = 30;
inline constexpr int TRANSLATED_PAGE_BITS = 12;
inline constexpr int TRANSLATED_LINE_BITS = 6;

struct translated_record {
  std::uint64_t not_enough;  // Bits: why the marks of a line's own address do not tell everything.
  std::uint64_t* leaves[std::uint64_t{1} << (TRANSLATED_ADDRESS_BITS - TRANSLATED_LEAF_BITS)];
};
extern translated_record translated;

// Something was translated from an address beyond the table, or a leaf could not be mapped: each look finds a mark.
inline constexpr std::uint64_t MARKS_ARE_LOST = 1;
// Two mappings have shared a page, now or earlier: what was translated from the one is void as well
// (shared_mappings.h).
inline constexpr std::uint64_t MARKS_HAVE_ALIASES = 2;

void note_marks_are_not_enough(std::uint64_t why);
bool marks_are_not_enough(std::uint64_t why);

// Marks the lines of the range, and orders what is read of it from here on behind the marks.
void mark_translated(std::uint64_t start, std::uint64_t end);
// The same for the line that begins at an address.
void mark_translated_line(std::uint64_t line);

// Whether a line of the range is marked. The caller has changed the memory before.
bool has_translated(std::uint64_t start, std::uint64_t end);

// Clears the lines that lie in the range as wholes. What has been translated from them is about to be dropped.
void clear_translated(std::uint64_t start, std::uint64_t end);

}  // namespace ceilmeter
