// The rules by which single instructions that do not end a fragment are rewritten. Each rule writes at the scan's
// cursor. It leaves `read` at the last source word that it has rewritten.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/code/scan_state.h"

namespace ceilmeter {

// Around what is added to a new thread's block (keeps_below_sp): sp is lowered before it, and raised again in front of
// the application's own words. Nothing is written for any other block.
//
// In a block that uses the spare stack, sp is that stack's until a word that may use sp comes up: give_sp writes a trap
// in front of such a word, lower_sp one behind the last. So no trap, which ends every exclusive access, stands between
// a load-exclusive and its store-exclusive.
void lower_sp_in_own_block(scan_state& state);
void raise_sp_in_own_block(scan_state& state);
void give_sp(scan_state& state);
inline void lower_sp(scan_state& state) {
  if (has_own_blocks(state.thread)) lower_sp_in_own_block(state);
}
inline void raise_sp(scan_state& state) {
  if (has_own_blocks(state.thread)) raise_sp_in_own_block(state);
}

// Whether the word, which is copied as it is, reads or writes sp. True of some words that do not.
bool may_use_sp(std::uint32_t word);

// SVC becomes a call of the system-call stub. The fragment goes on behind it, but for plug-ins a block ends here and
// another one begins.
void rewrite_svc(scan_state& state);

// An access to the thread pointer becomes one to the application's value in the thread's record. Others are copied.
void rewrite_system_register(scan_state& state);

// IC IVAU says that what was fetched of a line is void. It is executed: another process may run the same memory. Then
// comes a look at the record of what was translated (translated_pages.h). If that has nothing of the line, the
// application goes on by the fragment's exit, which the caller writes. If it has, the thread goes to the dispatcher,
// which drops the line's code, perhaps this very fragment, and goes on at the next word. No lock, no call: a program
// that writes much code for the first time pays for the look alone.
void put_invalidation(scan_state& state);

// MSR of an immediate: copied. The start of streaming mode ends the process with a line that says so.
void rewrite_state_switch(scan_state& state);

// Loads relative to the program counter, and ADR and ADRP. Both get the source address as a constant.
void rewrite_literal_load(scan_state& state);
void rewrite_address(scan_state& state);

// The register that a rewritten literal load pushes and uses as its base, or NOTHING_BORROWED. A load into a general
// register is rewritten with that one as the base, and its old value is gone when the load is made. So this is done
// only where the literal lies in the page of the load itself, and the load cannot fault.
inline constexpr std::uint32_t NOTHING_BORROWED = 32;
// `word` is the load that stands at `source`.
std::uint32_t borrowed_by_literal_load(const std::uint32_t* source, std::uint32_t word);

// Copies a word that the decoder does not know, with the words that form one instruction with it.
void copy_unknown(scan_state& state);

// Code for a place that the application cannot execute: a load from the place, which raises the fault that the
// execution would have raised.
void put_fault(scan_state& state);

// Counts how often the block runs, until it is hot.
void put_hot_counter(scan_state& state);
inline constexpr std::ptrdiff_t HOT_COUNTER_WORDS = 8;  // Where ADRP reaches the count.

// Whether a plug-in will probably count in the hot counter's place, whose length is known. If none has,
// put_left_out_counter puts it there.
bool may_be_plugins_counter(const scan_state& state);
void put_left_out_counter(scan_state& state);

// Marks the start of plug-ins' code that stands between two source words. A fault in it happens after the first of the
// two.
void mark_inserted_code(scan_state& state);

// The address that an offset field of a source word, in words, refers to.
std::uint64_t branch_target(const std::uint32_t* read, std::uint32_t field, int width);

// The mnemonic of a word, for the log. Touches no heap, as the child of a fork must not.
const char* mnemonic_of(std::uint32_t word);

}  // namespace ceilmeter
