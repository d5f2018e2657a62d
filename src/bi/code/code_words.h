// What the sources that write and patch rewritten code spell alike: the words that they write as they stand, and the
// clearing of the instruction cache over what was written.
#pragma once

#include <cstdint>

namespace ceilmeter {

inline constexpr std::uint32_t NOP = 0xd503201f;
inline constexpr std::uint32_t POP_X0_X1 = 0xa8c107e0;  // ldp x0, x1, [sp], #16: a fragment's entry word.

// Links lead past the entry word: who comes by one has never pushed x0 and x1.
inline constexpr std::uint64_t ENTRY_WORD_SIZE = 4;

// Over the words that this thread has just written, and alone runs. It ends with the barriers that make them the words
// that are fetched; whoever calls it says how the thread comes to run them.
inline void clear_instruction_cache(const void* begin, const void* end) {
  __builtin___clear_cache(static_cast<char*>(const_cast<void*>(begin)), static_cast<char*>(const_cast<void*>(end)));
}

}  // namespace ceilmeter
