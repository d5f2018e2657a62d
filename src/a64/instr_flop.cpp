// From the key of an instruction to its work. The layouts say what a word's bits mean; the keys are generated.
#include "a64/instr_flop.h"

#include <algorithm>
#include <utility>

#include "a64/classifier.h"
#include "a64/flop_keys.h"

namespace ceilmeter {

namespace {

const flop_key* find_key(std::uint32_t form_id, std::uint32_t format_id) {
  using id_pair = std::pair<std::uint32_t, std::uint32_t>;
  const id_pair wanted(form_id, format_id);
  const auto ids = [](const flop_key& key) { return id_pair(key.form_id, key.format_id); };
  const auto* found = std::ranges::lower_bound(flop_keys, wanted, {}, ids);
  return found != flop_keys.end() && ids(*found) == wanted ? &*found : nullptr;
}

bool bit(std::uint32_t word, int position) { return (word >> position & 1) != 0; }

std::uint32_t single_or_double(std::uint32_t word) { return bit(word, 22) ? FLOP_DOUBLE : FLOP_SINGLE; }

std::uint32_t fixed_point_precision(std::uint32_t word) {
  if (bit(word, 22)) return FLOP_DOUBLE;
  return bit(word, 21) ? FLOP_SINGLE : FLOP_HALF;
}

// Bit 30, Q, chooses between 64 and 128 bits.
std::uint32_t lanes(std::uint32_t word, std::uint32_t precision) {
  const std::uint32_t in_64_bits = precision == FLOP_HALF ? 4 : precision == FLOP_SINGLE ? 2 : 1;
  return bit(word, 30) ? 2 * in_64_bits : in_64_bits;
}

// The work without its multiplier.
struct elements {
  std::uint32_t precision;
  std::uint32_t fclass;
  std::uint32_t count;
};

elements scalar(std::uint32_t precision) { return {precision, FLOP_SCALAR, 1}; }

elements vector(std::uint32_t word, std::uint32_t precision) {
  return {precision, FLOP_VECTOR, lanes(word, precision)};
}

elements elements_of(const flop_key& key, std::uint32_t word) {
  switch (key.layout) {
    case flop_layout::FP_DATA_PROCESSING: return scalar(bit(word, 23) ? FLOP_HALF : single_or_double(word));
    case flop_layout::SCALAR_HALF: return scalar(FLOP_HALF);
    case flop_layout::SCALAR_SINGLE_DOUBLE: return scalar(single_or_double(word));
    case flop_layout::SCALAR_FIXED_POINT: return scalar(fixed_point_precision(word));
    case flop_layout::VECTOR_HALF: return vector(word, FLOP_HALF);
    case flop_layout::VECTOR_SINGLE_DOUBLE: return vector(word, single_or_double(word));
    case flop_layout::VECTOR_FIXED_POINT: return vector(word, fixed_point_precision(word));
    case flop_layout::SCALABLE_HALF: return {FLOP_HALF, FLOP_VECTOR, key.count};
    case flop_layout::SCALABLE_SINGLE: return {FLOP_SINGLE, FLOP_VECTOR, key.count};
    case flop_layout::SCALABLE_DOUBLE: return {FLOP_DOUBLE, FLOP_VECTOR, key.count};
    case flop_layout::SCALABLE_SINGLE_DOUBLE: break;
  }
  const std::uint32_t precision = single_or_double(word);
  return {precision, FLOP_VECTOR, precision == FLOP_DOUBLE ? key.count / 2U : key.count};
}

// FMOV of a constant into a vector of halves. Its words are also those of FCVTZS to fixed-point without a shift amount,
// which no instruction is; the classifier finds that row first.
bool is_fmov_of_halves(std::uint32_t word) {
  constexpr std::uint32_t fmov_halves = 0x0f00fc00;  // fmov v0.4h, #2.0
  constexpr std::uint32_t fixed_bits = 0xbff8fc00;   // All but Q, the constant and the register.
  return (word & fixed_bits) == fmov_halves;
}

// Bits 23:22 of the scalar floating-point encodings that stand for no precision.
bool is_reserved(const flop_key& key, std::uint32_t word) {
  return key.layout == flop_layout::FP_DATA_PROCESSING && bit(word, 23) && !bit(word, 22);
}

}  // namespace

int get_instr_flop(std::uint32_t word, instr_flop& work) {
  std::uint32_t form_id = 0;
  std::uint32_t mnemonic_id = 0;
  std::uint32_t format_id = 0;
  if (classify_instruction(word, form_id, mnemonic_id, format_id) < 0) return -1;
  const flop_key* key = find_key(form_id, format_id);
  if (key == nullptr || is_reserved(*key, word) || is_fmov_of_halves(word)) return -1;
  const elements found = elements_of(*key, word);
  work.precision = found.precision;
  work.fclass = found.fclass;
  work.count = found.count;
  if (key->multiplier != 0) work.multiplier = key->multiplier;
  return 0;
}

}  // namespace ceilmeter
