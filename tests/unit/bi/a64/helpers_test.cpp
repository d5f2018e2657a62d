// The constant loader and the branch helpers, word by word. The expected words come from an assembler.
#include "bi/a64/helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <vector>

#include "bi/a64/a64.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::hex;

std::uint64_t address_of(const std::uint32_t* word) { return reinterpret_cast<std::uintptr_t>(word); }

std::vector<std::uint32_t> loaded(std::uint32_t reg, std::uint64_t value) {
  std::uint32_t code[5] = {};
  std::uint32_t* write = code;
  a64_load_const(&write, reg, value);
  EXPECT_EQ(code[4], 0u) << "a fifth word";
  return {code, write};
}

// What a MOVZ and the MOVKs behind it leave in the register, by the architecture's description.
std::uint64_t run_moves(const std::vector<std::uint32_t>& code, std::uint32_t reg) {
  std::uint64_t value = 0xeeeeeeeeeeeeeeee;
  for (std::size_t index = 0; index < code.size(); ++index) {
    std::uint32_t sf, opc, hw, imm16, rd;
    a64_mov_wide_decode(&code[index], &sf, &opc, &hw, &imm16, &rd);
    EXPECT_EQ(a64_decode(&code[index]), A64_MOV_WIDE) << hex(code[index]);
    EXPECT_EQ(sf, 1u);
    EXPECT_EQ(rd, reg);
    EXPECT_EQ(opc, index == 0 ? 2u : 3u) << "MOVZ first, MOVK after it";
    const std::uint64_t kept = opc == 2 ? 0 : value & ~(std::uint64_t{0xffff} << (16 * hw));
    value = kept | std::uint64_t{imm16} << (16 * hw);
  }
  return value;
}

TEST(a64_load_const, loads_each_of_the_16_patterns_of_zero_parts_in_as_few_words_as_it_has_parts) {
  for (unsigned pattern = 0; pattern < 16; ++pattern) {
    std::uint64_t value = 0;
    std::size_t words = 1;
    for (unsigned part = 0; part < 4; ++part) {
      if ((pattern >> part & 1) != 0) {
        value |= (std::uint64_t{0x1111} * (part + 1)) << (16 * part);
        words += part == 0 ? 0 : 1;
      }
    }
    const std::vector<std::uint32_t> code = loaded(7, value);
    EXPECT_EQ(code.size(), words) << "pattern " << pattern;
    EXPECT_EQ(run_moves(code, 7), value) << "pattern " << pattern;
  }
}

TEST(a64_load_const, loads_all_ones_in_four_words) {
  EXPECT_EQ(loaded(30, 0xffffffffffffffff).size(), 4u);
  EXPECT_EQ(run_moves(loaded(30, 0xffffffffffffffff), 30), 0xffffffffffffffffu);
}

TEST(a64_load_const, of_a_constant_with_a_zero_middle_part_is_movz_and_one_movk_for_each_other_part) {
  // MOVZ x1, #0x5678; MOVK x1, #0x1234, LSL #32
  EXPECT_EQ(loaded(1, 0x0000123400005678), (std::vector<std::uint32_t>{0xd28acf01, 0xf2c24681}));
}

TEST(a64_load_const, of_0_is_one_word) { EXPECT_EQ(loaded(0, 0), (std::vector<std::uint32_t>{0xd2800000})); }

TEST(a64_load_const, of_a_block_address_is_three_words) { EXPECT_EQ(loaded(0, 0x7f8812345678).size(), 3u); }

// At a place of the test's own, since the words depend on theirs.
std::vector<std::uint32_t> address_loaded(std::uint32_t* place, std::uint32_t reg, std::uint64_t address) {
  std::fill_n(place, 5, 0);
  std::uint32_t* write = place;
  a64_load_address(&write, reg, address);
  EXPECT_EQ(place[4], 0u) << "a fifth word";
  return {place, write};
}

// What ADRP at `place`, and ADD behind it, leave in the register, by the architecture's description.
std::uint64_t run_page_words(const std::vector<std::uint32_t>& code, const std::uint32_t* place, std::uint32_t reg) {
  std::uint32_t is_page, low, high, rd;
  a64_adr_decode(code.data(), &is_page, &low, &high, &rd);
  EXPECT_EQ(a64_decode(code.data()), A64_ADR) << hex(code[0]);
  EXPECT_EQ(is_page, 1u);
  EXPECT_EQ(rd, reg);
  const auto offset = static_cast<std::uint64_t>(a64_sign_extend(high << 2 | low, 21)) << 12;
  const std::uint64_t page = (address_of(place) & ~std::uint64_t{0xfff}) + offset;
  if (code.size() == 1) return page;
  EXPECT_EQ(code[1] & 0xffc003ff, 0x91000000 | reg << 5 | reg) << "add xN, xN, #0 to 4095: " << hex(code[1]);
  return page + (code[1] >> 10 & 0xfff);
}

constexpr std::uint64_t PAGE = 4096;
constexpr std::uint64_t REACH = PAGE << 20;

