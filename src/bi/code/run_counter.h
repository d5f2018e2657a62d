// A plug-in's counter of a block's runs. In a block that may become a trace's head the same word also tells when the
// block is hot, so that no hot counter of the engine's stands beside it.
//
//   stp  x1, x30, [sp, #-16]!
//   adrp x1, counter           or up to four words where that is out of reach
//   ldr  x30, [x1, #..]
//   add  x30, x30, #1
//   tbz  x30, #bit, .+8        only where the counter asks: the bit is not yet the one that it is waited for
//   bl   hot_counter_stub      ...
//   str  x30, [x1, #..]
//   ldp  x1, x30, [sp], #16
//
// The bit is waited for before the store. A run that comes to the stub has not been counted yet: it is counted where
// the thread goes on, in the trace that begins, or in the block if none does. Such a block asks no more (stop_asking):
// it would ask again at once.
//
// The counter goes on where it is when a block is scanned again. So what is waited for is a change of the bit, from
// what it is at the scan: as many runs as the bit is worth, or fewer.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The bit of a counter whose change makes a block hot.
std::uint32_t hot_bit();

// Both write at *write and move it; 11 words at most.
void put_run_counter(std::uint32_t** write, const std::uint64_t* counter);
void put_asking_run_counter(const thread_data* thread, std::uint32_t** write, const std::uint64_t* counter);
inline constexpr std::uint32_t RUN_COUNTER_SPACE = 11 * sizeof(std::uint32_t);

// The block counts on and does not come to the stub any more. Nothing is done where it does not ask by a run counter.
// The cleared range of the instruction cache is the one word that changes; the thread comes back to it from the engine.
void stop_asking(thread_data* thread, const bb_meta& block);

}  // namespace ceilmeter
