// Floating-point arithmetic of SVE and SME that the FLOP table does not count: what an instruction does there depends
// on predicates and on the machine's vector length, which its word does not tell. Whoever reads the counts has to know
// how much of it there was.
#pragma once

#include <cstdint>

namespace ceilmeter {

// True for an SVE or SME word of floating-point arithmetic for which get_instr_flop gives no work. Moves, conversions
// between precisions, estimates and what does not count in its Advanced SIMD encoding either (FABD, FCADD, FCMLA,
// bfloat16) are none.
bool is_uncounted_scalable_work(std::uint32_t word);

}  // namespace ceilmeter
