// Reads source words without writing any code.
#include "bi/code/scan_ahead.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/exit_branch.h"
#include "bi/code/readable_pages.h"
#include "bi/code/scanner.h"
#include "bi/code/translated_pages.h"
#include "bi/kernel/memory_probe.h"

namespace ceilmeter {

// The eight bytes that hold the word must not reach into the next page.
bool is_source_readable(const std::uint32_t* word) {
  const std::uint64_t bytes = address_of(word) & ~std::uint64_t{7};
  if (is_known_readable(bytes)) return true;
  const std::uint64_t asked_at = mapping_state();
  if (!is_readable(bytes)) return false;
  remember_readable(bytes, asked_at);
  return true;
}

bool is_compare_and_branch(std::uint32_t word) {
  exit_branch branch{};
  return decode_exit_branch(word, &branch) && branch.kind == EXIT_COMPARE;
}

bool is_branch_without_class(std::uint32_t word) {
  a64_authenticated_branch branch{};
  return a64_authenticated_branch_decode(word, &branch) || is_compare_and_branch(word);
}

bool is_first_of_its_block(std::uint32_t word, int inst) {
  if (starts_streaming(word)) return true;
  if (inst != A64_LDR_LITERAL) return inst == A64_NOT_RECOGNISED && !is_branch_without_class(word);
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(&word, &opc, &is_vector, &imm19, &reg);
  return is_vector != 0 && opc == 3;
}

void mark_before_load(source_window& window, const std::uint32_t* place) {
  const std::uint64_t line = address_of(place) & ~(TRANSLATED_LINE - 1);
  if (!window.is_translated || line == window.marked_line) return;
  mark_translated(line, line + TRANSLATED_LINE);
  window.marked_line = line;
}

namespace {

// Relaxed: a thread that patches code makes the new word known by means of its own. Here a word only has to be whole.
std::uint32_t load_behind_mark(source_window& window, const std::uint32_t* place) {
  mark_before_load(window, place);
  return __atomic_load_n(place, __ATOMIC_RELAXED);
}

}  // namespace

std::uint32_t load_word(source_window& window, const std::uint32_t* place) {
  const auto index = static_cast<std::size_t>(place - window.first);
  if (index >= window.room) return load_behind_mark(window, place);
  for (; window.count <= index; ++window.count) {
    window.kept[window.count] = load_behind_mark(window, window.first + window.count);
  }
  return window.kept[index];
}

fragment_end find_end(source_window& window, const std::uint32_t* read) {
  for (;; ++read) {
    if (begins_unreadable_page(read)) return {read, false};
    const std::uint32_t word = word_at(window, read);
    if (is_invalidation(word)) return {read, false};
    switch (const int inst = a64_decode(&word)) {
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B: return {read, true};
      case A64_BR:
      case A64_BLR:
      case A64_RET: return {read, false};
      case A64_NOT_RECOGNISED:  // A branch without a class, or a word that begins its own block.
        return {read, is_compare_and_branch(word)};
      case A64_LDR_LITERAL:
      case A64_MSR_IMM:
      case A64_MRS_MSR:
        if (is_first_of_its_block(word, inst)) return {read, false};
        break;
      default: break;
    }
  }
}

namespace {

constexpr int FURTHEST_STORE = 32;  // Words from the fragment's first.

// Branches, exceptions and system instructions have these bits. Only the system instructions let the code go on.
bool leaves_by_top_bits(std::uint32_t word) { return (word >> 26 & 7) == 5 && word >> 22 != 0x354; }

// By a look at few bits of each word: nearly all fragments hold no such store, and each one asks.
bool may_hold_store_exclusive(source_window& window, const std::uint32_t* read) {
  for (const std::uint32_t* end = read + FURTHEST_STORE; read != end; ++read) {
    if (begins_unreadable_page(read)) return false;
    const std::uint32_t word = word_at(window, read);
    if (is_store_exclusive(word)) return true;
    if (leaves_by_top_bits(word)) return false;
  }
  return false;
}

}  // namespace

bool begins_between_exclusives(source_window& window, const std::uint32_t* read) {
  if (!may_hold_store_exclusive(window, read)) return false;
  for (const std::uint32_t* end = read + FURTHEST_STORE; read != end; ++read) {
    if (begins_unreadable_page(read)) return false;
    const std::uint32_t word = word_at(window, read);
    if (is_invalidation(word)) return false;
    switch (const int inst = a64_decode(&word)) {
      case A64_LDX_STX:
        if (is_store_exclusive(word)) return true;
        if (is_load_exclusive(word)) return false;
        break;  // LDAR, STLR and the like.
      // Neither the kernel's way back from an exception nor CLREX leaves a pair open.
      case A64_SVC:
      case A64_HVC:
      case A64_SMC:
      case A64_BRK:
      case A64_HLT:
      case A64_CLREX:
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B:
      case A64_BR:
      case A64_BLR:
      case A64_RET:
      case A64_NOT_RECOGNISED: return false;
      case A64_LDR_LITERAL:
      case A64_MSR_IMM:
      case A64_MRS_MSR:
        if (is_first_of_its_block(word, inst)) return false;
        break;
      default: break;
    }
  }
  return false;
}

std::uint64_t count_source_words(const std::uint32_t* read_address) {
  if (!is_source_readable(read_address)) return 0;
  // A word that begins its own block does not end the fragment that begins with it.
  source_window window{read_address};
  window.is_translated = false;
  const bool stands_alone = begins_its_own_block(word_at(window, read_address));
  const std::uint32_t* end = find_end(window, stands_alone ? read_address + 1 : read_address).word;
  return static_cast<std::uint64_t>(end - read_address) + 1;
}

}  // namespace ceilmeter
