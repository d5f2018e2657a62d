// The search for a word's row. Some bits of a word choose a bucket, which lists, in the rows' order, the rows that
// words with these bits can match: one or two on average instead of up to 2684.
#include "a64/classifier.h"

#include <vector>

#include "a64/classifier_rows.h"

namespace ceilmeter {

namespace {

bool matches(const classifier_row& row, std::uint32_t word) { return (word & row.mask) == row.value; }

// The bits that choose the bucket: those that most rows fix and that divide the rows best.
constexpr std::uint32_t key_bits = 0xffe0a000;
constexpr std::size_t bucket_count = 1U << 13;

std::size_t bucket_of(std::uint32_t word) { return (word >> 21) << 2 | (word >> 14 & 2) | (word >> 13 & 1); }

// Calls act(bucket) for every bucket that has words of the row: for every way to fill the key bits that it leaves open.
template <typename action>
void for_each_bucket(const classifier_row& row, action act) {
  const std::uint32_t open = key_bits & ~row.mask;
  std::uint32_t filling = 0;
  do {
    act(bucket_of(row.value | filling));
    filling = (filling - open) & open;  // The next subset of the open bits; 0 after the last.
  } while (filling != 0);
}

class row_index {
 public:
  row_index() : m_first(bucket_count + 1) {
    for (const classifier_row& row : classifier_rows) {
      for_each_bucket(row, [this](std::size_t bucket) { ++m_first[bucket + 1]; });
    }
    for (std::size_t bucket = 0; bucket < bucket_count; ++bucket) m_first[bucket + 1] += m_first[bucket];
    m_rows.resize(m_first[bucket_count]);
    std::vector<std::uint32_t> filled(m_first.begin(), m_first.end() - 1);
    for (const classifier_row& row : classifier_rows) {
      for_each_bucket(row, [&](std::size_t bucket) {
        m_rows[filled[bucket]++] = static_cast<std::uint16_t>(&row - classifier_rows.data());
      });
    }
  }

  const classifier_row* find(std::uint32_t word) const {
    const std::size_t bucket = bucket_of(word);
    for (std::uint32_t at = m_first[bucket]; at < m_first[bucket + 1]; ++at) {
      const classifier_row& row = classifier_rows[m_rows[at]];
      if (matches(row, word)) return &row;
    }
    return nullptr;
  }

 private:
  std::vector<std::uint32_t> m_first;  // Where in m_rows each bucket begins, and the end of the last.
  std::vector<std::uint16_t> m_rows;   // Positions in classifier_rows, ascending within a bucket.
};

}  // namespace

const classifier_row* find_classifier_row(std::uint32_t word) {
  static const row_index index;
  return index.find(word);
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
