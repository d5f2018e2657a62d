// The classifier: single words, the rows that ids rest on, and the outcomes where rows overlap.
#include "a64/classifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "a64/classifier_rows.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::hex;

struct ids {
  std::uint32_t form;
  std::uint32_t format;
  std::string mnemonic;
  bool operator==(const ids&) const = default;
};

std::ostream& operator<<(std::ostream& out, const ids& value) {
  return out << value.mnemonic << " form_id " << value.form << " format_id " << value.format;
}

ids classified(std::uint32_t word) {
  std::uint32_t form = 0;
  std::uint32_t mnemonic = 0;
  std::uint32_t format = 0;
  if (classify_instruction(word, form, mnemonic, format) != 0) return {0, 0, "refused"};
  return {form, format, mnemonic_names.at(mnemonic)};
}

bool overlap(const classifier_row& first, const classifier_row& second) {
  return ((first.value ^ second.value) & first.mask & second.mask) == 0;
}

bool within(const classifier_row& inner, const classifier_row& outer) {
  return overlap(inner, outer) && (inner.mask & outer.mask) == outer.mask;
}

std::string name_of(const classifier_row& row) { return mnemonic_names.at(row.mnemonic_id); }

TEST(classifier, a_word_that_matches_nothing_is_refused_and_unknown) {
  std::uint32_t form = 11;
  std::uint32_t mnemonic = 22;
  std::uint32_t format = 33;
  EXPECT_EQ(classify_instruction(0xffffffff, form, mnemonic, format), -1);
  EXPECT_EQ(form, 11U);
  EXPECT_EQ(mnemonic, 22U);
  EXPECT_EQ(format, 33U);
  EXPECT_STREQ(instruction_mnemonic(0xffffffff), "unknown");
}

TEST(classifier, nop_is_hint) { EXPECT_EQ(classified(0xd503201f), (ids{589, 21, "hint"})); }

TEST(classifier, fadd_of_doubles_is_the_scalar_fadd) { EXPECT_EQ(classified(0x1e602820), (ids{330, 65, "fadd"})); }

TEST(classifier, fmla_of_two_doubles_is_the_vector_fmla) { EXPECT_EQ(classified(0x4e60cc20), (ids{470, 64, "fmla"})); }

TEST(classifier, the_word_0_is_udf) { EXPECT_EQ(classified(0x00000000), (ids{1633, 0, "udf"})); }

TEST(classifier, ldr_and_ldrb_with_an_unsigned_offset_are_both_ldr) {
  EXPECT_EQ(classified(0xf9400000), (ids{827, 124, "ldr"}));
  EXPECT_EQ(classified(0x39400000), (ids{827, 124, "ldr"}));
}

TEST(classifier, mnemonics_of_single_words) {
  const std::vector<std::pair<std::uint32_t, std::string>> expected = {
      {0x1e602820, "fadd"}, {0x1e202030, "fcmp"},  {0xaa0003e0, "orr"},  {0x14000000, "b"},    {0x94000000, "bl"},
      {0xd65f03c0, "ret"},  {0xd4000001, "svc"},   {0x91000420, "add"},  {0xf81f0ffe, "str"},  {0xd503233f, "hint"},
      {0x10000000, "adr"},  {0x90000000, "adrp"},  {0xd5033bbf, "dmb"},  {0x9b017c00, "madd"}, {0xd53bd040, "mrs"},
      {0x04e0e3e0, "cntd"}, {0x25d8e3e0, "ptrue"}, {0x65a00020, "fmla"}, {0xc00800ff, "zero"}, {0x4e284820, "aese"},
  };
  for (const auto& [word, mnemonic] : expected) EXPECT_EQ(instruction_mnemonic(word), mnemonic) << hex(word);
}

// Position, mnemonic, form_id, format_id, mask, value.
struct placed_row {
  std::size_t position;
  const char* mnemonic;
  classifier_row row;
};

