// Encoders, extractors and wrappers of every class, from the class table: which bits a field takes, what is cut off,
// and what is read back.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"
#include "bi/a64/emit.h"
#include "family_calls.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::hex;

// The contract with plug-ins: value i is the class of the i-th base word.
constexpr std::uint32_t BASE_WORDS[] = {
    0x34000000, 0x54000000, 0xd4000001, 0xd4000002, 0xd4000003, 0xd4200000, 0xd4400000, 0xd4a00001, 0xd4a00002,
    0xd4a00003, 0xd500401f, 0xd503201f, 0xd503305f, 0xd503309f, 0xd50330bf, 0xd50330df, 0xd5080000, 0xd5100000,
    0xd5280000, 0x36000000, 0x14000000, 0xd61f0000, 0xd63f0000, 0xd65f0000, 0xd69f03e0, 0xd6bf03e0, 0x08000000,
    0x18000000, 0x28000000, 0x38000000, 0x38200800, 0x39000000, 0x0c000000, 0x0c800000, 0x0d000000, 0x0d800000,
    0x38200000, 0x38201000, 0x38202000, 0x38204000, 0x38205000, 0x38206000, 0x38207000, 0x38203000, 0x38208000,
    0x88a07c00, 0xce800000, 0x11000000, 0x13000000, 0x13800000, 0x12000000, 0x12800000, 0x10000000, 0x0b200000,
    0x0b000000, 0x1a000000, 0x3a400800, 0x3a400000, 0x1a800000, 0x5ac00000, 0x1ac00000, 0x1b000000, 0x0a000000,
    0x0e300800, 0x0e000400, 0x2e000000, 0x0f000400, 0x0e000800, 0x5e000400, 0x5e300800, 0x5f000400, 0x5e200000,
    0x5e200400, 0x5e200800, 0x5f000000, 0x0f000400, 0x0e000000, 0x0e200000, 0x0e200400, 0x0e200800, 0x0f000000,
    0x4e280800, 0x5e000000, 0x5e280800, 0x0e401400, 0x2e00e400, 0x1e202000, 0x1e200400, 0x1e200c00, 0x1e204000,
    0x1e200800, 0x1f000000, 0x1e201000, 0x1e000000, 0x1e200000, 0x0e400c00, 0x0e20ec00, 0x2e20cc00, 0x0ec00c00,
    0x0ea0ec00, 0x2ea0cc00, 0x0e20bc00, 0x5e31b800, 0x2e401400, 0x5e30d800, 0x2e400400, 0x5e30c800, 0x2e403400,
    0x5e30f800, 0x2ec00400, 0x5eb0c800, 0x2ec03400, 0x5eb0f800, 0x0e20a400, 0x0e20ac00, 0x2e20a400, 0x2e20ac00,
};

std::uint32_t ones(const a64_field& field) {
  return static_cast<std::uint32_t>(((std::uint64_t{1} << field.width) - 1) << field.low);
}

struct numbered_class {
  int value;
  const a64_class& row = a64_classes[value];
  const family_call& call = family_calls[value];

  std::uint32_t encoded(const std::uint32_t* fields) const {
    std::uint32_t word = 0xffffffff;
    call.encode(&word, fields);
    return word;
  }
};

template <typename function>
void for_each_class(function check) {
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    SCOPED_TRACE(test::class_name(value));
    check(numbered_class{value});
  }
}

TEST(a64_enumeration, has_one_base_word_for_each_value) {
  ASSERT_EQ(std::size(BASE_WORDS), 117u);
  EXPECT_EQ(A64_NOT_RECOGNISED, 117);
}

TEST(a64_encoder, of_each_class_gives_the_base_word_of_its_value_for_fields_of_zero) {
  for_each_class([](const numbered_class& one) {
    const std::uint32_t fields[A64_MOST_FIELDS] = {};
    EXPECT_EQ(hex(one.encoded(fields)), hex(BASE_WORDS[one.value]));
  });
}

TEST(a64_encoder, of_each_class_cuts_each_field_to_its_width_and_sets_it_at_its_place) {
  for_each_class([](const numbered_class& one) {
    for (std::uint32_t index = 0; index < one.row.field_count; ++index) {
      std::uint32_t fields[A64_MOST_FIELDS] = {};
      fields[index] = 0xffffffff;
      EXPECT_EQ(hex(one.encoded(fields)), hex(BASE_WORDS[one.value] | ones(one.row.fields[index])))
          << "field " << one.row.fields[index].name;
    }
  });
}

