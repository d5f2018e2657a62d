// Reads source words without writing any code.
#include "bi/code/scan_ahead.h"

#include <cerrno>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/exit_branch.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

// The kernel reads the signal set before it finds that the operation does not exist: the call fails with EFAULT if the
// set cannot be read, and changes nothing otherwise.
bool is_readable(const std::uint32_t* word) {
  constexpr std::uint64_t nr_rt_sigprocmask = 135;
  constexpr std::uint64_t no_operation = ~std::uint64_t{0};
  constexpr std::uint64_t set_size = 8;
  // The set has eight bytes and must not reach into the next page. A null pointer means that there is no set, which is
  // no error.
  const std::uint64_t set = address_of(word) & ~(set_size - 1);
  return set != 0 && raw_syscall(nr_rt_sigprocmask, no_operation, set, 0, set_size) != -EFAULT;
}

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
