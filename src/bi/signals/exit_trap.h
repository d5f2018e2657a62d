// The traps that lead a thread out of linked code. A fragment's exit is in one of three forms: as scanned, linked, or
// trapped. A trap stands until the fragment next runs into its exit; there the thread itself removes it. The records of
// links do not know of traps.
//
// A thread patches its own code only: mora_terminate sends a signal, and each thread traps its own exit.
#pragma once

#include <ucontext.h>

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// HVC raises SIGILL at the application's privilege level. Its immediate says what the trap has replaced.
enum trap_code : std::uint32_t {
  TRAP_REGISTER_BRANCH = 148,  // The final BR x0 of a register branch.
  TRAP_DIRECT_EXIT = 149,      // Words of a direct exit.
  TRAP_RAISE = 150,            // In the stub text: the call that raises a held signal.
  // 151 and 152 are no exits: see code/spare_stack.h.
};

// Makes sure that the fragment's next pass through its exit comes to the engine. `pc` is where the thread stands.
void trap_fragment_exit(thread_data* thread, std::int32_t fragment_id, std::uint64_t pc);

// The place that holds the exit word of `place`: `place` itself, or the copy in the fragment's record while a trap
// stands there. Use it to read or change an exit, because the trap itself has to stay until the thread runs into it.
std::uint32_t* untrapped_word(thread_data* thread, std::uint32_t* place);

// A thread has run into a trap in the exit of fragment `id`. Puts the words back, and makes the context go to the
// dispatcher with the source address that the exit leads to. Fatal for an HVC that is no trap of an exit.
void handle_trap(thread_data* thread, ucontext_t* ucontext, std::int32_t id);

}  // namespace ceilmeter
