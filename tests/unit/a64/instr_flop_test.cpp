// The FLOP count of single instructions, and the whole table against one written by hand.
#include "a64/instr_flop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "a64/classifier.h"
#include "a64/classifier_rows.h"
#include "a64/flop_keys.h"
#include "a64/scalable_work.h"
#include "counted_by_hand.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::counted_by_hand;
using test::expected_work;
using test::hex;

constexpr std::uint32_t HALF = 0;
constexpr std::uint32_t SINGLE = 1;
constexpr std::uint32_t DOUBLE = 2;
constexpr std::uint32_t SCALAR = 0;
constexpr std::uint32_t VECTOR = 1;
constexpr std::uint32_t UNTOUCHED = 0xdecade;

// What the record holds afterwards, if the word counts. A multiplier that was not set comes as 0, one that was set to 0
// as no expectation's.
std::optional<expected_work> counted(std::uint32_t word) {
  instr_flop work{UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED};
  if (get_instr_flop(word, work) != 0) {
    EXPECT_EQ(work.precision, UNTOUCHED) << hex(word);
    EXPECT_EQ(work.fclass, UNTOUCHED) << hex(word);
    EXPECT_EQ(work.count, UNTOUCHED) << hex(word);
    EXPECT_EQ(work.multiplier, UNTOUCHED) << hex(word);
    return std::nullopt;
  }
  if (work.multiplier == UNTOUCHED) return expected_work{work.precision, work.fclass, work.count, 0};
  return expected_work{work.precision, work.fclass, work.count, work.multiplier == 0 ? UNTOUCHED : work.multiplier};
}

std::string text_of(const std::optional<expected_work>& work) {
  std::ostringstream text;
  if (work) {
    text << *work;
  } else {
    text << "not counted";
  }
  return text.str();
}

TEST(instr_flop, scalar_fadd_of_doubles_is_one_operation) {
  EXPECT_EQ(counted(0x1e602820), (expected_work{DOUBLE, SCALAR, 1, 1}));
}

TEST(instr_flop, fmla_on_two_double_lanes_is_four_operations) {
  EXPECT_EQ(counted(0x4e60cc20), (expected_work{DOUBLE, VECTOR, 2, 2}));
}

TEST(instr_flop, fmla_on_two_single_lanes_is_four_operations) {
  EXPECT_EQ(counted(0x0e20cc20), (expected_work{SINGLE, VECTOR, 2, 2}));
}

TEST(instr_flop, fmadd_of_doubles_is_two_operations) {
  EXPECT_EQ(counted(0x1f420c20), (expected_work{DOUBLE, SCALAR, 1, 2}));
}

TEST(instr_flop, a_reserved_precision_is_no_work_and_leaves_the_record) {
  EXPECT_EQ(counted(0x1ea02820), std::nullopt);
  EXPECT_STREQ(instruction_mnemonic(0x1ea02820), "fadd") << "the word should be of the scalar fadd's row";
}

TEST(instr_flop, fcmpe_counts_as_fcmp) { EXPECT_EQ(counted(0x1e202030), (expected_work{SINGLE, SCALAR, 1, 1})); }

TEST(instr_flop, predicated_sve_does_not_count) {
  EXPECT_EQ(counted(0x65a00020), std::nullopt);  // fmla z0.s, p0/m, z1.s, z0.s
  EXPECT_EQ(counted(0x65808020), std::nullopt);  // fadd z0.s, p0/m, z0.s, z1.s
  EXPECT_EQ(counted(0x65828020), std::nullopt);  // fmul z0.s, p0/m, z0.s, z1.s
}

TEST(instr_flop, integer_instructions_do_not_count) {
  EXPECT_EQ(counted(0x8b010000), std::nullopt);  // add x0, x0, x1
  EXPECT_EQ(counted(0x4ea18400), std::nullopt);  // add v0.4s, v0.4s, v1.4s
  EXPECT_EQ(counted(0xd503201f), std::nullopt);  // nop
}

TEST(instr_flop, a_word_that_is_no_instruction_does_not_count) { EXPECT_EQ(counted(0xffffffff), std::nullopt); }

TEST(instr_flop, an_indexed_sve_fmul_keeps_the_multiplier_of_the_instruction_before) {
  instr_flop work{};
  ASSERT_EQ(get_instr_flop(0x1f420c20, work), 0);  // fmadd d0, d1, d2, d3
  ASSERT_EQ(work.multiplier, 2U);
  ASSERT_EQ(get_instr_flop(0x64a02020, work), 0);  // fmul z0.s, z1.s, z0.s[0]
  EXPECT_EQ(work.count, 4U);
  EXPECT_EQ(work.precision, SINGLE);
  EXPECT_EQ(work.multiplier, 2U);
}