TEST(a64_load_address, loads_what_lies_within_reach_by_its_page_and_its_place_in_the_page) {
  std::uint32_t place[5] = {};
  const std::uint64_t page = address_of(place) & ~(PAGE - 1);
  for (const std::uint64_t distance : {std::uint64_t{0}, PAGE, 3 * PAGE, 0x12345 * PAGE, REACH - PAGE, 0 - PAGE,
                                       0 - 5 * PAGE, 0 - 0x12345 * PAGE, 0 - REACH}) {
    for (const std::uint64_t in_page : {0, 1, 8, 0x7fc, 4095}) {
      const std::uint64_t address = page + distance + in_page;
      const std::vector<std::uint32_t> code = address_loaded(place, 17, address);
      EXPECT_EQ(code.size(), in_page != 0 ? 2u : 1u);
      EXPECT_EQ(run_page_words(code, place, 17), address);
    }
  }
}

TEST(a64_load_address, beyond_the_reach_is_a_constant) {
  std::uint32_t place[5] = {};
  const std::uint64_t page = address_of(place) & ~(PAGE - 1);
  for (const std::uint64_t address : {page + REACH, page + REACH + 5, page - REACH - 1, std::uint64_t{0} - PAGE}) {
    const std::vector<std::uint32_t> code = address_loaded(place, 5, address);
    EXPECT_EQ(code, loaded(5, address));
    EXPECT_EQ(run_moves(code, 5), address);
  }
}

TEST(a64_load_address, into_xzr_is_a_constant_since_an_addition_to_that_number_would_change_the_stack_pointer) {
  std::uint32_t place[5] = {};
  EXPECT_EQ(address_loaded(place, 31, address_of(place)), loaded(31, address_of(place)));
}

TEST(a64_push_x0_x1, writes_one_stp_and_moves_on) {
  std::uint32_t code[2] = {};
  std::uint32_t* write = code;
  a64_push_x0_x1(&write);
  EXPECT_EQ(write, code + 1);
  EXPECT_EQ(hex(code[0]), "0xa9bf07e0");  // STP x0, x1, [sp, #-16]!
  EXPECT_EQ(code[1], 0u);
}

class a64_branches : public ::testing::Test {
 protected:
  std::uint64_t here(std::int64_t offset) const { return address_of(code + 1) + static_cast<std::uint64_t>(offset); }
  // The word between the two, which must not change.
  std::string word() const {
    EXPECT_EQ(code[0], 0x11111111u);
    EXPECT_EQ(code[2], 0x33333333u);
    return hex(code[1]);
  }
  std::uint32_t code[3] = {0x11111111, 0x22222222, 0x33333333};
};

TEST_F(a64_branches, b_forwards) {
  a64_branch(code + 1, here(16));
  EXPECT_EQ(word(), "0x14000004");
}

TEST_F(a64_branches, b_backwards) {
  a64_branch(code + 1, here(-4));
  EXPECT_EQ(word(), "0x17ffffff");
}

TEST_F(a64_branches, b_to_itself) {
  a64_branch(code + 1, here(0));
  EXPECT_EQ(word(), "0x14000000");
}

TEST_F(a64_branches, b_at_both_limits) {
  a64_b_to(code + 1, here(0x7fffffc), 0);
  EXPECT_EQ(word(), "0x15ffffff");
  a64_b_to(code + 1, here(-0x8000000), 0);
  EXPECT_EQ(word(), "0x16000000");
}

TEST_F(a64_branches, b_out_of_reach_is_cut_and_not_refused) {
  a64_b_to(code + 1, here(0x8000000), 0);
  EXPECT_EQ(word(), "0x16000000");
}

TEST_F(a64_branches, bl_sets_the_link_bit) {
  a64_bl(code + 1, here(8));
  EXPECT_EQ(word(), "0x94000002");
  a64_b_to(code + 1, here(-8), 1);
  EXPECT_EQ(word(), "0x97fffffe");
}

TEST_F(a64_branches, b_cond_forwards_and_backwards) {
  a64_b_cond_to(code + 1, here(8), 0);
  EXPECT_EQ(word(), "0x54000040");  // B.EQ .+8
  a64_b_cond_to(code + 1, here(-0x100000), 11);
  EXPECT_EQ(word(), "0x5480000b");  // B.LT .-0x100000
}

TEST_F(a64_branches, cbz_and_cbnz_of_either_width) {
  EXPECT_EQ(a64_cbz_to(code + 1, 0, here(64), 0, 3), 0);
  EXPECT_EQ(word(), "0x34000203");  // CBZ w3, .+64
  EXPECT_EQ(a64_cbz_helper(code + 1, here(-4), 1, 31), 0);
  EXPECT_EQ(word(), "0xb4ffffff");  // CBZ xzr, .-4
  EXPECT_EQ(a64_cbnz_helper(code + 1, here(-0x100000), 1, 0), 0);
  EXPECT_EQ(word(), "0xb5800000");  // CBNZ x0, .-0x100000
  EXPECT_EQ(a64_cbz_to(code + 1, 1, here(0xffffc), 0, 30), 0);
  EXPECT_EQ(word(), "0x357ffffe");  // CBNZ w30, .+0xffffc
}

