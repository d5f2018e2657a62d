// What all sources that write or patch rewritten code share: constant words, and the clearing of the instruction cache
// over what was written.
#pragma once

#include <cstdint>

namespace ceilmeter {

inline constexpr std::uint32_t NOP = 0xd503201f;
inline constexpr std::uint32_t POP_X0_X1 = 0xa8c107e0;  // ldp x0, x1, [sp], #16: a fragment's entry word.

// A link enters behind the entry word, because a linked exit does not push x0 and x1.
inline constexpr std::uint64_t ENTRY_WORD_SIZE = 4;

// Clears the instruction cache over words that this thread has just written and that no other thread runs. It ends with
// the barriers behind which this thread fetches the new words. The caller says how the thread comes to run them.
// What is written in a visit to the engine that ends with the clearing of all of it is noted instead (written_code.h).
void clear_instruction_cache(const void* begin, const void* end);

}  // namespace ceilmeter
