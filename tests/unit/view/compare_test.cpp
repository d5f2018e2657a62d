#include "view/compare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "hand_made.h"

namespace ceilmeter::view {
namespace {

using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

view_model compared(const result_file& before, const result_file& after) {
  view_options options;
  options.mode = view_mode::baseline;
  return build_view({before, after}, options);
}

view_model ranked(std::vector<result_file> ranks) {
  view_options options;
  options.mode = view_mode::ranks;
  return build_view(std::move(ranks), options);
}

result_file rank_file(const std::string& label, std::vector<region> regions) {
  result_file file = file_of(std::move(regions), {machine(4), machine(12)}, 4);
  file.label = label;
  return file;
}

TEST(compare, one_file_is_single_and_several_are_an_overlay) {
  const result_file file = committed("all_phases");
  EXPECT_EQ(build_view({file}, {}).options.mode, view_mode::single);
  EXPECT_EQ(build_view({file, file}, {}).options.mode, view_mode::overlay);
}

TEST(baseline, ratios_are_after_over_before) {
  const view_model model = compared(file_of({made("r", 8000, 2000, 4, {800, 400, 200, 4000})}, {machine(4)}, 4),
                                    file_of({made("r", 8000, 1000, 4, {800, 400, 200, 1000})}, {machine(4)}, 4));
  ASSERT_EQ(model.baseline->pairs.size(), 1U);
  const region_pair& pair = model.baseline->pairs[0];
  EXPECT_THAT(pair.time_ratio, Optional(0.5));
  EXPECT_THAT(pair.performance_ratio, Optional(2.0));
  EXPECT_THAT(pair.intensity_ratio[3], Optional(4.0));
  EXPECT_THAT(pair.intensity_ratio[0], Optional(1.0));
  // 4000 B at 40 GB/s are 100 of 2000 ns; 8000 operations at 96 GFLOPS 83.3 of 1000 ns.
  EXPECT_THAT(pair.reached_before, Optional(DoubleNear(0.05, 1e-12)));
  EXPECT_THAT(pair.reached_after, Optional(DoubleNear(1 / 12.0, 1e-12)));
  EXPECT_TRUE(pair.remarks.empty());
}

TEST(baseline, operations_that_differ_by_more_than_a_hundredth_say_that_the_work_changed) {
  const auto remarks = [](std::int64_t after) {
    return compared(file_of({made("r", 10000, 1, 1, {1, 1, 1, 1})}, {}, 1),
                    file_of({made("r", after, 1, 1, {1, 1, 1, 1})}, {}, 1))
        .baseline->pairs[0]
        .remarks;
  };
  EXPECT_TRUE(remarks(10100).empty());
  ASSERT_EQ(remarks(10102).size(), 1U);
  EXPECT_THAT(remarks(10102)[0].text, HasSubstr("The work changed: 10000 operations before, 10102 after"));
  EXPECT_EQ(remarks(9898).size(), 1U);
}

TEST(baseline, regions_without_a_partner_are_kept_and_told) {
  const view_model model =
      compared(file_of({made("a", 8, 1, 1, {1, 1, 1, 1}), made("b", 8, 1, 1, {1, 1, 1, 1})}, {}, 1),
               file_of({made("b", 8, 1, 1, {1, 1, 1, 1}), made("c", 8, 1, 1, {1, 1, 1, 1})}, {}, 1));
  const auto& pairs = model.baseline->pairs;
  ASSERT_EQ(pairs.size(), 3U);
  EXPECT_THAT(pairs[0].before, Optional(1U));
  EXPECT_EQ(pairs[1].name, "c");
  EXPECT_EQ(pairs[1].before, std::nullopt);
  EXPECT_EQ(pairs[2].name, "a");
  EXPECT_EQ(pairs[2].after, std::nullopt);
  EXPECT_THAT(pairs[2].remarks[0].text, HasSubstr("Only in made, the file before"));
}

TEST(baseline, roofs_that_differ_by_more_than_three_hundredths_are_listed) {
  const view_model model = compared(file_of({}, {{4, {memory_roof("L1", 100), memory_roof("DDR", 100)}}}, 4),
                                    file_of({}, {{4, {memory_roof("L1", 103), memory_roof("DDR", 104)}}}, 4));
  ASSERT_EQ(model.baseline->roofs.size(), 1U);
  EXPECT_EQ(model.baseline->roofs[0].name, "DDR");
  EXPECT_EQ(model.baseline->roofs[0].after, 104);
}

TEST(ranks, operations_and_bytes_are_added_and_time_is_the_longest) {
  const view_model model = ranked({rank_file("r0", {made("a", 1000, 50, 4, {1, 2, 3, 4})}),
                                   rank_file("r1", {made("a", 2000, 80, 4, {10, 20, 30, 40})}),
                                   rank_file("r2", {made("a", 3000, 60, 4, {100, 200, 300, 400})})});
  ASSERT_EQ(model.files.size(), 4U);
  const region_figures& sums = model.files[0].regions[0];
  EXPECT_EQ(sums.operations, 6000);
  EXPECT_EQ(sums.time, 80);
  EXPECT_EQ(sums.threads, 12);
  EXPECT_THAT(sums.bytes, ElementsAre(111, 222, 333, 444));
  EXPECT_THAT(sums.roof_threads, Optional(12U)) << "the file has roofs for as many threads as all ranks had together";
  EXPECT_FALSE(sums.blocks_overflow);
  EXPECT_EQ(model.files[0].file.regions[0].blocks.size(), 1U) << "one block of one module, executed by all";
  const rank_region& region = model.ranks->regions[0];
  EXPECT_EQ(region.present, 3U);
  EXPECT_EQ(region.time_shortest, 50);
  EXPECT_THAT(region.spread, Optional(0.375));
  EXPECT_THAT(region.slowest, ElementsAre(1U, 2U, 0U));
  EXPECT_THAT(region.ranks[2].of_longest, Optional(0.75));
}

TEST(ranks, region_of_some_ranks_says_of_how_many) {
  const view_model model = ranked({rank_file("r0", {made("a", 8, 5, 1, {1, 1, 1, 1})}), rank_file("r1", {}),
                                   rank_file("r2", {made("a", 8, 5, 1, {1, 1, 1, 1})})});
  const rank_region& region = model.ranks->regions[0];
  EXPECT_EQ(region.present, 2U);
  EXPECT_FALSE(region.ranks[1].present);
  ASSERT_EQ(region.remarks.size(), 1U);
  EXPECT_EQ(region.remarks[0].text, "The region is in 2 of 3 ranks.");
}

TEST(ranks, sum_beyond_64_bits_is_told_and_not_shown) {
  const view_model model = ranked({rank_file("r0", {made("a", INT64_MAX, 5, 1, {1, 1, 1, 1})}),
                                   rank_file("r1", {made("a", INT64_MAX, 5, 1, {1, 1, 1, 1})})});
  EXPECT_EQ(model.files[0].regions[0].state, region_state::overflow);
  EXPECT_EQ(model.ranks->regions[0].operations, std::nullopt);
  EXPECT_THAT(model.ranks->regions[0].remarks[0].text, HasSubstr("exceeds 64 bits"));
}

TEST(ranks, sums_are_held_against_no_roofs_of_fewer_threads) {
  const view_model model = ranked(
      {rank_file("r0", {made("a", 8, 5, 4, {1, 1, 1, 1})}), rank_file("r1", {made("a", 8, 5, 4, {1, 1, 1, 1})})});
  EXPECT_FALSE(model.files[0].regions[0].limit);
  EXPECT_TRUE(model.files[1].regions[0].limit);
}

TEST(ranks, memory_of_a_node_is_told_to_be_shared) {
  const view_model model = ranked({rank_file("r0", {}), rank_file("r1", {})});
  ASSERT_GE(model.ranks->remarks.size(), 2U);
  EXPECT_THAT(model.ranks->remarks[1].text, HasSubstr("Ranks of one node share its memory"));
}

}  // namespace
}  // namespace ceilmeter::view
