#include "view/frame.h"

#include <gtest/gtest.h>

#include <ostream>

#include "hand_made.h"
#include "view/compare.h"

namespace ceilmeter::view {

void PrintTo(const frame& one, std::ostream* out) { *out << one.x0 << ":" << one.x1 << "," << one.y0 << ":" << one.y1; }

namespace {

constexpr frame base = {-2, 1, -1, 3};

TEST(frame, is_made_of_the_roofs_in_whole_decades) {
  // x: floor(lg(48 / 360) - 1) = floor(-1.88), ceil(lg(96 / 40) + 0.5) = ceil(0.88);
  // y: floor(lg 40) - 2, ceil(lg 115.2).
  EXPECT_EQ(frame_of_roofs({360, 280, 160, 40}, {48, 96}), base);
}

TEST(frame, powers_of_ten_stand_at_their_own_decade) {
  // lg(1000 / 100) - 1 = 0; lg(1000 / 100) + 0.5; lg 100 + 0; lg 1200.
  EXPECT_EQ(frame_of_roofs({100}, {1000}), (frame{0, 2, 2, 4}));
}

TEST(frame, one_kind_of_roofs_stands_for_the_other) {
  EXPECT_EQ(frame_of_roofs({10, 100}, {}), (frame{-2, 2, -1, 3}));
  EXPECT_EQ(frame_of_roofs({}, {50}), (frame{-1, 1, 0, 2}));
}

TEST(frame, points_widen_it_by_whole_decades) {
  EXPECT_EQ(widen(base, {{0.5, 1}}), base);
  EXPECT_EQ(widen(base, {{-2.1, 1}, {1.7, 3.2}, {0, -1.5}}), (frame{-3, 2, -2, 4}));
}

TEST(frame, point_on_the_edge_gets_the_next_decade) { EXPECT_EQ(widen(base, {{-2, 3}}), (frame{-3, 1, -1, 4})); }

TEST(frame, points_widen_it_by_three_decades_at_most) {
  EXPECT_EQ(widen(base, {{-40, -40}, {40, 40}}), (frame{-5, 4, -4, 6}));
}

TEST(frame, point_without_bytes_widens_only_upwards_and_downwards) {
  EXPECT_EQ(widen(base, {{std::nullopt, 3.5}}), (frame{-2, 1, -1, 4}));
}

TEST(frame, option_is_read_strictly) {
  EXPECT_EQ(parse_frame("-2:1,-1:3"), base);
  for (const char* bad : {"", "-2:1", "-2:1,-1", "1:1,0:1", "2:1,0:1", "a:1,0:1", "-2:1,-1:3x", "-2:1,-1:31",
                          "-31:0,0:1", " 0:1,0:1", "0:1,0:1,", "0:1.5,0:1", "99999999999:1,0:1"}) {
    EXPECT_EQ(parse_frame(bad), std::nullopt) << bad;
  }
}

TEST(frame, compared_files_share_one_that_holds_both) {
  const result_file before = file_of({made("r", 8, 10, 1, {9, 3, 2, 1})}, {machine(1)}, 1);
  const result_file after = file_of({made("r", 8, 10, 64, {9, 3, 2, 1})}, {machine(64)}, 64);
  const frame first = build_view({before}, {}).axes;
  const frame second = build_view({after}, {}).axes;
  view_options options;
  options.mode = view_mode::baseline;
  const frame both = build_view({before, after}, options).axes;
  EXPECT_LE(both.x0, std::min(first.x0, second.x0));
  EXPECT_GE(both.x1, std::max(first.x1, second.x1));
  EXPECT_LE(both.y0, std::min(first.y0, second.y0));
  EXPECT_GE(both.y1, std::max(first.y1, second.y1));
}

TEST(frame, option_fixes_it_whatever_the_file_holds) {
  view_options options;
  options.fixed_frame = frame{-1, 0, 0, 1};
  EXPECT_EQ(build_view({committed("all_phases")}, options).axes, (frame{-1, 0, 0, 1}));
}

TEST(frame, without_roofs_the_points_make_it) {
  const view_model model = build_view({file_of({made("r", 800, 10, 1, {80, 40, 20, 10})}, {}, 1)}, {});
  // P is 80 GFLOP/s, the intensities go from 10 to 80.
  EXPECT_EQ(model.axes, (frame{1, 2, 1, 2}));
}

}  // namespace
}  // namespace ceilmeter::view
