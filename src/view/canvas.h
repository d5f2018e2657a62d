// What the parts of the picture share: the plot's scales, and a writer of elements. A part of picture.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "view/label_space.h"
#include "view/model.h"
#include "view/picture.h"

namespace ceilmeter::view {

inline constexpr double label_size = 12;  // font sizes, in units of the view box
inline constexpr double small_size = 11;

// The rectangle that the roofs and points stand in, and its scales from decimal logarithms to units of the view box.
struct plot_area {
  frame axes;
  double left = 72;
  double right = 1096;
  double top = 44;
  double bottom = 640;

  double x_unit() const { return (right - left) / (axes.x1 - axes.x0); }
  double y_unit() const { return (bottom - top) / (axes.y1 - axes.y0); }
  double x(double lg) const { return left + (lg - axes.x0) * x_unit(); }
  double y(double lg) const { return bottom - (lg - axes.y0) * y_unit(); }
};

// Positions in the view box with two decimals, logarithms with six: what differs beyond that between mathematical
// libraries is not written.
std::string units(double value);
std::string lg_text(double value);

using attributes = std::initializer_list<std::pair<std::string_view, std::string>>;

class svg_writer {
 public:
  void open(std::string_view tag, attributes list);
  void close();  // the innermost open element
  void leaf(std::string_view tag, attributes list);
  void text(std::string_view tag, attributes list, std::string_view content);
  void raw(std::string_view markup) { out_ += markup; }
  // A writer for elements that stand inside of what is open here.
  svg_writer nested() const;
  std::string take() { return std::move(out_); }

 private:
  void start(std::string_view tag, attributes list);
  void indent();
  std::string out_;
  std::vector<std::string> open_;
};

// What all parts draw from and into.
struct picture_state {
  const view_model& model;
  const picture_options& options;
  plot_area area;
  label_space space;
  svg_writer svg;
};

// A set of roofs that the picture holds, with the lines of it that are drawn or can be.
struct shown_set {
  std::size_t file = 0;
  std::size_t set = 0;  // index into file_view::roofs
  std::vector<std::size_t> lines;
  bool hidden = false;  // another thread count, for the page's switch
  bool old = false;     // of a file that the picture compares with
};

std::vector<shown_set> sets_to_show(const view_model& model, const picture_options& options);

struct placed_label {
  std::size_t line = 0;  // index into shown_set::lines
  std::string text;
  position anchor;  // on the roof
  position baseline;
  double angle = 0;  // degrees
  double offset = 0;
  text_anchor align = text_anchor::start;
};

// Finds places for the labels of a set and takes them; the lines that are drawn by default come first. `wanted` says
// which of the two kinds is placed: first all default ones, later, behind the regions' names, the others.
std::vector<placed_label> place_roof_labels(picture_state& state, const shown_set& set, bool wanted_default);
// The lines of the set that are drawn by default go into the space: labels avoid to cross them.
void reserve_roofs(picture_state& state, const shown_set& set);
void draw_roof_set(picture_state& state, const shown_set& set, const std::vector<placed_label>& labels);

// The markers' discs and the lines between them go into the space before any text finds its place.
void reserve_points(picture_state& state);
// Draws the regions, and in a baseline the moves. Names that find no place are left to tooltips and the table.
void draw_regions(picture_state& state);
void draw_moves(picture_state& state);

// Path of a level's shape around 0,0 with the area of a circle of that radius.
std::string marker_path(memory_level level, double radius);
std::string_view level_class(memory_level level);
std::string_view anchor_name(text_anchor align);  // SVG's word

}  // namespace ceilmeter::view