TEST(classifier_rows, stand_where_ids_expect_them) {
  const std::vector<placed_row> expected = {
      {0, "abs", {0x7ffffc00, 0x5ac02000, 0, 0, 0}},
      {1, "abs", {0xff3ffc00, 0x5e20b800, 1, 0, 1}},
      {2, "abs", {0xbf3ffc00, 0x0e20b800, 1, 0, 2}},
      {3, "abs", {0xff3fe000, 0x0416a000, 2, 0, 3}},
      {85, "bfadd", {0xffffe000, 0x65008000, 79, 0, 5}},
      {383, "fadd", {0xbfe0fc00, 0x0e401400, 329, 0, 63}},
      {384, "fadd", {0xbfa0fc00, 0x0e20d400, 329, 0, 64}},
      {385, "fadd", {0xff20fc00, 0x1e202800, 330, 0, 65}},
      {387, "fadd", {0xff3fe000, 0x65008000, 332, 0, 3}},
      {645, "fmla", {0xffc0f400, 0x5f001000, 469, 0, 83}},
      {650, "fmla", {0xbfa0fc00, 0x0e20cc00, 470, 0, 64}},
      {651, "fmla", {0xff20e000, 0x65200000, 471, 0, 3}},
      {652, "fmla", {0xffa0fc00, 0x64200000, 472, 0, 63}},
      {classifier_row_count - 1, "zipq2", {0xff20fc00, 0x4400e400, 1879, 0, 5}},
  };
  for (const placed_row& one : expected) {
    const classifier_row& row = classifier_rows.at(one.position);
    EXPECT_EQ(name_of(row), one.mnemonic) << "position " << one.position;
    EXPECT_EQ(hex(row.mask), hex(one.row.mask)) << "position " << one.position;
    EXPECT_EQ(hex(row.value), hex(one.row.value)) << "position " << one.position;
    EXPECT_EQ(row.form_id, one.row.form_id) << "position " << one.position;
    EXPECT_EQ(row.format_id, one.row.format_id) << "position " << one.position;
  }
}

TEST(classifier_rows, ascend_by_form_id_and_use_1763_of_1880_ids) {
  EXPECT_TRUE(std::ranges::is_sorted(classifier_rows, {}, &classifier_row::form_id));
  std::set<unsigned> forms;
  for (const classifier_row& row : classifier_rows) forms.insert(row.form_id);
  EXPECT_EQ(forms.size(), 1763U);
  EXPECT_EQ(*forms.rbegin(), 1879U);
}

TEST(classifier_rows, use_every_layout_from_0_to_171) {
  std::set<unsigned> formats;
  for (const classifier_row& row : classifier_rows) formats.insert(row.format_id);
  EXPECT_EQ(formats.size(), 172U);
  EXPECT_EQ(*formats.rbegin(), 171U);
}

TEST(classifier_rows, have_no_pair_of_form_and_format_id_twice) {
  std::set<std::pair<unsigned, unsigned>> keys;
  for (const classifier_row& row : classifier_rows) {
    EXPECT_TRUE(keys.emplace(row.form_id, row.format_id).second) << name_of(row) << " " << hex(row.value);
  }
}

TEST(classifier_rows, have_no_value_bit_outside_their_mask_and_no_twin) {
  std::set<std::pair<std::uint32_t, std::uint32_t>> patterns;
  for (const classifier_row& row : classifier_rows) {
    EXPECT_EQ(row.value & ~row.mask, 0U) << name_of(row) << " " << hex(row.value);
    EXPECT_TRUE(patterns.emplace(row.mask, row.value).second) << name_of(row) << " " << hex(row.value);
  }
}

TEST(classifier_rows, fix_between_6_and_32_bits) {
  EXPECT_EQ(std::ranges::count(classifier_rows, 0xffffffffU, &classifier_row::mask), 20);
  int least = 32;
  for (const classifier_row& row : classifier_rows) least = std::min(least, std::popcount(row.mask));
  EXPECT_EQ(least, 6);
}

TEST(classifier_rows, overlap_in_249_pairs_of_which_103_hide_the_later_row) {
  int pairs = 0;
  int hidden = 0;
  for (std::size_t first = 0; first < classifier_row_count; ++first) {
    for (std::size_t second = first + 1; second < classifier_row_count; ++second) {
      if (!overlap(classifier_rows[first], classifier_rows[second])) continue;
      ++pairs;
      if (within(classifier_rows[second], classifier_rows[first])) ++hidden;
    }
  }
  EXPECT_EQ(pairs, 249);
  EXPECT_EQ(hidden, 103);
}

TEST(classifier_rows, all_mnemonics_but_three_have_rows) {
  std::set<std::string> without(mnemonic_names.begin(), mnemonic_names.end());
  EXPECT_EQ(without.size(), mnemonic_count) << "a mnemonic stands twice";
  for (const classifier_row& row : classifier_rows) without.erase(name_of(row));
  EXPECT_EQ(without, (std::set<std::string>{"fcmpe", "mvni", "rprfm"}));
}

