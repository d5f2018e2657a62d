// The decision tree, compared with the encoding table's rows, with the class table word by word, and by name where the
// scanner's correctness depends on it.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"
#include "bi/a64/helpers.h"
#include "encoding_rows.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::class_name;
using test::hex;

// The class of a word by comparison with every row of the class table.
int class_by_table(std::uint32_t word) {
  int found = A64_NOT_RECOGNISED;
  int most = -1;
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    const a64_class& row = a64_classes[value];
    if ((word & row.mask) == row.base && std::popcount(row.mask) > most) {
      found = value;
      most = std::popcount(row.mask);
    }
  }
  for (const a64_pattern& refused : a64_refused) {
    if ((word & refused.mask) == refused.base) {
      found = A64_NOT_RECOGNISED;
    }
  }
  return found;
}

TEST(a64_decode, tells_each_row_of_the_encoding_table_with_random_fields) {
  const std::uint64_t seed = 0xdec0de01;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  ASSERT_GT(encoding_row_count, 4000u);
  const std::size_t words_per_row = test::rounds(50, 2000);
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    const encoding_row& row = encoding_rows[index];
    for (std::size_t round = 0; round < words_per_row; ++round) {
      std::uint32_t word = row.value | (static_cast<std::uint32_t>(random()) & ~row.mask);
      while (row.one_set != 0 && (word & row.one_set) == 0) {
        word |= static_cast<std::uint32_t>(random()) & row.one_set;
      }
      const int decoded = a64_decode(&word);
      ASSERT_EQ(decoded, row.instruction) << row.name << ", " << hex(word) << ": decoded as " << class_name(decoded)
                                          << " instead of " << class_name(row.instruction);
    }
  }
}

TEST(a64_authenticated_branch, is_each_row_of_its_kind_and_no_other) {
  const std::vector<std::string> kind = {"BRAAZ_64_branch_reg",  "BRABZ_64_branch_reg",  "BLRAAZ_64_branch_reg",
                                         "BLRABZ_64_branch_reg", "RETAA_64E_branch_reg", "RETAB_64E_branch_reg",
                                         "BRAA_64P_branch_reg",  "BRAB_64P_branch_reg",  "BLRAA_64P_branch_reg",
                                         "BLRAB_64P_branch_reg"};
  const std::uint64_t seed = 0xdec0de02;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  std::size_t told = 0;
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    const encoding_row& row = encoding_rows[index];
    const bool is_kind = std::find(kind.begin(), kind.end(), row.name) != kind.end();
    if (is_kind) ++told;
    for (int round = 0; round < 50; ++round) {
      const std::uint32_t word = row.value | (static_cast<std::uint32_t>(random()) & ~row.mask);
      // The word of RETAASPPCR with register number 31 is RETAA. The same holds for the other key.
      const bool is_one = is_kind || word == 0xd65f0bff || word == 0xd65f0fff;
      a64_authenticated_branch branch{};
      ASSERT_EQ(a64_authenticated_branch_decode(word, &branch), is_one) << row.name << ", " << hex(word);
      ASSERT_TRUE(!is_one || a64_decode(&word) == A64_NOT_RECOGNISED) << hex(word);
    }
  }
  EXPECT_EQ(told, kind.size());
}

TEST(a64_decode, knows_a_row_for_every_class_but_scalar_pairwise_whose_rows_are_all_broken_out) {
  std::vector<int> rows(A64_NOT_RECOGNISED + 1);
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    ++rows[encoding_rows[index].instruction];
  }
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    EXPECT_EQ(rows[value] == 0, value == A64_SCALAR_PAIRWISE) << class_name(value);
  }
}

TEST(a64_decode, agrees_with_the_class_table_on_random_words) {
  const std::uint64_t seed = 0xdec0de02;
  const std::size_t words = test::rounds(1'000'000, 20'000'000);
  std::cout << "seed " << seed << ", " << words << " words\n";
  std::mt19937_64 random(seed);
  for (std::size_t round = 0; round < words; ++round) {
    const auto word = static_cast<std::uint32_t>(random());
    ASSERT_EQ(a64_decode(&word), class_by_table(word)) << hex(word);
  }
}

TEST(a64_decode, agrees_with_the_class_table_on_words_one_or_two_bits_beside_a_class) {
  const std::uint64_t seed = 0xdec0de03;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  const std::size_t words_per_class = test::rounds(5'000, 200'000);
  for (const a64_class& row : a64_classes) {
    for (std::size_t round = 0; round < words_per_class; ++round) {
      std::uint32_t word = test::random_word(row, random) ^ (1u << (random() % 32));
      word ^= round % 2 == 0 ? 0 : 1u << (random() % 32);
      ASSERT_EQ(a64_decode(&word), class_by_table(word)) << hex(word);
    }
  }
}

TEST(a64_decode, of_the_word_0_is_not_recognised) {
  const std::uint32_t zero = 0;
  EXPECT_EQ(a64_decode(&zero), A64_NOT_RECOGNISED);
}

struct named_word {
  const char* assembly;
  std::uint32_t word;
  a64_instruction instruction;
};

