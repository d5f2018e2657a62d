// By encoding space and mnemonic.
#include "a64/scalable_work.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "a64/classifier.h"
#include "a64/instr_flop.h"

namespace ceilmeter {

namespace {

// Bits 28:25 choose the encoding space; SME shares its value with the reserved words, from which bit 31 parts it.
bool is_scalable(std::uint32_t word) {
  const std::uint32_t space = word >> 25 & 0xf;
  return space == 0b0010 || (space == 0b0000 && (word >> 31) != 0);
}

// Mnemonics with an F in front that are no arithmetic, or that count in no encoding.
constexpr std::array<std::string_view, 25> never_work = {
    "fabd",   "fcadd",    "fcmla",    "fcmne",    "fcmuo",    "fcpy",    "fcvt",  "fcvtl", "fcvtlt",
    "fcvtn",  "fcvtnt",   "fcvtx",    "fcvtxn",   "fcvtxnt",  "fdup",    "fexpa", "fmov",  "frecpe",
    "frecpx", "frint32x", "frint32z", "frint64x", "frint64z", "frsqrte", "ftssel"};

}  // namespace

bool is_uncounted_scalable_work(std::uint32_t word) {
  if (!is_scalable(word)) return false;
  const std::string_view mnemonic = instruction_mnemonic(word);
  if (!mnemonic.starts_with('f')) return false;
  if (std::find(never_work.begin(), never_work.end(), mnemonic) != never_work.end()) return false;
  instr_flop work{};
  return get_instr_flop(word, work) != 0;
}

}  // namespace ceilmeter
