// Reads source words without writing any code.
#include "bi/code/scan_ahead.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/exit_branch.h"
#include "bi/code/scanner.h"
#include "bi/kernel/memory_probe.h"

namespace ceilmeter {

// The eight bytes that hold the word must not reach into the next page.
bool is_readable(const std::uint32_t* word) { return is_readable(address_of(word) & ~std::uint64_t{7}); }

bool is_compare_and_branch(std::uint32_t word) {
  exit_branch branch{};
  return decode_exit_branch(word, &branch) && branch.kind == EXIT_COMPARE;
}

bool is_branch_without_class(std::uint32_t word) {
  a64_authenticated_branch branch{};
  return a64_authenticated_branch_decode(word, &branch) || is_compare_and_branch(word);
}

bool begins_its_own_block(const std::uint32_t* word, int inst) {
  if (inst != A64_LDR_LITERAL) return inst == A64_NOT_RECOGNISED && !is_branch_without_class(*word);
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(word, &opc, &is_vector, &imm19, &reg);
  return is_vector != 0 && opc == 3;
}

fragment_end find_end(const std::uint32_t* read) {
  for (;; ++read) {
    if (begins_unreadable_page(read)) return {read, false};
    switch (const int inst = a64_decode(read)) {
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B: return {read, true};
      case A64_BR:
      case A64_BLR:
      case A64_RET: return {read, false};
      case A64_NOT_RECOGNISED:  // A branch without a class, or a word that begins its own block.
        return {read, is_compare_and_branch(*read)};
      case A64_LDR_LITERAL:
        if (begins_its_own_block(read, inst)) return {read, false};
        break;
      default: break;
    }
  }
}

bool begins_between_exclusives(const std::uint32_t* read) {
  constexpr int furthest = 32;  // Words.
  for (const std::uint32_t* end = read + furthest; read != end; ++read) {
    if (begins_unreadable_page(read)) return false;
    switch (a64_decode(read)) {
      case A64_LDX_STX:
        if (is_store_exclusive(*read)) return true;
        if (is_load_exclusive(*read)) return false;
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
        if (begins_its_own_block(read)) return false;
        break;
      default: break;
    }
  }
  return false;
}

std::uint64_t count_source_words(const std::uint32_t* read_address) {
  if (!is_readable(read_address)) return 0;
  // A word that begins its own block does not end the fragment that begins with it.
  const std::uint32_t* end = find_end(begins_its_own_block(read_address) ? read_address + 1 : read_address).word;
  return static_cast<std::uint64_t>(end - read_address) + 1;
}

}  // namespace ceilmeter
