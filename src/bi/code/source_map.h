// From the code cache back to the application: which source word a cache address stands for. A fault in rewritten code
// needs the answer, because the application's handler reads and changes the program counter.
//
// The source words of a fragment lie one behind the other, so it is enough to know where in the cache the code of each
// begins. The scanner marks these places while it writes, two bits for each word of the cache. Whoever asks walks from
// the fragment's entry to the address and counts the marks. The scan pays a store for each source word. Rewritten code
// pays nothing while it runs.
//
// All of it belongs to one thread, as its code cache does. A signal handler of that thread reads the marks of the
// fragment that it has interrupted, which was complete before it ran.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

enum source_mark : std::uint32_t {
  MARK_SAME = 0,       // Stands for what the word before it stands for.
  MARK_SOURCE = 1,     // The code of the next source word begins, with what plug-ins put in front of it.
  MARK_INSERTED = 2,   // Code begins that runs between the source word before it and the next one.
  MARK_CONTINUED = 3,  // A branch to the block in which the fragment goes on.
};

// Begins the marks of a fragment whose first word will stand at `place`.
void begin_source_marks(thread_data* thread, const std::uint32_t* place);

inline constexpr std::uint32_t MARK_BITS = 2;
inline constexpr std::uint64_t MARK_MASK = (std::uint64_t{1} << MARK_BITS) - 1;

// Marks the word at `place`; those written since the mark before it stand for the same as that one. A second mark of
// one place replaces the first. `place` lies in the fragment that was begun. The second function is for a place whose
// mark may be that of an earlier fragment, and for one that has none.
void mark_source_beyond_end(thread_data* thread, const std::uint32_t* place, source_mark mark);
inline void mark_source(thread_data* thread, const std::uint32_t* place, source_mark mark) {
  const auto* first = reinterpret_cast<const std::uint32_t*>(thread->code_cache);
  const auto index = static_cast<std::size_t>(place - first);
  const auto end = static_cast<std::size_t>(thread->source_marks_end - first);
  if (index >= end || end > CODE_CACHE_SIZE / sizeof *place) {
    mark_source_beyond_end(thread, place, mark);
    return;
  }
  const auto shift = static_cast<std::uint32_t>(index % SOURCE_MARKS_PER_WORD * MARK_BITS);
  std::uint64_t& word = thread->source_marks[index / SOURCE_MARKS_PER_WORD];
  word = (word & ~(MARK_MASK << shift)) | std::uint64_t{mark} << shift;
}

// The same, with MARK_SOURCE, for `count` words one behind the other, each of which was copied from a source word. A
// fragment has been begun.
void mark_source_words(thread_data* thread, const std::uint32_t* place, std::size_t count);

// The fragment goes on at `next`, by the branch at `place`.
void continue_source_marks(thread_data* thread, const std::uint32_t* place, const std::uint32_t* next);

// The fragment ends before `place`.
void end_source_marks(thread_data* thread, const std::uint32_t* place);

// The source address that the cache address `pc` of the thread's own fragments stands for: of the source word whose
// code `pc` lies in, or of the next one where the code was inserted between two. In a trampoline it is that of the code
// that was copied. 0 if `pc` lies in no fragment.
std::uint64_t source_of_cache_address(const thread_data* thread, std::uint64_t pc);

// The same, and whether the code at `pc` runs between two source words, or before the first.
struct source_place {
  std::uint64_t address;
  bool is_between;
};
source_place find_source_place(const thread_data* thread, std::uint64_t pc);

// Whether other code begins at the word than that before it: the code of the next source word, or inserted code.
bool begins_source_code(const thread_data* thread, const std::uint32_t* place);

// The word that runs behind the one at `place` if the code goes straight on, also where the fragment goes on in another
// block. Null: that would be outside the cache, or at its end.
const std::uint32_t* next_fragment_word(const thread_data* thread, const std::uint32_t* place);

}  // namespace ceilmeter
