// Conditional branches: their words both ways, which way they go, their inverses, and how a record holds them.
#include "bi/code/exit_branch.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "../a64/encoding_rows.h"
#include "bi/code/code_words.h"

namespace ceilmeter::test {

namespace {

std::vector<std::uint64_t> edge_values() {
  std::vector<std::uint64_t> values = {0,
                                       ~std::uint64_t{0},
                                       62,
                                       63,
                                       64,
                                       65,
                                       127,
                                       128,
                                       255,
                                       256,
                                       0x7fff,
                                       0x8000,
                                       0xffff,
                                       0x7fffffff,
                                       0xffffffff,
                                       0x7fffffffffffffff,
                                       0xffffffffffffffc0};
  for (int bit = 0; bit < 64; ++bit) values.push_back(std::uint64_t{1} << bit);
  for (int bit = 0; bit < 64; ++bit) values.push_back(~(std::uint64_t{1} << bit));
  return values;
}

// Every form without its registers and immediates.
std::vector<exit_branch> compare_forms() {
  std::vector<exit_branch> forms;
  for (const std::uint32_t condition : {COMPARE_GT, COMPARE_GE, COMPARE_HI, COMPARE_HS, COMPARE_EQ, COMPARE_NE}) {
    for (const std::uint32_t width : {8, 16, 32, 64}) {
      forms.push_back({.kind = EXIT_COMPARE, .condition = condition, .reg = 3, .width = width, .operand = 4});
    }
  }
  for (const std::uint32_t condition : {COMPARE_GT, COMPARE_LT, COMPARE_HI, COMPARE_LO, COMPARE_EQ, COMPARE_NE}) {
    for (const std::uint32_t width : {32, 64}) {
      for (std::uint32_t value = 0; value < 64; ++value) {
        forms.push_back({.kind = EXIT_COMPARE,
                         .condition = condition,
                         .reg = 3,
                         .width = width,
                         .operand = value,
                         .is_immediate = 1});
      }
    }
  }
  return forms;
}

std::vector<exit_branch> other_forms() {
  std::vector<exit_branch> forms;
  for (std::uint32_t condition = 0; condition < 16; ++condition) {
    forms.push_back({.kind = EXIT_B_COND, .condition = condition});
  }
  for (std::uint32_t sense = 0; sense < 2; ++sense) {
    for (const std::uint32_t reg : {0, 31}) {
      for (const std::uint32_t width : {32, 64}) {
        forms.push_back({.kind = EXIT_CBZ, .condition = sense, .reg = reg, .width = width});
      }
      for (std::uint32_t bit = 0; bit < 64; ++bit) {
        forms.push_back({.kind = EXIT_TBZ, .condition = sense, .reg = reg, .bit = bit});
      }
    }
  }
  return forms;
}

std::vector<exit_branch> all_forms() {
  std::vector<exit_branch> forms = other_forms();
  const std::vector<exit_branch> more = compare_forms();
  forms.insert(forms.end(), more.begin(), more.end());
  return forms;
}

std::string told(const exit_branch& branch) {
  return "kind " + std::to_string(branch.kind) + ", condition " + std::to_string(branch.condition) + ", register " +
         std::to_string(branch.reg) + ", width " + std::to_string(branch.width) + ", bit " +
         std::to_string(branch.bit) + ", operand " + std::to_string(branch.operand) + ", immediate " +
         std::to_string(branch.is_immediate);
}

// What the encoding table says of a compare-and-branch word, by the name of its row: CBGT_32_imm, CBBHS_8_regs.
exit_branch by_name(const std::string& name, std::uint32_t word) {
  static const std::map<std::string, std::uint32_t> conditions = {
      {"GT", COMPARE_GT}, {"GE", COMPARE_GE}, {"HI", COMPARE_HI}, {"HS", COMPARE_HS},
      {"LT", COMPARE_LT}, {"LO", COMPARE_LO}, {"EQ", COMPARE_EQ}, {"NE", COMPARE_NE}};
  const std::size_t end = name.find('_');
  exit_branch branch = {.kind = EXIT_COMPARE, .condition = conditions.at(name.substr(end - 2, 2)), .reg = word & 0x1f};
  branch.width = static_cast<std::uint32_t>(std::stoul(name.substr(end + 1)));
  branch.is_immediate = name.find("_imm") != std::string::npos ? 1 : 0;
  branch.operand = branch.is_immediate != 0 ? word >> 15 & 0x3f : word >> 16 & 0x1f;
  return branch;
}

bool is_compare_row(const std::string& name) {
  return name.rfind("CB", 0) == 0 && name.find("compbranch") == std::string::npos && name.rfind("CBZ", 0) != 0 &&
         (name.find("_imm") != std::string::npos || name.find("_regs") != std::string::npos);
}

// The processor's own decision: the branch with register 0 tested, or the flags.
class processor {
 public:
  processor()
      : code(static_cast<std::uint32_t*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {}
  ~processor() { munmap(code, 4096); }
  processor(const processor&) = delete;
  processor& operator=(const processor&) = delete;

  void load(const exit_branch& branch) {
    code[0] = 0xd51b4201;  // msr nzcv, x1
    encode_exit_branch(code + 1, branch, address_of(code + 4));
    code[2] = 0x52800000;  // mov w0, #0
    code[3] = 0xd65f03c0;  // ret
    code[4] = 0x52800020;  // mov w0, #1
    code[5] = 0xd65f03c0;  // ret
    clear_instruction_cache(code, code + 6);
  }
  bool takes(std::uint64_t value, std::uint64_t flags) const {
    int (*function)(std::uint64_t, std::uint64_t) = nullptr;
    std::memcpy(&function, &code, sizeof function);
    return function(value, flags) != 0;
  }

 private:
  std::uint32_t* code;
};

TEST(exit_branches, the_words_of_every_compare_and_branch_row_are_read_as_the_row_says_and_written_again) {
  std::mt19937 random(20241);
  int rows = 0;
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    const encoding_row& row = encoding_rows[index];
    if (!is_compare_row(row.name)) continue;
    ++rows;
    for (int round = 0; round < 2000; ++round) {
      const std::uint32_t word = row.value | (static_cast<std::uint32_t>(random()) & ~row.mask);
      exit_branch found{};
      ASSERT_TRUE(decode_exit_branch(word, &found)) << row.name << std::hex << word;
      ASSERT_EQ(found, by_name(row.name, word)) << row.name << " 0x" << std::hex << word << ": " << told(found);
      std::uint32_t written = 0;
      encode_exit_branch(&written, found, branch_destination(word, &written));
      ASSERT_EQ(written, word) << row.name;
    }
  }
  EXPECT_EQ(rows, 36);
}

TEST(exit_branches, no_other_row_of_the_encoding_table_is_a_conditional_branch_but_those_of_three_classes) {
  std::mt19937 random(20242);
  for (std::size_t index = 0; index < encoding_row_count; ++index) {
    const encoding_row& row = encoding_rows[index];
    const bool has_class = row.instruction == A64_B_COND || row.instruction == A64_CBZ || row.instruction == A64_TBZ;
    for (int round = 0; round < 20; ++round) {
      const std::uint32_t word = row.value | (static_cast<std::uint32_t>(random()) & ~row.mask);
      exit_branch found{};
      EXPECT_EQ(decode_exit_branch(word, &found), has_class || is_compare_row(row.name))
          << row.name << std::hex << word;
    }
  }
}

TEST(exit_branches, words_that_the_architecture_leaves_free_beside_compare_and_branch_are_none) {
  exit_branch found{};
  for (const std::uint32_t word : {0x74800000U, 0x74a00000U,                            // Conditions 4 and 5.
                                   0x75800000U, 0x75a00000U, 0x74004000U, 0xf4004000U,  // Size 1.
                                   0xf4008000U, 0xf400c000U,     // A byte and a halfword of 64 bits.
                                   0x75004000U, 0xf5004000U}) {  // Bit 14 behind an immediate.
    EXPECT_FALSE(decode_exit_branch(word, &found)) << std::hex << word;
  }
  EXPECT_EQ(found, exit_branch{});
}

TEST(exit_branches, every_form_is_read_as_it_was_written_wherever_it_leads) {
  std::uint32_t place[1];
  for (const exit_branch& branch : all_forms()) {
    encode_exit_branch(place, branch, address_of(place));
    const int width = find_branch_offset(*place).width;
    ASSERT_EQ(width, branch.kind == EXIT_TBZ ? 14 : branch.kind == EXIT_COMPARE ? 9 : 19) << told(branch);
    const std::int64_t furthest = std::int64_t{1} << (width + 1);
    for (const std::int64_t offset : {-furthest, std::int64_t{-4}, std::int64_t{0}, std::int64_t{8}, furthest - 4}) {
      const std::uint64_t to = address_of(place) + static_cast<std::uint64_t>(offset);
      encode_exit_branch(place, branch, to);
      exit_branch found{};
      ASSERT_TRUE(decode_exit_branch(*place, &found)) << told(branch);
      EXPECT_EQ(found, branch) << told(branch) << " is read as " << told(found);
      EXPECT_EQ(branch_destination(*place, place), to) << told(branch);
      EXPECT_EQ(redirected_branch(*place, place, address_of(place)), *place & ~(((1U << width) - 1) << 5))
          << told(branch);
    }
  }
}

TEST(exit_branches, a_direct_branch_has_26_bits_of_offset) {
  std::uint32_t place[1] = {0x94000000};  // bl
  for (const std::int64_t offset : {-0x8000000L, -4L, 0L, 0x7fffffcL}) {
    const std::uint64_t to = address_of(place) + static_cast<std::uint64_t>(offset);
    EXPECT_EQ(branch_destination(redirected_branch(*place, place, to), place), to);
  }
  EXPECT_EQ(redirected_branch(0x97ffffff, place, address_of(place)), 0x94000000u);
  EXPECT_EQ(find_branch_offset(0xd65f03c0).width, 0);
}

TEST(exit_branches, b_cond_cbz_and_tbz_go_the_way_that_the_processor_goes) {
  processor here;
  for (const exit_branch& branch : other_forms()) {
    here.load(branch);
    std::uint64_t registers[31] = {};
    if (branch.kind == EXIT_B_COND) {
      for (std::uint64_t flags = 0; flags < 16; ++flags) {
        EXPECT_EQ(is_taken(branch, registers, flags << 28 | 0x0ffffff), here.takes(0, flags << 28))
            << told(branch) << ", flags " << flags;
      }
      continue;
    }
    for (const std::uint64_t value : edge_values()) {
      registers[0] = value;
      EXPECT_EQ(is_taken(branch, registers, 0), here.takes(value, 0))
          << told(branch) << ", value 0x" << std::hex << value;
    }
  }
}

template <typename unsigned_type, typename signed_type>
bool compared(std::uint32_t condition, std::uint64_t first, std::uint64_t second) {
  const auto left = static_cast<unsigned_type>(first);
  const auto right = static_cast<unsigned_type>(second);
  switch (condition) {
    case COMPARE_GT: return static_cast<signed_type>(left) > static_cast<signed_type>(right);
    case COMPARE_GE: return static_cast<signed_type>(left) >= static_cast<signed_type>(right);
    case COMPARE_LT: return static_cast<signed_type>(left) < static_cast<signed_type>(right);
    case COMPARE_HI: return left > right;
    case COMPARE_HS: return left >= right;
    case COMPARE_LO: return left < right;
    case COMPARE_EQ: return left == right;
    default: return left != right;
  }
}

TEST(exit_branches, compare_and_branch_goes_the_way_of_the_comparison_of_its_width) {
  const std::vector<std::uint64_t> values = edge_values();
  for (const exit_branch& branch : compare_forms()) {
    const auto expected = branch.width == 8    ? compared<std::uint8_t, std::int8_t>
                          : branch.width == 16 ? compared<std::uint16_t, std::int16_t>
                          : branch.width == 32 ? compared<std::uint32_t, std::int32_t>
                                               : compared<std::uint64_t, std::int64_t>;
    std::uint64_t registers[31] = {};
    for (const std::uint64_t value : values) {
      registers[3] = value;
      for (const std::uint64_t other : values) {
        registers[4] = other;
        const std::uint64_t second = branch.is_immediate != 0 ? branch.operand : other;
        ASSERT_EQ(is_taken(branch, registers, 0), expected(branch.condition, value, second))
            << told(branch) << std::hex << ", 0x" << value << " and 0x" << second;
        if (branch.is_immediate != 0) break;
      }
    }
  }
}

TEST(exit_branches, register_31_of_a_comparison_is_zero) {
  std::uint64_t registers[31];
  for (std::uint64_t& value : registers) value = 7;
  const exit_branch is_zero = {
      .kind = EXIT_COMPARE, .condition = COMPARE_EQ, .reg = 31, .width = 64, .operand = 0, .is_immediate = 1};
  const exit_branch above_zero = {.kind = EXIT_COMPARE, .condition = COMPARE_HI, .reg = 3, .width = 8, .operand = 31};
  EXPECT_TRUE(is_taken(is_zero, registers, 0));
  EXPECT_TRUE(is_taken(above_zero, registers, 0));
}

TEST(exit_branches, the_inverse_is_taken_exactly_when_the_branch_is_not) {
  for (const exit_branch& branch : all_forms()) {
    exit_branch inverse = branch;
    const bool always = branch.kind == EXIT_B_COND && branch.condition >= 14;
    const bool has_inverse = branch.kind != EXIT_COMPARE && !always;
    ASSERT_EQ(invert_exit_branch(&inverse), has_inverse) << told(branch);
    EXPECT_EQ(is_invertible(branch), has_inverse);
    if (!has_inverse) {
      EXPECT_EQ(inverse, branch);
      continue;
    }
    std::uint64_t registers[31] = {};
    for (const std::uint64_t value : edge_values()) {
      registers[0] = value;
      EXPECT_NE(is_taken(branch, registers, value << 28), is_taken(inverse, registers, value << 28)) << told(branch);
    }
  }
}

TEST(exit_branches, a_record_gives_back_what_it_was_given) {
  for (const exit_branch& branch : all_forms()) {
    bb_meta meta{};
    pack_exit_branch(branch, &meta);
    EXPECT_EQ(unpack_exit_branch(meta), branch) << told(branch);
    EXPECT_TRUE(is_conditional_exit(meta.exit_kind));
  }
}

TEST(exit_branches, a_record_has_the_size_or_the_bit_above_the_register) {
  bb_meta meta{};
  pack_exit_branch({.kind = EXIT_CBZ, .condition = 1, .reg = 7, .width = 64}, &meta);
  EXPECT_EQ(meta.exit_kind, EXIT_CBZ);
  EXPECT_EQ(meta.exit_condition, 1u);
  EXPECT_EQ(meta.rn, 7u | 1u << 5);
  pack_exit_branch({.kind = EXIT_CBZ, .reg = 7, .width = 32}, &meta);
  EXPECT_EQ(meta.rn, 7u);
  pack_exit_branch({.kind = EXIT_TBZ, .reg = 7, .bit = 45}, &meta);
  EXPECT_EQ(meta.rn, 7u | 13u << 5 | 1u << 10);
}

TEST(exit_branches_death, a_kind_that_is_no_conditional_branch_is_not_written) {
  std::uint32_t place = 0;
  EXPECT_DEATH(encode_exit_branch(&place, {.kind = EXIT_REGISTER}, address_of(&place)), "no conditional branch: 4");
}

}  // namespace
}  // namespace ceilmeter::test