TEST(instr_flop, pairwise_scalars_are_one_element_although_their_layout_is_the_vectors) {
  EXPECT_EQ(counted(0x7e70d820), (expected_work{DOUBLE, SCALAR, 1, 1}));  // faddp d0, v1.2d
  EXPECT_EQ(counted(0x6e60d420), (expected_work{DOUBLE, VECTOR, 2, 1}));  // faddp v0.2d, v1.2d, v0.2d
}

TEST(instr_flop, a_reduction_counts_all_elements_of_its_source) {
  EXPECT_EQ(counted(0x6e30c820), (expected_work{SINGLE, VECTOR, 4, 1}));  // fmaxnmv s0, v1.4s
}

// That of a constant to a vector of halves has the words of a conversion to fixed-point with no shift amount, whose row
// comes first in the classifier. A move is no work, whatever its encoding.
TEST(instr_flop, fmov_counts_in_no_encoding) {
  EXPECT_STREQ(instruction_mnemonic(0x0f03fe00), "fcvtzs");  // fmov v0.4h, #1.0
  for (std::uint32_t constant_and_register = 0; constant_and_register < 1U << 13; ++constant_and_register) {
    const std::uint32_t operands = (constant_and_register >> 10) << 16 | (constant_and_register & 0x3ff);
    EXPECT_EQ(counted(0x0f00fc00 | operands), std::nullopt) << operands;  // fmov v.4h, #c
    EXPECT_EQ(counted(0x4f00fc00 | operands), std::nullopt) << operands;  // fmov v.8h, #c
  }
  for (const std::uint32_t word : {0x4f03f600U, 0x6f03f600U, 0x1e604020U, 0x9e660000U, 0x1e6e1000U, 0x9eaf0000U}) {
    EXPECT_EQ(counted(word), std::nullopt) << word;
  }
}

TEST(instr_flop, the_conversions_that_share_its_row_count_as_before) {
  EXPECT_EQ(counted(0x4f10fc00), (expected_work{HALF, VECTOR, 8, 1}));    // fcvtzs v0.8h, v0.8h, #16
  EXPECT_EQ(counted(0x4f20fc00), (expected_work{SINGLE, VECTOR, 4, 1}));  // fcvtzs v0.4s, v0.4s, #32
  EXPECT_EQ(counted(0x6f10fc00), (expected_work{HALF, VECTOR, 8, 1}));    // fcvtzu v0.8h, v0.8h, #16
}

TEST(instr_flop, what_only_sounds_like_work_does_not_count) {
  const std::vector<std::pair<const char*, std::uint32_t>> words = {
      {"fabd d0, d1, d2", 0x7ee2d420},
      {"fabd v0.4s, v1.4s, v2.4s", 0x6ea2d420},
      {"fcvt d0, s1", 0x1e22c020},
      {"fmov d0, d1", 0x1e604020},
      {"fmov x0, d0", 0x9e660000},
      {"scvtf d0, x1", 0x9e620020},
      {"ucvtf d0, x1", 0x9e630020},
      {"scvtf v0.2d, v1.2d", 0x4e61d820},
      {"frecpe d0, d1", 0x5ee1d820},
      {"frecpx d0, d1", 0x5ee1f820},
      {"frsqrte d0, d1", 0x7ee1d820},
      {"fcadd v0.2d, v1.2d, v2.2d, #90", 0x6ec2e420},
      {"fcmla v0.2d, v1.2d, v2.2d, #0", 0x6ec2c420},
      {"fjcvtzs w0, d1", 0x1e7e0020},
      {"fmlal v0.4s, v1.4h, v2.4h", 0x4e22ec20},
      {"frint32z d0, d1", 0x1e684020},
      {"frint64x d0, d1", 0x1e69c020},
      {"bfdot v0.4s, v1.8h, v2.8h", 0x6e42fc20},
      {"fadd z0.d, z1.d, z2.d", 0x65c20020},
      {"fmmla z0.d, z1.d, z2.d", 0x64e2e420},
  };
  for (const auto& [text, word] : words) EXPECT_EQ(text_of(counted(word)), "not counted") << text << " " << hex(word);
}

// The bits that say something about precision, class or count in any layout.
constexpr std::uint32_t TELLING_BITS = 1U << 30 | 7U << 21;

// Every word of the row that differs in telling bits; the other open bits are 0 once and 1 once.
std::set<std::uint32_t> variants(const classifier_row& row) {
  std::set<std::uint32_t> words;
  const std::uint32_t open = TELLING_BITS & ~row.mask;
  for (const std::uint32_t rest : {0U, ~row.mask & ~TELLING_BITS}) {
    std::uint32_t filling = 0;
    do {
      words.insert(row.value | filling | rest);
      filling = (filling - open) & open;
    } while (filling != 0);
  }
  return words;
}

