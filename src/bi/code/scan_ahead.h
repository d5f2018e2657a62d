// What the scanner finds out about source words before it rewrites them: whether they can be read, where a fragment
// ends, and what stands there.
//
// The application may change its code at any moment, also from another thread, one aligned word at a time. Each word of
// a fragment is therefore loaded once. The look ahead keeps what it has seen, and the translation takes it from there:
// a word is translated as what it was or as what it has become, and never as a mixture of both.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "bi/a64/a64.h"
#include "bi/code/translated_pages.h"
#include "bi/mora.h"

namespace ceilmeter {

// The classes of which the scanner rewrites no word.
inline constexpr std::array<bool, A64_NOT_RECOGNISED + 1> copied_classes = [] {
  std::array<bool, A64_NOT_RECOGNISED + 1> copied{};
  copied.fill(true);
  for (const int inst : {A64_CBZ, A64_TBZ, A64_B_COND, A64_SVC, A64_MRS_MSR, A64_B, A64_BR, A64_BLR, A64_RET,
                         A64_LDR_LITERAL, A64_ADR, A64_NOT_RECOGNISED, A64_MSR_IMM, A64_SYS}) {
    copied[static_cast<std::size_t>(inst)] = false;
  }
  return copied;
}();

// The source words of a fragment that have been loaded, one behind the other from `first` on. Words behind the room for
// them are loaded each time.
struct source_window {
  const std::uint32_t* first;
  std::uint32_t* kept = nullptr;
  std::size_t room = 0;             // Words.
  std::uint8_t* classes = nullptr;  // Room for as many: what find_end has decoded the words as. Null: not kept.
  std::size_t count = 0;            // How many are there.
  std::size_t plain = 0;  // How many of the first are of copied_classes, as far as find_end has gone on to count them.
  // Whether what is loaded will be translated. Its lines are then marked (translated_pages.h) before they are loaded.
  bool is_translated = true;
  std::uint64_t marked_line = 0;  // The last one.
};

// Before anything is asked or read of the word at `place`: who changes it afterwards finds the mark.
void mark_line_before_load(source_window& window, std::uint64_t line);
inline void mark_before_load(source_window& window, const std::uint32_t* place) {
  const std::uint64_t line = address_of(place) & ~(TRANSLATED_LINE - 1);
  if (window.is_translated && line != window.marked_line) mark_line_before_load(window, line);
}

// The word at `place`, which lies at or behind window.first. All words up to it can be read. load_word does the work
// for a word that is not there yet.
std::uint32_t load_word(source_window& window, const std::uint32_t* place);
inline std::uint32_t word_at(source_window& window, const std::uint32_t* place) {
  const auto index = static_cast<std::size_t>(place - window.first);
  return index < window.count ? window.kept[index] : load_word(window, place);
}

// Where the fragment at an address ends: at its branch, or before a word that cannot be part of it.
struct fragment_end {
  const std::uint32_t* word;
  bool is_direct_branch;     // The fragment can become the head of a trace.
  bool is_inside;            // The word is a branch of the fragment's.
  bool has_store_exclusive;  // Before it.
};

// SVC does not end a fragment.
fragment_end find_end(source_window& window, const std::uint32_t* read);

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
bool begins_between_exclusives(source_window& window, const std::uint32_t* read);

// IC IVAU, the invalidation of a line of instructions. It ends a fragment.
inline bool is_invalidation(std::uint32_t word) { return (word & ~std::uint32_t{31}) == 0xd50b7520; }

// Whether the word can be read.
bool is_source_readable(const std::uint32_t* word);

// A page is at least 4 KiB. On a kernel with larger pages some questions are superfluous.
inline constexpr std::uint64_t SMALLEST_PAGE = 4096;

// Whether a page begins with this word and cannot be read. A scan can run past the end of a mapping, for instance
// behind an SVC that does not return. The application never executes the word there.
inline bool begins_unreadable_page(const std::uint32_t* word) {
  return address_of(word) % SMALLEST_PAGE == 0 && !is_source_readable(word);
}

// A branch that compares a register and is in no class of the decoder (CB<cc> and its kin).
bool is_compare_and_branch(std::uint32_t word);

// A branch that is in no class of the decoder and ends a fragment all the same: the ones above, and branches to signed
// addresses (BRAA, RETAA and the like).
bool is_branch_without_class(std::uint32_t word);

// Whether the word switches streaming mode of the Scalable Matrix Extension on: SMSTART for that mode or for both, or a
// write of SVCR from a register. In that mode the engine's own vector code may not exist.
inline bool starts_streaming(std::uint32_t word) {
  return word == 0xd503437f || word == 0xd503477f || ((word & 0xffffffe0) == 0xd51b4240 && word != 0xd51b425f);
}

// Whether a block must begin with this word, so that the block before it ends: a word that neither the decoder nor
// is_branch_without_class knows, or a word whose rewriting is fatal, as a literal load of no register and the start of
// streaming mode. Behind a system call that does not return anything may stand, data included; such a word is fatal
// only if it is executed.
// `inst` is the word's class.
bool is_first_of_its_block(std::uint32_t word, int inst);
inline bool begins_its_own_block(std::uint32_t word) {
  const int inst = a64_decode(&word);
  const bool may_be =
      inst == A64_LDR_LITERAL || inst == A64_NOT_RECOGNISED || inst == A64_MSR_IMM || inst == A64_MRS_MSR;
  return may_be && is_first_of_its_block(word, inst);
}

}  // namespace ceilmeter