TEST(a64_class_table, has_fields_from_the_highest_bit_to_the_lowest_and_never_in_constant_bits) {
  for_each_class([](const numbered_class& one) {
    std::uint32_t above = 32;
    for (std::uint32_t index = 0; index < one.row.field_count; ++index) {
      const a64_field& field = one.row.fields[index];
      EXPECT_LE(field.low + field.width, static_cast<int>(above)) << "field " << field.name;
      EXPECT_EQ(ones(field) & one.row.mask, 0u) << "field " << field.name;
      above = field.low;
    }
  });
}

TEST(a64_extractor, of_each_class_gives_back_what_the_encoder_took) {
  const std::uint64_t seed = 0xa6400001;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  for_each_class([&random](const numbered_class& one) {
    for (int round = 0; round < 200; ++round) {
      std::uint32_t fields[A64_MOST_FIELDS] = {};
      std::uint32_t extracted[A64_MOST_FIELDS];
      std::fill(std::begin(extracted), std::end(extracted), 0xeeeeeeee);
      for (std::uint32_t index = 0; index < one.row.field_count; ++index) {
        fields[index] = static_cast<std::uint32_t>(random()) & ((1u << one.row.fields[index].width) - 1);
      }
      const std::uint32_t word = one.encoded(fields);
      one.call.decode(&word, extracted);
      for (std::uint32_t index = 0; index < one.row.field_count; ++index) {
        ASSERT_EQ(extracted[index], fields[index]) << "field " << one.row.fields[index].name << " of " << hex(word);
      }
      ASSERT_EQ(hex(word & one.row.mask), hex(BASE_WORDS[one.value])) << "the constant bits of " << hex(word);
    }
  });
}

TEST(a64_emit, of_each_class_that_has_one_writes_the_encoders_word_and_moves_on_by_one_word) {
  int tested = 0;
  for_each_class([&tested](const numbered_class& one) {
    if (one.call.emit == nullptr) return;
    ++tested;
    std::uint32_t fields[A64_MOST_FIELDS];
    for (std::uint32_t index = 0; index < A64_MOST_FIELDS; ++index) {
      fields[index] = 0x5a5a5a5a + index;
    }
    std::uint32_t code[3] = {1, 2, 3};
    code_context context{code + 1};
    one.call.emit(&context, fields);
    EXPECT_EQ(context.write_p, code + 2);
    EXPECT_EQ(code[0], 1u);
    EXPECT_EQ(hex(code[1]), hex(one.encoded(fields)));
    EXPECT_EQ(code[2], 3u);
  });
  EXPECT_EQ(tested, 16);
}

TEST(a64_encoder, leaves_its_pointer_and_the_words_around_alone) {
  std::uint32_t code[3] = {1, 2, 3};
  a64_b(code + 1, 0, 4);
  EXPECT_EQ(code[0], 1u);
  EXPECT_EQ(hex(code[1]), "0x14000004");
  EXPECT_EQ(code[2], 3u);
}

TEST(a64_extractor, drops_the_hint_bit_of_bc_cond) {
  const std::uint32_t bc_ne = 0x54000031;  // BC.NE .+4
  std::uint32_t imm19 = 0;
  std::uint32_t cond = 0;
  a64_b_cond_decode(&bc_ne, &imm19, &cond);
  EXPECT_EQ(imm19, 1u);
  EXPECT_EQ(cond, 1u);
}

TEST(a64_sign_extend, keeps_the_lower_half_and_takes_the_upper_half_below_zero) {
  EXPECT_EQ(a64_sign_extend(0, 19), 0);
  EXPECT_EQ(a64_sign_extend(0x3ffff, 19), 0x3ffff);
  EXPECT_EQ(a64_sign_extend(0x40000, 19), -0x40000);
  EXPECT_EQ(a64_sign_extend(0x7ffff, 19), -1);
  EXPECT_EQ(a64_sign_extend(1, 1), -1);
  EXPECT_EQ(a64_sign_extend(0x80000000, 32), INT32_MIN);
  EXPECT_EQ(a64_sign_extend(0xffffffffffffffff, 64), -1);
}

}  // namespace
}  // namespace ceilmeter
