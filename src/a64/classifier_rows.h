// The classifier's rows, and the two ways to find the row of a word: by the index, and one by one.
//
// The rows are an ordered list. Rows overlap, and the first that matches has the word. The outcomes are deliberate, odd
// as some look, because ids and counts rest on them: a NOP is `hint`, LDRB with an immediate is `ldr`, LD2 is `ld1`,
// SCVTF from a general register is `fmov`, FCMPE is `fcmp`, and 103 rows can never match. How the rows come about, from
// the encoding table: tools/a64/classifier/rules.txt.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// A word w matches when (w & mask) == value.
struct classifier_row {
  std::uint32_t mask;
  std::uint32_t value;
  std::uint16_t form_id;
  std::uint16_t mnemonic_id;
  std::uint16_t format_id;
};

constexpr std::size_t classifier_row_count = 2684;
constexpr std::size_t mnemonic_count = 946;

extern const std::array<classifier_row, classifier_row_count> classifier_rows;

// Indexed by mnemonic_id.
extern const std::array<const char*, mnemonic_count> mnemonic_names;

// Some bits of a word choose a bucket (see classifier.cpp). Bucket n has the rows at the positions
// classifier_bucket_rows[classifier_bucket_first[n]] up to, without, that of the next bucket's first, in their order.
constexpr std::size_t classifier_bucket_count = 1U << 13;
extern const std::uint16_t classifier_bucket_first[];  // One more than there are buckets: the end of the last.
extern const std::uint16_t classifier_bucket_rows[];

// The first row that matches, or null. Both give the same answer for every word; the second compares with every row up
// to the one that matches, and is what the first is tested against.
const classifier_row* find_classifier_row(std::uint32_t word);
const classifier_row* find_classifier_row_linearly(std::uint32_t word);

}  // namespace ceilmeter
