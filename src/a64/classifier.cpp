// The search for a word's row. Some bits of a word choose a bucket, which lists, in the rows' order, the rows that
// words with these bits can match: one or two on average instead of up to 2684.
#include "a64/classifier.h"

#include "a64/classifier_rows.h"

namespace ceilmeter {

namespace {

bool matches(const classifier_row& row, std::uint32_t word) { return (word & row.mask) == row.value; }

// By bits 31:21, 15 and 13: those that most rows fix and that divide the rows best. tools/a64/classifier fills the
// buckets by the same function.
std::size_t bucket_of(std::uint32_t word) { return (word >> 21) << 2 | (word >> 14 & 2) | (word >> 13 & 1); }

}  // namespace

const classifier_row* find_classifier_row(std::uint32_t word) {
  const std::size_t bucket = bucket_of(word);
  for (std::size_t at = classifier_bucket_first[bucket]; at < classifier_bucket_first[bucket + 1]; ++at) {
    const classifier_row& row = classifier_rows[classifier_bucket_rows[at]];
    if (matches(row, word)) return &row;
  }
  return nullptr;
}

const classifier_row* find_classifier_row_linearly(std::uint32_t word) {
  for (const classifier_row& row : classifier_rows) {
    if (matches(row, word)) return &row;
  }
  return nullptr;
}

int classify_instruction(std::uint32_t word, std::uint32_t& form_id_out, std::uint32_t& mnemonic_id_out,
                         std::uint32_t& format_id_out) {
  const classifier_row* row = find_classifier_row(word);
  if (row == nullptr) return -1;
  form_id_out = row->form_id;
  mnemonic_id_out = row->mnemonic_id;
  format_id_out = row->format_id;
  return 0;
}

const char* instruction_mnemonic(std::uint32_t word) {
  std::uint32_t form_id = 0;
  std::uint32_t mnemonic_id = 0;
  std::uint32_t format_id = 0;
  if (classify_instruction(word, form_id, mnemonic_id, format_id) < 0) return "unknown";
  return mnemonic_names[mnemonic_id];
}

}  // namespace ceilmeter
