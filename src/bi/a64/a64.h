// How the engine reads and writes A64 machine code: this header brings the decoder (a64_decode) and the generated
// family of encoders and extractors; bi/a64/helpers.h has the constant loader and the branches, bi/a64/emit.h the
// wrappers for plug-ins, bi/a64/class_table.h the same classes as data.
//
// Nothing here touches the instruction cache: who writes words that are to run clears the range afterwards. Nothing
// allocates, locks or keeps state; everything may be called from any thread and from a signal handler.
#pragma once

#include <cstdint>

#include "bi/a64/family.h"
#include "bi/a64/instructions.h"

namespace ceilmeter {

// The class of the word at word_address, or A64_NOT_RECOGNISED. A class is told by its constant bits alone, so that a
// word that the architecture leaves unallocated among a class's words is one of the class. Not recognised are SVE, SME,
// and pointer authentication outside the hint space (for its branches see helpers.h), and what has come to the
// architecture in places of its own (compare-and-branch CB<cc>, memory tagging's loads and stores, LDAPR and its kind,
// MOPS among them).
//
// Most words are told by their top bits, the others by a decision tree.
inline constexpr int A64_TOP_BITS_LOW = 21;
inline constexpr std::uint8_t A64_BY_TREE = 255;
extern const std::uint8_t a64_classes_by_top_bits[1 << (32 - A64_TOP_BITS_LOW)];
a64_instruction a64_decode_by_tree(std::uint32_t word);
inline a64_instruction a64_decode(const std::uint32_t* word_address) {
  const std::uint8_t told = a64_classes_by_top_bits[*word_address >> A64_TOP_BITS_LOW];
  return told != A64_BY_TREE ? static_cast<a64_instruction>(told) : a64_decode_by_tree(*word_address);
}

// Whether a class depends on its position: its instruction reads the program counter or leaves the straight path (CBZ,
// B.cond, TBZ, B, BR, BLR, RET, load literal, ADR). False for what is not recognised, about which this says nothing.
bool a64_is_branch_class(int instruction);

// A field of `width` bits, 1 to 64, as the signed number that it stands for.
inline std::int64_t a64_sign_extend(std::uint64_t field, int width) {
  const std::uint64_t sign = std::uint64_t{1} << (width - 1);
  // Less the sign's weight, the field's upper half keeps its value and the lower half goes below zero; exchanging all
  // bits from the sign upwards swaps the two.
  return static_cast<std::int64_t>((field - sign) ^ ~(sign - 1));
}

}  // namespace ceilmeter