TEST(flop_table, counts_every_encoding_as_the_table_written_by_hand) {
  int compared = 0;
  int counting = 0;
  for (const classifier_row& row : classifier_rows) {
    for (const std::uint32_t word : variants(row)) {
      if (find_classifier_row_linearly(word) != &row) continue;
      ++compared;
      const std::optional<expected_work> expected = counted_by_hand(row, word);
      if (expected) ++counting;
      EXPECT_EQ(text_of(counted(word)), text_of(expected)) << mnemonic_names[row.mnemonic_id] << " " << hex(word);
    }
  }
  EXPECT_GT(compared, 5000);
  EXPECT_GT(counting, 1000);
}

TEST(flop_table, has_all_its_keys_among_the_rows_and_each_counts_in_the_table_written_by_hand) {
  EXPECT_EQ(flop_keys.size(), 262U);
  for (const flop_key& key : flop_keys) {
    const auto row = std::ranges::find_if(classifier_rows, [&key](const classifier_row& one) {
      return one.form_id == key.form_id && one.format_id == key.format_id;
    });
    ASSERT_NE(row, classifier_rows.end()) << key.form_id << ", " << key.format_id;
    const std::set<std::uint32_t> words = variants(*row);
    EXPECT_TRUE(std::ranges::any_of(words,
                                    [&](std::uint32_t word) {
                                      return find_classifier_row(word) == &*row &&
                                             counted_by_hand(*row, word).has_value();
                                    }))
        << mnemonic_names[row->mnemonic_id] << " " << hex(row->value);
  }
}

TEST(flop_table, has_a_key_for_every_row_that_the_table_written_by_hand_counts) {
  std::set<std::pair<unsigned, unsigned>> keys;
  for (const flop_key& key : flop_keys) keys.emplace(key.form_id, key.format_id);
  EXPECT_EQ(keys.size(), flop_key_count);
  std::size_t counted_rows = 0;
  for (const classifier_row& row : classifier_rows) {
    const std::set<std::uint32_t> words = variants(row);
    if (std::ranges::none_of(words, [&row](std::uint32_t word) { return counted_by_hand(row, word).has_value(); })) {
      continue;
    }
    ++counted_rows;
    EXPECT_TRUE(keys.contains({row.form_id, row.format_id}))
        << mnemonic_names[row.mnemonic_id] << " " << hex(row.value);
  }
  EXPECT_EQ(counted_rows, flop_key_count);
}

TEST(flop_table, is_sorted_for_its_search) {
  EXPECT_TRUE(
      std::ranges::is_sorted(flop_keys, {}, [](const flop_key& key) { return std::pair(key.form_id, key.format_id); }));
}

TEST(flop_table, counts_random_words_as_the_table_written_by_hand) {
  constexpr std::uint32_t seed = 77001;
  test::random_words random(seed);
  int counting = 0;
  for (int count = 0; count < 1'000'000; ++count) {
    const std::uint32_t word = random.next();
    const classifier_row* row = find_classifier_row(word);
    const std::optional<expected_work> expected = row == nullptr ? std::nullopt : counted_by_hand(*row, word);
    if (expected) ++counting;
    ASSERT_EQ(counted(word), expected) << hex(word) << ", seed " << seed;
  }
  EXPECT_GT(counting, 10'000) << "the random words hardly reach the counted encodings";
}

// A row fixes the bits that choose the encoding group, so that one word of it stands for all.
TEST(instr_flop, words_of_every_row_that_counts_may_be_arithmetic_and_most_others_are_not) {
  constexpr std::uint32_t group_bits = 0x1e000000;
  int refused = 0;
  for (const classifier_row& row : classifier_rows) {
    const bool is_work = std::ranges::any_of(flop_keys, [&row](const flop_key& key) {
      return key.form_id == row.form_id && key.format_id == row.format_id;
    });
    if (is_work || is_uncounted_scalable_work(row.value)) {
      EXPECT_EQ(row.mask & group_bits, group_bits) << hex(row.value);
      EXPECT_TRUE(may_be_arithmetic(row.value)) << hex(row.value);
    }
    if (!may_be_arithmetic(row.value)) ++refused;
  }
  EXPECT_GT(refused, 100);
  EXPECT_FALSE(may_be_arithmetic(0xd503201f));  // nop
  EXPECT_FALSE(may_be_arithmetic(0xf9400000));  // ldr x0, [x0]
  EXPECT_FALSE(may_be_arithmetic(0x14000000));  // b .
}

// Scalable words are recognised by these bits alone, whatever row they have.
TEST(instr_flop, all_scalable_words_may_be_arithmetic) {
  for (const std::uint32_t word : {0x65c10000U, 0x04000000U, 0x80800000U, 0xa0000000U, 0xc1200000U}) {
    EXPECT_TRUE(may_be_arithmetic(word)) << hex(word);
  }
}

}  // namespace
}  // namespace ceilmeter
