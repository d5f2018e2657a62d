// Where texts may stand in the picture: none over another one, over a point, or over the frame. Widths come from a
// fixed table of a wide sans font, since no font is at hand when the picture is written; other fonts of its kind are
// narrower.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

namespace ceilmeter::view {

// Width of `text` at that font size, in the same unit. Characters outside of the table count as wide ones.
double text_width(std::string_view text, double font_size);

// Ascent and descent of the font, as parts of its size.
inline constexpr double font_ascent = 0.93;
inline constexpr double font_descent = 0.24;

// Room on each side of a text that belongs to its box.
inline constexpr double label_margin = 2;

struct position {
  double x = 0;
  double y = 0;
};

// A rectangle turned around its centre. Angles in radians, clockwise on the screen, as SVG's rotate().
struct turned_box {
  position center;
  double half_width = 0;
  double half_height = 0;
  double angle = 0;
};

struct disc {
  position center;
  double radius = 0;
};

bool overlap(const turned_box& a, const turned_box& b);
bool overlap(const turned_box& box, const disc& point);

enum class text_anchor : char { start, middle, end };

// The box of a text whose anchor stands at `baseline`, with a margin on each side.
turned_box box_of_text(std::string_view text, double font_size, position baseline, text_anchor anchor, double angle);

// What a line along a text costs, where one across costs 1.
inline constexpr std::size_t struck_cost = 4;

// What is taken of a rectangle.
class label_space {
 public:
  label_space(double left, double top, double right, double bottom)
      : left_(left), top_(top), right_(right), bottom_(bottom) {}

  void add_point(const disc& point) { points_.push_back(point); }
  void add_box(const turned_box& box) { boxes_.push_back(box); }
  void add_line(position from, position to) { lines_.push_back({from, to}); }

  // Whether the box lies within the rectangle and touches nothing that was added.
  bool is_free(const turned_box& box) const;

  // Lines may be crossed, but a place where none is reads better: the sum of the lines' costs.
  std::size_t crossings(const turned_box& box) const;

 private:
  double left_;
  double top_;
  double right_;
  double bottom_;
  std::vector<disc> points_;
  std::vector<turned_box> boxes_;
  std::vector<std::pair<position, position>> lines_;
};

}  // namespace ceilmeter::view