void expect_each(std::initializer_list<named_word> words) {
  for (const named_word& one : words) {
    const int decoded = a64_decode(&one.word);
    EXPECT_EQ(decoded, one.instruction) << one.assembly << " (" << hex(one.word) << ") decoded as "
                                        << class_name(decoded);
  }
}

TEST(a64_decode, takes_bc_cond_for_b_cond) {
  expect_each({{"b.eq .+8", 0x54000040, A64_B_COND}, {"bc.eq .+8", 0x54000050, A64_B_COND}});
}

TEST(a64_decode, takes_the_unallocated_literal_load_for_a_literal_load) {
  expect_each({{"V 1, opc 3", 0xdc000000, A64_LDR_LITERAL}});
}

TEST(a64_decode, takes_pointer_authentication_in_the_hint_space_for_hints) {
  expect_each(
      {{"paciasp", 0xd503233f, A64_HINT}, {"autiasp", 0xd50323bf, A64_HINT}, {"xpaclri", 0xd50320ff, A64_HINT}});
}

TEST(a64_decode, does_not_recognise_branches_that_authenticate) {
  expect_each({{"braaz x0", 0xd61f081f, A64_NOT_RECOGNISED},
               {"brab x0, x1", 0xd71f0c01, A64_NOT_RECOGNISED},
               {"blraaz x0", 0xd63f081f, A64_NOT_RECOGNISED},
               {"retaa", 0xd65f0bff, A64_NOT_RECOGNISED},
               {"retaasppcr x1", 0xd65f0be1, A64_NOT_RECOGNISED},
               {"retaasppc .", 0x5500001f, A64_NOT_RECOGNISED},
               {"eretaa", 0xd69f0bff, A64_NOT_RECOGNISED}});
}

TEST(a64_decode, does_not_recognise_compare_and_branch_in_one) {
  expect_each({{"cbgt w0, w0, .", 0x74000000, A64_NOT_RECOGNISED},
               {"cbhgt w0, w0, .", 0x7400c000, A64_NOT_RECOGNISED},
               {"cbne x0, #0, .", 0xf5e00000, A64_NOT_RECOGNISED}});
}

TEST(a64_decode, does_not_recognise_authentication_relative_to_the_program_counter) {
  expect_each({{"autiasppc .", 0xf380001f, A64_NOT_RECOGNISED}, {"paciasppc", 0xdac1a3fe, A64_NOT_RECOGNISED}});
}

TEST(a64_decode, keeps_compare_and_swap_of_bytes_and_halfwords_apart_from_that_of_words) {
  expect_each({{"casb w0, w1, [x2]", 0x08a07c41, A64_LDX_STX},
               {"cash w0, w1, [x2]", 0x48a07c41, A64_LDX_STX},
               {"cas w0, w1, [x2]", 0x88a07c41, A64_CAS},
               {"casal x0, x1, [x2]", 0xc8e0fc41, A64_CAS}});
}

TEST(a64_decode, tells_a_vector_shift_from_a_modified_immediate_by_immh) {
  expect_each(
      {{"movi v0.4s, #0", 0x4f000400, A64_SIMD_MODIFIED_IMM}, {"shl v0.16b, v0.16b, #0", 0x4f085400, A64_SIMD_SHIFT}});
}

TEST(a64_decode, finds_every_row_that_depends_on_its_position_in_a_branch_class_or_not_at_all) {
  // By the names of the encodings. CB<cc>, authenticated branches and the like are in no class; tests above hold that.
  const auto starts_with = [](const std::string& name, std::initializer_list<const char*> prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char* prefix) { return name.rfind(prefix, 0) == 0; });
  };
  int dependent = 0;
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    const encoding_row& row = encoding_rows[index];
    const std::string name = row.name;
    const bool expected = starts_with(name, {"CBZ_32_c", "CBZ_64_c", "CBNZ_32_c", "CBNZ_64_c", "B_only_c", "BC_only_c",
                                             "TBZ_only", "TBNZ_only", "B_only_b", "BL_only_b", "BR_64", "BLR_64",
                                             "RET_64R", "ADR_only", "ADRP_only"}) ||
                          name.find("_loadlit") != std::string::npos;
    dependent += expected ? 1 : 0;
    EXPECT_EQ(a64_is_branch_class(row.instruction), expected) << name << ": " << class_name(row.instruction);
  }
  EXPECT_EQ(dependent, 4 + 2 + 2 + 2 + 3 + 2 + 7);
}

TEST(a64_is_branch_class, is_true_of_nine_classes_alone) {
  std::vector<int> found;
  for (int value = 0; value < 256; ++value) {
    if (a64_is_branch_class(value)) {
      found.push_back(value);
    }
  }
  EXPECT_EQ(found, (std::vector<int>{0, 1, 19, 20, 21, 22, 23, 27, 52}));
}

TEST(a64_is_branch_class, is_false_of_the_mark_for_no_instruction) { EXPECT_FALSE(a64_is_branch_class(-1)); }

}  // namespace
}  // namespace ceilmeter