TEST_F(a64_branches, cbz_to_an_unaligned_target_writes_nothing_and_returns_minus_1) {
  for (const int offset : {1, 2, 3, -1, -2, -3}) {
    EXPECT_EQ(a64_cbz_to(code + 1, 0, here(offset), 1, 0), -1) << offset;
    EXPECT_EQ(a64_cbz_helper(code + 1, here(offset), 1, 0), -1) << offset;
    EXPECT_EQ(a64_cbnz_helper(code + 1, here(offset), 1, 0), -1) << offset;
    EXPECT_EQ(word(), "0x22222222") << offset;
  }
}

TEST_F(a64_branches, tbz_splits_each_bit_number) {
  for (std::uint32_t bit = 0; bit < 64; ++bit) {
    for (std::uint32_t op = 0; op < 2; ++op) {
      a64_tbz_to(code + 1, op, here(8), 17, bit);
      // TBZ x17, #bit, .+8
      EXPECT_EQ(word(), hex(0x36000051 | op << 24 | (bit & 0x1f) << 19 | (bit >> 5) << 31)) << "bit " << bit;
    }
  }
}

TEST_F(a64_branches, tbz_at_both_limits) {
  a64_tbz_to(code + 1, 0, here(-0x8000), 0, 63);
  EXPECT_EQ(word(), "0xb6fc0000");  // TBZ x0, #63, .-0x8000
  a64_tbz_to(code + 1, 1, here(0x7ffc), 17, 32);
  EXPECT_EQ(word(), "0xb703fff1");  // TBNZ x17, #32, .+0x7ffc
}

// The words come from an assembler.
struct authenticated_row {
  std::uint32_t word;
  a64_authenticated_branch branch;
};

void PrintTo(const authenticated_row& row, std::ostream* out) { *out << hex(row.word); }

class a64_authenticated_branches : public testing::TestWithParam<authenticated_row> {};

TEST_P(a64_authenticated_branches, are_told_with_all_that_they_name) {
  a64_authenticated_branch branch{};
  ASSERT_TRUE(a64_authenticated_branch_decode(GetParam().word, &branch));
  const a64_authenticated_branch& expected = GetParam().branch;
  EXPECT_EQ(branch.link, expected.link);
  EXPECT_EQ(branch.key, expected.key);
  EXPECT_EQ(branch.zero_modifier, expected.zero_modifier);
  EXPECT_EQ(branch.target, expected.target);
  EXPECT_TRUE(expected.zero_modifier == 1 || branch.modifier == expected.modifier);
}

INSTANTIATE_TEST_SUITE_P(words, a64_authenticated_branches,
                         testing::Values(authenticated_row{0xd71f0865, {0, 0, 0, 5, 3}},     // braa x3, x5
                                         authenticated_row{0xd71f087f, {0, 0, 0, 31, 3}},    // braa x3, sp
                                         authenticated_row{0xd71f0c65, {0, 1, 0, 5, 3}},     // brab x3, x5
                                         authenticated_row{0xd73f0865, {1, 0, 0, 5, 3}},     // blraa x3, x5
                                         authenticated_row{0xd73f0c65, {1, 1, 0, 5, 3}},     // blrab x3, x5
                                         authenticated_row{0xd61f087f, {0, 0, 1, 0, 3}},     // braaz x3
                                         authenticated_row{0xd61f0c7f, {0, 1, 1, 0, 3}},     // brabz x3
                                         authenticated_row{0xd63f087f, {1, 0, 1, 0, 3}},     // blraaz x3
                                         authenticated_row{0xd63f0c7f, {1, 1, 1, 0, 3}},     // blrabz x3
                                         authenticated_row{0xd65f0bff, {0, 0, 0, 31, 30}},   // retaa
                                         authenticated_row{0xd65f0fff, {0, 1, 0, 31, 30}}),  // retab
                         [](const auto& row) { return hex(row.param.word); });

TEST(a64_authenticated_branch, is_no_other_word) {
  a64_authenticated_branch branch{};
  // ret, br x3, blr x3, unallocated beside braaz, retaasppcr x1, eretaa, drps.
  for (const std::uint32_t word :
       {0xd65f03c0, 0xd61f0060, 0xd63f0060, 0xd61f0860, 0xd65f0be1, 0xd69f0bff, 0xd6bf03e0}) {
    EXPECT_FALSE(a64_authenticated_branch_decode(word, &branch)) << hex(word);
  }
}

TEST(a64_authenticate, writes_the_four_forms) {
  std::uint32_t words[4] = {};
  a64_authenticate(words, 0, 0, 2, 1);
  a64_authenticate(words + 1, 1, 0, 2, 1);
  a64_authenticate(words + 2, 0, 1, 0, 1);
  a64_authenticate(words + 3, 1, 1, 0, 1);
  EXPECT_THAT(words, testing::ElementsAre(0xdac11041, 0xdac11441, 0xdac133e1, 0xdac137e1));
}

}  // namespace
}  // namespace ceilmeter
