// What an A64 instruction word is, told from the word alone, over the whole instruction set: base A64, Advanced SIMD,
// SVE and SME. Names are the architecture's, but loosely given: read classifier_rows.h before you trust one.
//
// Nothing here ever changes; everything may be called from any thread.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Classifies `word` and returns 0: form_id_out takes the encoding family (0 to 1879), mnemonic_id_out the mnemonic (0
// to 945), format_id_out the layout of the operands (0 to 171). Returns -1 and writes nothing for a word that is no
// instruction, or one younger than the rows.
int classify_instruction(std::uint32_t word, std::uint32_t& form_id_out, std::uint32_t& mnemonic_id_out,
                         std::uint32_t& format_id_out);

// The word's mnemonic in lower case, "unknown" for a word that classify_instruction refuses. A constant.
const char* instruction_mnemonic(std::uint32_t word);

}  // namespace ceilmeter