// Mnemonic of the row that has the word, for a word of a row with another mnemonic.
void expect_taken(const std::string& mnemonic, std::uint32_t mask, std::uint32_t value, const std::string& by) {
  const auto row = std::ranges::find_if(classifier_rows, [&](const classifier_row& one) {
    return name_of(one) == mnemonic && one.mask == mask && one.value == value;
  });
  ASSERT_NE(row, classifier_rows.end()) << mnemonic << " " << hex(mask) << " " << hex(value) << " is no row";
  EXPECT_EQ(instruction_mnemonic(value), by) << mnemonic << " " << hex(value);
}

TEST(classifier_overlaps, hints_after_hint_in_the_alphabet_are_hint) {
  const std::vector<std::pair<std::string, std::uint32_t>> hidden = {
      {"nop", 0xd503201f}, {"psb", 0xd503223f}, {"sev", 0xd503209f},     {"sevl", 0xd50320bf},  {"tsb", 0xd503225f},
      {"wfe", 0xd503205f}, {"wfi", 0xd503207f}, {"xpaclri", 0xd50320ff}, {"yield", 0xd503203f},
  };
  for (const auto& [mnemonic, word] : hidden) expect_taken(mnemonic, 0xffffffff, word, "hint");
}

TEST(classifier_overlaps, hints_before_hint_in_the_alphabet_keep_their_names) {
  const std::vector<std::pair<std::string, std::uint32_t>> named = {
      {"bti", 0xd503245f}, {"chkfeat", 0xd503251f}, {"clrbhb", 0xd50322df}, {"csdb", 0xd503229f},
      {"dgh", 0xd50320df}, {"esb", 0xd503221f},     {"gcsb", 0xd503227f},
  };
  for (const auto& [mnemonic, word] : named) EXPECT_EQ(instruction_mnemonic(word), mnemonic) << hex(word);
}

TEST(classifier_overlaps, loads_and_stores_of_bytes_and_halfwords_are_those_of_words) {
  expect_taken("ldrb", 0xffc00000, 0x39400000, "ldr");
  expect_taken("ldrh", 0xffc00000, 0x79400000, "ldr");
  expect_taken("ldaprb", 0xffe0fc00, 0x38a0c000, "ldapr");
  expect_taken("ldaprh", 0xffe0fc00, 0x78a0c000, "ldapr");
  expect_taken("ldapurb", 0xffe00c00, 0x19400000, "ldapur");
  expect_taken("ldapurh", 0xffe00c00, 0x59400000, "ldapur");
  expect_taken("ldarb", 0xffe08000, 0x08c08000, "ldar");
  expect_taken("ldarh", 0xffe08000, 0x48c08000, "ldar");
  expect_taken("ldaxrb", 0xffe08000, 0x08408000, "ldaxr");
  expect_taken("ldaxrh", 0xffe08000, 0x48408000, "ldaxr");
  expect_taken("ldlarb", 0xffe08000, 0x08c00000, "ldlar");
  expect_taken("ldlarh", 0xffe08000, 0x48c00000, "ldlar");
}

// STR's rows come before STRB's and STRH's as LDR's do before theirs, but LDRSB's and LDRSH's stand before both and
// disregard the bits that tell load from store.
TEST(classifier_overlaps, stores_of_bytes_and_halfwords_are_sign_extending_loads) {
  expect_taken("strb", 0xffc00000, 0x39000000, "ldrsb");
  expect_taken("strh", 0xffc00000, 0x79000000, "ldrsh");
  EXPECT_STREQ(instruction_mnemonic(0xb9000000), "str");
}

// Rows that would repeat STR's and STUR's of the floating-point registers are not there.
TEST(classifier_overlaps, stores_of_floating_point_registers_are_loads) {
  EXPECT_STREQ(instruction_mnemonic(0x3d800000), "ldr");
  EXPECT_STREQ(instruction_mnemonic(0x3c800000), "ldur");
}

TEST(classifier_overlaps, ld1_takes_the_words_of_ld2_ld3_ld4_ld1r_and_ld3r) {
  const std::vector<std::pair<const char*, std::uint32_t>> taken = {
      {"ld2 {v0.16b, v1.16b}, [x0]", 0x4c408000},
      {"ld3 {v0.16b, v1.16b, v2.16b}, [x0]", 0x4c404000},
      {"ld4 {v0.16b, v1.16b, v2.16b, v3.16b}, [x0]", 0x4c400000},
      {"ld1r {v0.16b}, [x0]", 0x4d40c000},
      {"ld3r {v0.16b, v1.16b, v2.16b}, [x0]", 0x4d40e000},
      {"ld3 {v0.b, v1.b, v2.b}[0], [x0]", 0x0d402000},
  };
  for (const auto& [text, word] : taken) EXPECT_STREQ(instruction_mnemonic(word), "ld1") << text;
}

