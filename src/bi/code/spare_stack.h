// Code at the very end of its stack. What the engine adds to the application's code pushes registers on the
// application's stack; where there is no room below the stack pointer, such a push faults, and natively nothing would.
// The application never hears of that fault. It goes on at the same instruction, by blocks whose added code has a
// small stack of the engine's:
//
//   a block                                 sp
//   what is added in front of it            spare
//   words that do not use sp                spare
//   HVC TRAP_RAISE_SP                       the handler of its SIGILL gives sp the application's value (spare_for_sp)
//   words that may                          the application's
//   HVC TRAP_LOWER_SP                       the handler keeps the application's sp
//   what is added behind them, the exit     spare
//
// Such blocks have keys of their own in the entry table, no links, no hot counter and no traces: each exit comes to the
// dispatcher. Once the stack pointer has moved to where there is room, the dispatcher goes on with the blocks of
// everybody. A handler of the application's is entered as from any other place, and where it returns to, the first push
// faults again.
//
// A block that was left in its middle has been counted already. What goes on in its place is a block without a start
// (resumed_block). Behind a store-exclusive whose block is counted after the store it is the other way round: the start
// of the block that was left, and the rest of its words.
//
// All of it concerns one thread.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// In the stub text and in blocks, for signals/exit_trap.h and the scanner. The immediates of HVC.
inline constexpr std::uint32_t TRAP_LOWER_SP = 151;
inline constexpr std::uint32_t TRAP_RAISE_SP = 152;

// The first address behind the spare stack.
std::uint64_t spare_stack_end(const thread_data* thread);

// Begins to use it. `stack_pointer` is the application's.
void begin_spare_stack(thread_data* thread, std::uint64_t stack_pointer);

// Whether the next block has to use it, too. Asks the kernel for room if the stack pointer has moved, and now and then
// if it has not: a page may have been mapped there.
bool still_needs_spare_stack(thread_data* thread);

// The application's stack pointer where its code stands between two blocks with `sp`, and the other way round.
std::uint64_t application_sp(const thread_data* thread, std::uint64_t sp);
std::uint64_t sp_between_blocks(thread_data* thread, std::uint64_t stack_pointer);

// The application's state is complete, and it goes on by the blocks of everybody.
void leave_own_blocks(thread_data* thread);

// Whether the block is found by a key of its own. No link and no trace leads to it.
bool has_own_key(const thread_data* thread, const bb_meta& block);

}  // namespace ceilmeter
