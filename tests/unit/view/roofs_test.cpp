#include "view/roofs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hand_made.h"

namespace ceilmeter::view {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

std::vector<std::string> drawn_names(const result_file& file) {
  std::vector<std::string> names;
  const std::vector<roof_lines> sets = describe_roofs(file);
  for (const roof_line& line : sets.back().lines) {
    if (line.drawn) names.push_back(line.name + (line.thin ? " thin" : ""));
  }
  return names;
}

result_file with_blocks(std::vector<block> blocks, roof_set roofs = machine(1)) {
  region one = made("r", 0, 1, 1, {1, 1, 1, 1});
  one.blocks = std::move(blocks);
  return file_of({one}, {std::move(roofs)}, 1);
}

TEST(roofs, without_blocks_the_common_multiply_adds_are_drawn) {
  EXPECT_THAT(drawn_names(with_blocks({})),
              ElementsAre("f32x4-FMLA/FMLS", "f64x2-FMLA/FMLS", "Scalar(DP)-FMADD", "L1", "L2", "L3", "DDR"));
}

TEST(roofs, width_of_a_twentieth_of_the_operations_is_drawn_with_its_additions) {
  EXPECT_THAT(drawn_names(with_blocks({work(1, 95, 1), work(1, 5, 4)})),
              ElementsAre("f32x4-FADD/FSUB thin", "f32x4-FMLA/FMLS", "Scalar(DP)-FMADD", "L1", "L2", "L3", "DDR"));
  EXPECT_THAT(drawn_names(with_blocks({work(1, 951, 1), work(1, 49, 4)})),
              ElementsAre("Scalar(DP)-FMADD", "L1", "L2", "L3", "DDR"));
}

TEST(roofs, local_memory_is_drawn_when_it_differs_by_more_than_a_tenth) {
  const auto with_local = [](std::int64_t value) {
    return drawn_names(with_blocks({}, {1, {memory_roof("DDR", 100), memory_roof("DDR Numa-local", value)}}));
  };
  EXPECT_THAT(with_local(110), ElementsAre("DDR"));
  EXPECT_THAT(with_local(111), ElementsAre("DDR", "DDR Numa-local"));
  EXPECT_THAT(with_local(89), ElementsAre("DDR", "DDR Numa-local"));
}

TEST(roofs, roofs_of_unknown_names_are_drawn_where_there_are_no_others) {
  EXPECT_THAT(drawn_names(with_blocks({}, {1, {memory_roof("HBM", 100)}})), ElementsAre("HBM"));
}

TEST(roofs, roof_of_zero_is_not_drawn_and_told) {
  const roof_lines lines = describe_roofs(with_blocks({}, {1, {memory_roof("L1", 0), memory_roof("L2", 5)}})).front();
  EXPECT_FALSE(lines.lines[0].drawn);
  EXPECT_FALSE(lines.lines[0].measured);
  ASSERT_EQ(lines.remarks.size(), 1U);
  EXPECT_THAT(lines.remarks[0].text, HasSubstr("L1 of 1 thread"));
}

TEST(roofs, rows_that_are_measured_once_count_as_scaled_for_larger_counts) {
  const std::vector<roof_lines> sets = describe_roofs(file_of({}, {machine(2), machine(4)}, 4));
  for (const roof_line& line : sets[0].lines) EXPECT_FALSE(line.scaled) << line.name;
  for (const roof_line& line : sets[1].lines) {
    EXPECT_EQ(line.scaled, line.is_compute || line.name == "L1" || line.name == "L2") << line.name;
  }
}

TEST(roofs, levels_that_are_too_near_one_another_get_a_remark) {
  const auto kinds = [](std::int64_t l1, std::int64_t l2, std::int64_t l3, std::int64_t ddr) {
    std::vector<remark_kind> found;
    const roof_set set{1,
                       {memory_roof("L1", l1), memory_roof("L2", l2), memory_roof("L3", l3), memory_roof("DDR", ddr)}};
    const std::vector<roof_lines> described = describe_roofs(with_blocks({}, set));
    for (const remark& one : described.front().remarks) found.push_back(one.kind);
    return found;
  };
  EXPECT_THAT(kinds(100, 89, 50, 44), ElementsAre());
  EXPECT_THAT(kinds(100, 90, 50, 45), ElementsAre(remark_kind::ddr_roof_near_l3, remark_kind::l2_roof_near_l1));
}

TEST(roofs, set_is_the_one_asked_for_else_the_root_s_else_the_largest) {
  const result_file file = file_of({}, {machine(1), machine(2), machine(4)}, 2);
  EXPECT_THAT(choose_roofs(file, 4), Optional(2U));
  EXPECT_THAT(choose_roofs(file, 7), Optional(1U));
  EXPECT_THAT(choose_roofs(file, std::nullopt), Optional(1U));
  EXPECT_THAT(choose_roofs(file_of({}, {machine(1), machine(4)}, 3), std::nullopt), Optional(1U));
  EXPECT_EQ(choose_roofs(file_of({}, {}, 3), std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace ceilmeter::view
