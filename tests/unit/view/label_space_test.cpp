#include "view/label_space.h"

#include <gtest/gtest.h>

#include <cmath>

namespace ceilmeter::view {
namespace {

turned_box box(double x, double y, double half_width, double half_height, double angle) {
  return {{x, y}, half_width, half_height, angle};
}

TEST(label_space, boxes_that_share_an_area_overlap) {
  EXPECT_TRUE(overlap(box(0, 0, 10, 2, 0), box(5, 3, 10, 2, 0)));
  EXPECT_FALSE(overlap(box(0, 0, 10, 2, 0), box(5, 4.1, 10, 2, 0)));
  EXPECT_TRUE(overlap(box(0, 0, 10, 1, 0), box(0, 0, 10, 1, M_PI / 2))) << "a cross: no corner lies in the other";
}

TEST(label_space, turned_boxes_are_parted_where_their_hulls_are_not) {
  const turned_box one = box(0, 0, 20, 2, M_PI / 4);
  EXPECT_FALSE(overlap(one, box(8, -8, 20, 2, M_PI / 4))) << "two parallel labels";
  EXPECT_TRUE(overlap(one, box(2, -2, 20, 2, M_PI / 4)));
}

TEST(label_space, disc_is_measured_to_the_box_s_side_and_corner) {
  EXPECT_TRUE(overlap(box(0, 0, 10, 2, 0), disc{{0, 5}, 3.1}));
  EXPECT_FALSE(overlap(box(0, 0, 10, 2, 0), disc{{0, 5}, 2.9}));
  EXPECT_FALSE(overlap(box(0, 0, 10, 2, 0), disc{{13, 5}, 4.2}));
  EXPECT_TRUE(overlap(box(0, 0, 10, 2, 0), disc{{13, 5}, 4.3}));
}

TEST(label_space, box_of_a_text_stands_over_its_baseline) {
  const turned_box start = box_of_text("mmmm", 10, {100, 50}, text_anchor::start, 0);
  const turned_box end = box_of_text("mmmm", 10, {100, 50}, text_anchor::end, 0);
  EXPECT_DOUBLE_EQ(start.center.x - start.half_width, 100 - label_margin);
  EXPECT_DOUBLE_EQ(end.center.x + end.half_width, 100 + label_margin);
  EXPECT_NEAR(start.center.y + start.half_height, 50 + 2.4 + label_margin, 1e-9);
  EXPECT_NEAR(start.center.y - start.half_height, 50 - 9.3 - label_margin, 1e-9);
}

TEST(label_space, place_must_lie_inside_and_touch_nothing) {
  label_space space(0, 0, 100, 100);
  const turned_box one = box(50, 50, 20, 5, 0);
  EXPECT_TRUE(space.is_free(one));
  EXPECT_FALSE(space.is_free(box(15, 50, 20, 5, 0)));
  space.add_box(one);
  EXPECT_FALSE(space.is_free(one));
  space.add_point({{50, 80}, 5});
  EXPECT_FALSE(space.is_free(box(50, 75, 20, 5, 0)));
}

TEST(label_space, line_along_a_text_costs_more_than_one_across) {
  label_space space(0, 0, 100, 100);
  space.add_line({50, 0}, {50, 100});
  EXPECT_EQ(space.crossings(box(50, 50, 20, 5, 0)), 1U);
  space.add_line({0, 50}, {100, 50});
  EXPECT_EQ(space.crossings(box(50, 50, 20, 5, 0)), 1 + struck_cost);
  EXPECT_EQ(space.crossings(box(20, 20, 10, 5, 0)), 0U);
}

TEST(label_space, widths_grow_with_the_text_and_unknown_characters_are_wide) {
  EXPECT_DOUBLE_EQ(text_width("ab", 1000), 613 + 635);
  EXPECT_GT(text_width("\xE6\xBC\xA2", 12), text_width("m", 12));
  EXPECT_EQ(text_width("", 12), 0);
}

}  // namespace
}  // namespace ceilmeter::view
