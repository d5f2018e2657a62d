// What the scanner finds out about source words before it rewrites them: whether they can be read, and where a fragment
// ends.
#pragma once

#include <cstdint>

#include "bi/a64/a64.h"
#include "bi/mora.h"

namespace ceilmeter {

// Where the fragment at an address ends: at its branch, or before a word that cannot be part of it.
struct fragment_end {
  const std::uint32_t* word;
  bool is_direct_branch;  // The fragment can become the head of a trace.
};

// SVC does not end a fragment.
fragment_end find_end(const std::uint32_t* read);

// STXR and STXP of every size, with release or without. Not CASP, which has the place of a pair of two registers of 32
// bits in the same group.
inline bool is_store_exclusive(std::uint32_t word) {
  return (word & 0x3fe00000) == 0x08000000 || (word & 0xbfe00000) == 0x88200000;
}

// LDXR and LDXP of every size, with acquire or without.
inline bool is_load_exclusive(std::uint32_t word) {
  return (word & 0x3fe00000) == 0x08400000 || (word & 0xbfe00000) == 0x88600000;
}

// Whether a fragment that begins here begins between a load-exclusive and its store-exclusive: it comes to the store
// before anything that begins a pair, gives one up or may lead elsewhere. Only a distance that a program can rely on is
// looked at: the architecture promises that a pair succeeds for pairs of up to 128 bytes.
bool begins_between_exclusives(const std::uint32_t* read);

// Whether the word can be read.
bool is_readable(const std::uint32_t* word);

// Whether a page begins with this word and cannot be read. A block may run past the end of its mapping, for instance
// behind an SVC that does not return. The application never executes the word there.
inline bool begins_unreadable_page(const std::uint32_t* word) {
  // A page is at least 4 KiB. On a kernel with larger pages some of these questions are superfluous.
  constexpr std::uint64_t smallest_page = 4096;
  return address_of(word) % smallest_page == 0 && !is_readable(word);
}

// A branch that compares a register and is in no class of the decoder (CB<cc> and its kin).
bool is_compare_and_branch(std::uint32_t word);

// A branch that is in no class of the decoder and ends a fragment all the same: the ones above, and branches to signed
// addresses (BRAA, RETAA and the like).
bool is_branch_without_class(std::uint32_t word);

// Whether a block must begin with this word, so that the block before it ends: a word that neither the decoder nor
// is_branch_without_class knows, or the literal load whose rewriting is fatal. Behind a system call that does not
// return anything may stand, data included; such a word is fatal only if it is executed.
// `inst` is the word's class.
bool begins_its_own_block(const std::uint32_t* word, int inst);
inline bool begins_its_own_block(const std::uint32_t* word) {
  const int inst = a64_decode(word);
  return (inst == A64_LDR_LITERAL || inst == A64_NOT_RECOGNISED) && begins_its_own_block(word, inst);
}

}  // namespace ceilmeter
