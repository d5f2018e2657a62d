// The program every_counted has what its name says: its counted groups hold every counted encoding that processors have
// today in all its precisions and shapes, and its uncounted groups hold none.
#include "flops/every_counted.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "a64/classifier_rows.h"
#include "a64/flop_keys.h"
#include "a64/instr_flop.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::hex;

struct group {
  std::string name;
  std::span<const std::uint32_t> words;
};

std::span<const std::uint32_t> words_between(void (*start)(long), const std::uint32_t* end) {
  return {reinterpret_cast<const std::uint32_t*>(start), end};
}

std::vector<group> groups() {
#define ENTRY(name, features, rounds) {#name, words_between(name, name##_end)},
  return {FOR_EACH_GROUP(ENTRY)};
#undef ENTRY
}

bool is_counted_group(const group& one) { return one.name.rfind("counted_", 0) == 0; }

// Precision and number of elements.
using shape = std::pair<std::uint32_t, std::uint32_t>;

// The shapes that a key's words have where the architecture allows them.
std::set<shape> shapes_of(const flop_key& key, const std::string& mnemonic) {
  const bool reduction = mnemonic.back() == 'v' && mnemonic != "fdiv";
  const shape double_1{FLOP_DOUBLE, 1};
  const shape double_2{FLOP_DOUBLE, 2};
  const shape single_2{FLOP_SINGLE, 2};
  const shape single_4{FLOP_SINGLE, 4};
  const shape half_4{FLOP_HALF, 4};
  const shape half_8{FLOP_HALF, 8};
  switch (key.layout) {
    case flop_layout::FP_DATA_PROCESSING:
    case flop_layout::SCALAR_FIXED_POINT: return {{FLOP_HALF, 1}, {FLOP_SINGLE, 1}, double_1};
    case flop_layout::SCALAR_HALF: return {{FLOP_HALF, 1}};
    case flop_layout::SCALAR_SINGLE_DOUBLE:
      if (mnemonic == "fcvtxn") return {double_1};
      return {{FLOP_SINGLE, 1}, double_1};
    case flop_layout::VECTOR_HALF: return {half_4, half_8};
    case flop_layout::VECTOR_SINGLE_DOUBLE:
      if (mnemonic == "fcvtxn") return {double_1, double_2};
      if (mnemonic == "fcvtl" || mnemonic == "fcvtn") return {single_2, single_4, double_1, double_2};
      if (reduction) return {single_4};
      return {single_2, single_4, double_2};
    case flop_layout::VECTOR_FIXED_POINT: return {half_4, half_8, single_2, single_4, double_2};
    case flop_layout::SCALABLE_HALF: return {{FLOP_HALF, key.count}};
    case flop_layout::SCALABLE_SINGLE: return {{FLOP_SINGLE, key.count}};
    case flop_layout::SCALABLE_DOUBLE: return {{FLOP_DOUBLE, key.count}};
    case flop_layout::SCALABLE_SINGLE_DOUBLE: return {{FLOP_SINGLE, key.count}, {FLOP_DOUBLE, key.count / 2U}};
  }
  return {};
}

const classifier_row& row_of(const flop_key& key) {
  return *std::ranges::find_if(classifier_rows, [&key](const classifier_row& one) {
    return one.form_id == key.form_id && one.format_id == key.format_id;
  });
}

// SME2's multi-vector forms: neither the emulator nor the assembler of the supported distribution has them.
bool is_sme(const classifier_row& row) { return (row.value & 0xfe000000) == 0xc0000000; }

TEST(every_counted, holds_every_counted_encoding_in_every_precision_and_shape) {
  std::map<const classifier_row*, std::set<shape>> held;
  for (const group& one : groups()) {
    if (!is_counted_group(one)) continue;
    for (const std::uint32_t word : one.words) {
      instr_flop work{};
      if (get_instr_flop(word, work) == 0) held[find_classifier_row(word)].emplace(work.precision, work.count);
    }
  }
  std::size_t keys = 0;
  for (const flop_key& key : flop_keys) {
    const classifier_row& row = row_of(key);
    if (is_sme(row)) continue;
    ++keys;
    EXPECT_EQ(held[&row], shapes_of(key, mnemonic_names[row.mnemonic_id]))
        << mnemonic_names[row.mnemonic_id] << " " << hex(row.value);
  }
  EXPECT_EQ(held.size(), keys);
}

TEST(every_counted, converts_to_registers_of_both_widths) {
  std::map<const classifier_row*, std::set<std::uint32_t>> widths;
  for (const group& one : groups()) {
    for (const std::uint32_t word : one.words) {
      const classifier_row* row = find_classifier_row(word);
      instr_flop work{};
      if (row == nullptr || (row->mask >> 31) != 0 || get_instr_flop(word, work) != 0) continue;
      widths[row].insert(word >> 31);
    }
  }
  EXPECT_EQ(widths.size(), 12U) << "ten conversions, two of them to fixed-point as well";
  for (const auto& [row, found] : widths) EXPECT_EQ(found.size(), 2U) << hex(row->value);
}

TEST(every_counted, has_nothing_else_in_its_counted_groups_than_the_loop) {
  for (const group& one : groups()) {
    if (!is_counted_group(one)) continue;
    ASSERT_GT(one.words.size(), 3U);
    for (const std::uint32_t word : one.words.first(one.words.size() - 3)) {
      instr_flop work{};
      EXPECT_EQ(get_instr_flop(word, work), 0) << one.name << " " << hex(word);
    }
  }
}

TEST(every_counted, counts_nothing_in_its_uncounted_groups) {
  std::set<std::uint32_t> counted;
  for (const group& one : groups()) {
    if (is_counted_group(one)) continue;
    for (const std::uint32_t word : one.words) {
      instr_flop work{};
      if (get_instr_flop(word, work) == 0) counted.insert(word);
    }
  }
  EXPECT_EQ(counted, std::set<std::uint32_t>{});
}

}  // namespace
}  // namespace ceilmeter
