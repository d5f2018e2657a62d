#include "view/formulas.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "hand_made.h"
#include "view/text.h"

namespace ceilmeter::view {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

region_figures derived(const region& source, std::vector<roof_set> roofs = {machine(1), machine(4)},
                       std::int64_t threads = 4) {
  return derive(file_of({source}, std::move(roofs), threads), {}).regions[0];
}

bool has_remark(const region_figures& figures, remark_kind kind) {
  return std::any_of(figures.remarks.begin(), figures.remarks.end(),
                     [kind](const remark& one) { return one.kind == kind; });
}

// What the row of the table says: "limited by" with its value, "reached" with three digits.
std::string limit_of(const region_figures& figures) {
  if (!figures.limit || !figures.reached) return "-";
  return figures.limit->roof + " " + number(100 * *figures.reached, 3);
}

TEST(formulas, figures_of_the_committed_file_are_those_of_its_table) {
  const file_view view = derive(committed("all_phases"), {});
  ASSERT_EQ(view.regions.size(), 3U) << view.file.path;
  // 64e6 B / 90 GB/s = 0.711 ms is the longest of the five times; 0.711 / 20 ms = 3.56 %.
  EXPECT_EQ(limit_of(view.regions[0]), "L1 3.56");
  EXPECT_DOUBLE_EQ(*view.regions[0].performance, 0.2);
  EXPECT_DOUBLE_EQ(*view.regions[0].intensity[3], 4);
  // 16e9 B / 40 GB/s = 0.4 s of 0.5 s.
  EXPECT_EQ(limit_of(view.regions[1]), "DDR 80");
  EXPECT_DOUBLE_EQ(*view.regions[1].performance, 19.2);
  // 4e11 operations of four elements at 192 GFLOPS: 2.083 s of 2.5 s. Roofs of 3 threads were not measured.
  EXPECT_EQ(limit_of(view.regions[2]), "f32x4-FMLA/FMLS 83.3");
  EXPECT_THAT(view.regions[2].roof_threads, Optional(4U));
  EXPECT_TRUE(has_remark(view.regions[2], remark_kind::roofs_of_other_count));
}

TEST(formulas, other_committed_files_have_no_limit) {
  for (const char* name : {"counters_only", "tracer_only", "emulated"}) {
    const file_view view = derive(committed(name), {});
    ASSERT_EQ(view.regions.size(), 1U) << name << view.file.path;
    EXPECT_FALSE(view.regions[0].limit) << name;
  }
}

TEST(formulas, rates_intensities_and_bandwidths) {
  const region_figures figures = derived(made("r", 8000, 1000, 4, {64000, 16000, 4000, 1000}));
  EXPECT_EQ(figures.state, region_state::complete);
  EXPECT_EQ(figures.missing, "");
  EXPECT_DOUBLE_EQ(*figures.performance, 8);
  EXPECT_THAT(figures.intensity, ElementsAre(Optional(0.125), Optional(0.5), Optional(2.0), Optional(8.0)));
  EXPECT_THAT(figures.bandwidth, ElementsAre(Optional(64.0), Optional(16.0), Optional(4.0), Optional(1.0)));
}

TEST(formulas, limit_is_the_longest_of_the_shortest_times) {
  // 4 threads: L1 360, L2 280, L3 160, DDR 40 GB/s, f64x2-FMLA 96 GFLOPS.
  const region_figures figures = derived(made("r", 9600, 1000, 4, {36000, 28000, 16000, 20000}));
  ASSERT_EQ(figures.bounds.size(), 5U);
  const std::vector<double> nanoseconds = {100, 100, 100, 500, 100};
  for (std::size_t at = 0; at < 5; ++at) EXPECT_NEAR(figures.bounds[at].seconds * 1e9, nanoseconds[at], 1e-9);
  EXPECT_EQ(limit_of(figures), "DDR 50");
  EXPECT_TRUE(figures.bounds[4].is_compute);
}

TEST(formulas, level_of_no_bytes_or_no_roof_has_no_say) {
  roof_set roofs{4, {memory_roof("L1", 2), memory_roof("L2", 1), memory_roof("DDR", 0)}};
  const region_figures figures = derived(made("r", 0, 1000, 4, {10, 0, 0, 10}), {roofs});
  ASSERT_TRUE(figures.limit);
  EXPECT_EQ(figures.limit->roof, "L1");
  EXPECT_DOUBLE_EQ(figures.limit->seconds, 5e-9);
  EXPECT_TRUE(has_remark(figures, remark_kind::level_not_counted));
  EXPECT_TRUE(has_remark(figures, remark_kind::roof_not_measured));
  EXPECT_FALSE(derived(made("r", 0, 1000, 4, {10, 0, 0, 10}), {{4, {memory_roof("L2", 1)}}}).limit);
}

TEST(formulas, class_is_that_of_most_operations_and_of_equal_shares_the_wider) {
  EXPECT_EQ(main_width({work(2, 100, 1), work(8, 24, 2)}), 1);
  EXPECT_EQ(main_width({work(2, 100, 1), work(8, 25, 2)}), 2);
  EXPECT_EQ(main_width({work(16, 1, 16)}), 8);
  EXPECT_EQ(main_width({work(4, 1, 3)}), 2);
  EXPECT_EQ(main_width({work(0, 5, 2)}), 0);
  EXPECT_EQ(main_width({}), 0);
}

TEST(formulas, scalar_roof_is_the_better_of_the_two) {
  EXPECT_EQ(multiply_add_roof(machine(1), 1)->name, "Scalar(DP)-FMADD");
  EXPECT_EQ(multiply_add_roof({1, {compute_roof("Scalar(SP)-FMADD", 10)}}, 1)->name, "Scalar(SP)-FMADD");
  EXPECT_EQ(multiply_add_roof({1, {compute_roof("f64x2-FMLA/FMLS", 0)}}, 2), nullptr);
}

TEST(formulas, roofs_are_those_of_the_region_s_threads_else_of_the_root_s) {
  EXPECT_THAT(derived(made("r", 8, 1, 1, {1, 1, 1, 1})).roof_threads, Optional(1U));
  EXPECT_THAT(derived(made("r", 8, 1, 3, {1, 1, 1, 1})).roof_threads, Optional(4U));
  EXPECT_FALSE(derived(made("r", 8, 1, 3, {1, 1, 1, 1}), {machine(1)}, 2).roof_threads);
}

TEST(formulas, each_way_to_have_no_point_is_told_apart) {
  const auto state = [](const region& one) { return derived(one).state; };
  EXPECT_EQ(state(made("r", 8, 10, 0, {1, 1, 1, 1})), region_state::not_traced);
  EXPECT_EQ(state(made("r", 0, 10, 1, {1, 1, 1, 1})), region_state::no_operations);
  EXPECT_EQ(state(made("r", 8, 0, 1, {0, 0, 0, 0})), region_state::no_counters);
  EXPECT_EQ(state(made("r", 8, 0, 1, {1, 0, 0, 0})), region_state::no_time);
  EXPECT_EQ(state(made("r", 8, 10, 1, {0, 0, 0, 0})), region_state::no_bytes);
  EXPECT_EQ(state(made("r", -8, 10, 1, {1, 1, 1, 1})), region_state::overflow);
  region bare;
  bare.threads = 2;
  bare.flop = 8;
  EXPECT_EQ(state(bare), region_state::no_counters);
  for (const region& one : {made("r", 8, 10, 0, {1, 1, 1, 1}), made("r", -8, 10, 1, {1, 1, 1, 1}), bare}) {
    EXPECT_NE(derived(one).missing, "");
  }
}

TEST(formulas, region_that_was_not_traced_still_has_bandwidths_and_a_limit_among_them) {
  const region_figures figures = derived(made("r", 0, 1000, 0, {9000, 1000, 1000, 20000}));
  EXPECT_FALSE(figures.operations);
  EXPECT_FALSE(figures.performance);
  EXPECT_DOUBLE_EQ(*figures.bandwidth[3], 20);
  EXPECT_EQ(limit_of(figures), "DDR 50");
}

TEST(formulas, region_more_than_a_twentieth_above_a_roof_gets_a_remark) {
  const auto above = [](std::int64_t bytes) {
    return has_remark(derived(made("r", 8, 1000, 4, {1, 1, 1, bytes})), remark_kind::above_roof);
  };
  EXPECT_FALSE(above(42000));  // 42 of 40 GB/s: 5 %
  EXPECT_TRUE(above(42100));
}

TEST(formulas, sums_beyond_64_bits_are_unknown_and_not_wrapped) {
  EXPECT_EQ(add(INT64_MAX, 1), std::nullopt);
  EXPECT_EQ(add(INT64_MAX, 0), INT64_MAX);
  EXPECT_EQ(add(std::nullopt, 1), std::nullopt);
  EXPECT_EQ(multiply(INT64_MAX, 2), std::nullopt);
  region one = made("r", 8, 10, 1, {1, 1, 1, 1});
  one.blocks = {work(2, INT64_MAX, 4)};
  const region_figures figures = derived(one);
  EXPECT_TRUE(figures.blocks_overflow);
  EXPECT_TRUE(has_remark(figures, remark_kind::sum_differs));
  EXPECT_EQ(figures.limit->roof, "f32x4-FMLA/FMLS") << "the class is still found, the operations are the region's own";
}

TEST(formulas, operations_that_differ_from_the_sum_over_the_blocks_are_told) {
  region one = made("r", 8, 10, 1, {1, 1, 1, 1});
  EXPECT_FALSE(has_remark(derived(one), remark_kind::sum_differs));
  one.flop = 10;
  EXPECT_TRUE(has_remark(derived(one), remark_kind::sum_differs));
}

TEST(formulas, repeated_names_become_different_ones) {
  const region one = made("r", 8, 10, 1, {1, 1, 1, 1});
  region third = one;
  third.name = "r (2)";
  const file_view view = derive(file_of({one, third, one, one}, {}, 1), {});
  std::vector<std::string> names;
  for (const region_figures& figures : view.regions) names.push_back(figures.name);
  EXPECT_THAT(names, ElementsAre("r", "r (2)", "r (3)", "r (4)"));
}

TEST(formulas, file_without_roofs_says_how_to_add_them) {
  const file_view view = derive(file_of({made("r", 8, 10, 1, {1, 1, 1, 1})}, {}, 1), {});
  ASSERT_EQ(view.remarks.size(), 1U);
  EXPECT_THAT(view.remarks[0].text, HasSubstr("ceilmeter --phase=benchmarks -o made.json"));
}

TEST(formulas, thread_count_that_was_asked_for_and_is_not_there_is_told) {
  view_options options;
  options.threads = 3;
  const file_view view = derive(file_of({}, {machine(1), machine(4)}, 4), options);
  EXPECT_THAT(view.drawn_roofs, Optional(1U));
  EXPECT_THAT(view.remarks.back().text, HasSubstr("Roofs of 3 threads are not in this file: those of 4 threads"));
}

}  // namespace
}  // namespace ceilmeter::view