TEST(classifier_overlaps, st1_takes_the_words_of_st2_st3_and_st4) {
  for (const std::uint32_t word : {0x4c008000U, 0x4c004000U, 0x4c000000U}) {
    EXPECT_STREQ(instruction_mnemonic(word), "st1") << hex(word);
  }
}

TEST(classifier_overlaps, conversions_between_the_register_files_are_fmov_only_after_it_in_the_alphabet) {
  expect_taken("scvtf", 0x7f3ffc00, 0x1e220000, "fmov");
  expect_taken("ucvtf", 0x7f3ffc00, 0x1e230000, "fmov");
  expect_taken("fcvtas", 0x7f3ffc00, 0x1e240000, "fcvtas");
  expect_taken("fcvtzs", 0x7f3ffc00, 0x1e380000, "fcvtzs");
  expect_taken("fcvtzu", 0x7f3ffc00, 0x1e390000, "fcvtzu");
}

TEST(classifier_overlaps, bf_forms_take_their_words_from_the_f_forms) {
  const std::vector<std::pair<std::string, std::uint32_t>> pairs = {
      {"bfadd", 0x65008000}, {"bfsub", 0x65018000}, {"bfmax", 0x65068000}, {"bfmla", 0x65200000},
      {"bfmls", 0x65202000}, {"bfmul", 0x65028000}, {"bfmin", 0x65078000}, {"bfmaxnm", 0x65048000},
  };
  for (const auto& [mnemonic, word] : pairs) {
    EXPECT_EQ(instruction_mnemonic(word), mnemonic) << hex(word);
    EXPECT_EQ(instruction_mnemonic(word | 0x00400000), mnemonic.substr(1)) << hex(word) << " with halves for elements";
  }
}

TEST(classifier_overlaps, orr_takes_the_register_move) { EXPECT_STREQ(instruction_mnemonic(0xaa0003e0), "orr"); }

TEST(classifier_overlaps, the_named_loose_rows_have_their_masks) {
  struct loose_row {
    const char* mnemonic;
    std::uint32_t mask;
    std::uint32_t value;
  };
  const std::vector<loose_row> loose = {
      {"hint", 0xfffff01f, 0xd503201f},  {"ldr", 0x3fc00000, 0x39400000},  {"fmov", 0x7f20fc00, 0x1e200000},
      {"orr", 0x7f200000, 0x2a000000},   {"fcmp", 0xff20fc07, 0x1e202000}, {"fcvtl", 0xbfbffc00, 0x0e217800},
      {"fcvtn", 0xbfbffc00, 0x0e216800},
  };
  for (const loose_row& one : loose) {
    EXPECT_TRUE(std::ranges::any_of(classifier_rows,
                                    [&one](const classifier_row& row) {
                                      return name_of(row) == one.mnemonic && row.mask == one.mask &&
                                             row.value == one.value;
                                    }))
        << one.mnemonic << " " << hex(one.mask);
  }
}

TEST(classifier_search, finds_for_every_row_what_the_plain_search_finds) {
  for (const classifier_row& row : classifier_rows) {
    for (const std::uint32_t word : {row.value, row.value | ~row.mask}) {
      EXPECT_EQ(find_classifier_row(word), find_classifier_row_linearly(word)) << hex(word);
    }
  }
}

class classifier_search_batch : public testing::TestWithParam<int> {};

TEST_P(classifier_search_batch, finds_for_random_words_what_the_plain_search_finds) {
  if (test::skips_batch(GetParam())) GTEST_SKIP() << "runs with CEILMETER_LONG=1";
  const std::uint32_t seed = 20240607 + static_cast<std::uint32_t>(GetParam());
  const int words = test::words_of_batch();
  test::random_words random(seed);
  int known = 0;
  for (int count = 0; count < words; ++count) {
    const std::uint32_t word = random.next();
    const classifier_row* found = find_classifier_row(word);
    ASSERT_EQ(found, find_classifier_row_linearly(word)) << hex(word) << ", seed " << seed;
    if (found != nullptr) ++known;
  }
  EXPECT_GT(known, words / 2) << "the random words are hardly instructions";
}

INSTANTIATE_TEST_SUITE_P(seeds, classifier_search_batch, testing::Range(0, test::BATCHES));

}  // namespace
}  // namespace ceilmeter
