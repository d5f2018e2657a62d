#include "view/label_space.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace ceilmeter::view {

namespace {

constexpr double frame_margin = 3;

// Advance widths of the characters from blank to tilde in thousandths of the font size, and for all others a bound of
// Latin, Greek and Cyrillic letters, and of ideographs and symbols.
constexpr std::array<std::uint16_t, 95> advance = {
    318, 401, 460, 838, 636, 950, 780, 275, 390, 390, 500, 838, 318, 361,  318, 337, 636, 636, 636,
    636, 636, 636, 636, 636, 636, 636, 337, 337, 838, 838, 838, 531, 1000, 684, 686, 698, 770, 632,
    575, 775, 752, 295, 295, 656, 557, 863, 748, 787, 603, 787, 695, 635,  611, 732, 684, 989, 685,
    611, 685, 390, 337, 390, 838, 500, 500, 613, 635, 550, 635, 615, 352,  635, 634, 278, 278, 579,
    278, 974, 634, 612, 635, 635, 411, 521, 392, 634, 592, 818, 592, 592,  525, 636, 337, 636, 838};
constexpr double letter_advance = 1000;
constexpr double wide_advance = 1450;

struct axis_span {
  double low;
  double high;
};

std::array<position, 4> corners(const turned_box& box) {
  const double c = std::cos(box.angle);
  const double s = std::sin(box.angle);
  const position along = {c * box.half_width, s * box.half_width};
  const position across = {-s * box.half_height, c * box.half_height};
  const position& at = box.center;
  return {{{at.x - along.x - across.x, at.y - along.y - across.y},
           {at.x + along.x - across.x, at.y + along.y - across.y},
           {at.x + along.x + across.x, at.y + along.y + across.y},
           {at.x - along.x + across.x, at.y - along.y + across.y}}};
}

axis_span project(const std::array<position, 4>& points, double x, double y) {
  axis_span span = {points[0].x * x + points[0].y * y, points[0].x * x + points[0].y * y};
  for (const position& point : points) {
    const double at = point.x * x + point.y * y;
    span.low = std::min(span.low, at);
    span.high = std::max(span.high, at);
  }
  return span;
}

// Whether a direction of `box`'s own sides parts the two.
bool parted_by(const turned_box& box, const std::array<position, 4>& a, const std::array<position, 4>& b) {
  const double c = std::cos(box.angle);
  const double s = std::sin(box.angle);
  const std::array<position, 2> directions = {{{c, s}, {-s, c}}};
  return std::any_of(directions.begin(), directions.end(), [&](const position& direction) {
    const axis_span first = project(a, direction.x, direction.y);
    const axis_span second = project(b, direction.x, direction.y);
    return first.high <= second.low || second.high <= first.low;
  });
}

// A segment is a box without height.
turned_box box_of_line(position from, position to) {
  turned_box box;
  box.center = {(from.x + to.x) / 2, (from.y + to.y) / 2};
  box.half_width = std::hypot(to.x - from.x, to.y - from.y) / 2;
  box.angle = std::atan2(to.y - from.y, to.x - from.x);
  return box;
}

}  // namespace

double text_width(std::string_view text, double font_size) {
  double width = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F)
      width += advance[byte - 0x20];
    else if (byte >= 0xC0 && byte < 0xE0)
      width += letter_advance;
    else if (byte >= 0xE0)
      width += wide_advance;
  }
  return width * font_size / 1000;
}

bool overlap(const turned_box& a, const turned_box& b) {
  const double reach = std::hypot(a.half_width, a.half_height) + std::hypot(b.half_width, b.half_height);
  if (std::abs(a.center.x - b.center.x) >= reach || std::abs(a.center.y - b.center.y) >= reach) return false;
  const auto first = corners(a);
  const auto second = corners(b);
  return !parted_by(a, first, second) && !parted_by(b, first, second);
}

bool overlap(const turned_box& box, const disc& point) {
  const double dx = point.center.x - box.center.x;
  const double dy = point.center.y - box.center.y;
  const double c = std::cos(box.angle);
  const double s = std::sin(box.angle);
  const double outside_x = std::max(std::abs(dx * c + dy * s) - box.half_width, 0.0);
  const double outside_y = std::max(std::abs(-dx * s + dy * c) - box.half_height, 0.0);
  return outside_x * outside_x + outside_y * outside_y < point.radius * point.radius;
}

turned_box box_of_text(std::string_view text, double font_size, position baseline, text_anchor anchor, double angle) {
  const double width = text_width(text, font_size);
  const double along = anchor == text_anchor::start ? width / 2 : anchor == text_anchor::end ? -width / 2 : 0;
  const double up = (font_ascent - font_descent) / 2 * font_size;
  turned_box box;
  box.angle = angle;
  box.half_width = width / 2 + label_margin;
  box.half_height = (font_ascent + font_descent) / 2 * font_size + label_margin;
  box.center = {baseline.x + along * std::cos(angle) + up * std::sin(angle),
                baseline.y + along * std::sin(angle) - up * std::cos(angle)};
  return box;
}

bool label_space::is_free(const turned_box& box) const {
  for (const position& corner : corners(box)) {
    if (corner.x < left_ + frame_margin || corner.x > right_ - frame_margin || corner.y < top_ + frame_margin ||
        corner.y > bottom_ - frame_margin) {
      return false;
    }
  }
  return std::none_of(boxes_.begin(), boxes_.end(), [&box](const turned_box& other) { return overlap(box, other); }) &&
         std::none_of(points_.begin(), points_.end(), [&box](const disc& point) { return overlap(box, point); });
}

std::size_t label_space::crossings(const turned_box& box) const {
  // A line along the text strikes it through, one across it does little harm.
  constexpr double parallel = 0.02;
  std::size_t cost = 0;
  for (const auto& [from, to] : lines_) {
    const turned_box line = box_of_line(from, to);
    if (overlap(box, line)) cost += std::abs(std::sin(line.angle - box.angle)) < parallel ? struck_cost : 1;
  }
  return cost;
}

}  // namespace ceilmeter::view
