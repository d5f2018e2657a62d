// How much floating-point work one A64 instruction is, told from its word alone: neither register contents nor
// predicates nor the machine's vector length are known here.
//
// The choice is deliberately narrow: scalar floating-point and Advanced SIMD arithmetic, comparison, rounding and
// conversion, and of SVE and SME the indexed and multi-vector multiply-adds and multiplies, FCVTL and FCVTN. Whatever
// else sounds like floating-point work (FABD, FMOV, SCVTF, FCVT, predicated SVE) does not count.
#pragma once

#include <cstdint>

namespace ceilmeter {

constexpr std::uint32_t FLOP_HALF = 0;
constexpr std::uint32_t FLOP_SINGLE = 1;
constexpr std::uint32_t FLOP_DOUBLE = 2;

constexpr std::uint32_t FLOP_SCALAR = 0;
constexpr std::uint32_t FLOP_VECTOR = 1;

// The work of an instruction is count times multiplier operations.
struct instr_flop {
  std::uint32_t precision;   // FLOP_HALF, FLOP_SINGLE, FLOP_DOUBLE.
  std::uint32_t fclass;      // FLOP_SCALAR, FLOP_VECTOR.
  std::uint32_t count;       // Elements the instruction works on.
  std::uint32_t multiplier;  // Operations on each: 2 for fused forms, FNMUL and reciprocal steps, 1 for all others.
};

// False for words that are neither work nor uncounted scalable work (scalable_work.h), told by a few instructions:
// those of other encoding groups, which most words of a program are.
constexpr bool may_be_arithmetic(std::uint32_t word) {
  // Bits 28:25 choose the group: scalar floating point and Advanced SIMD (x111), SVE (0010), SME (0000, with others).
  constexpr std::uint32_t groups = 1U << 0b0111 | 1U << 0b1111 | 1U << 0b0010 | 1U << 0b0000;
  return (groups >> (word >> 25 & 0xf) & 1) != 0;
}

// Returns 0 and fills the record if the word is floating-point work; otherwise returns a non-zero value and leaves the
// record as it was. The SVE and SME forms of FMLA, FMLS and FMUL set no multiplier: the record keeps the one of the
// instruction before, and the caller of a first one must have put something there. This is settled: results are
// compared with earlier ones.
int get_instr_flop(std::uint32_t word, instr_flop& work);

}  // namespace ceilmeter
