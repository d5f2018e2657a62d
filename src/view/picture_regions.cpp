// Regions: a dashed line at the performance, a marker for each counted level, and the name where there is room for it.
#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "view/canvas.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double largest_radius = 12;
constexpr double smallest_radius = 4.5;
constexpr double point_margin = 2;
constexpr double edge_inset = 9;
constexpr double beyond = 20;  // decades that a line without ends goes on outside of the frame
constexpr std::size_t longest_name = 40;
constexpr std::size_t most_names = 250;  // Names beyond would find no room, and looking for it takes time.

struct shown_region {
  std::size_t file = 0;
  const region_figures* figures = nullptr;
  double radius = 0;
};

struct shown_point {
  memory_level level = memory_level::l1;
  double lg_x = 0;
  double lg_y = 0;
  position at;            // at the edge if outside
  std::string_view edge;  // left, right, top, bottom; empty inside
};

// The greatest extent of a shape of that area: the triangle's corner.
double reach_of(memory_level level, double radius) {
  return level == memory_level::l3 ? 1.56 * radius : level == memory_level::l1 ? radius : 1.26 * radius;
}

bool is_shown(const region_figures& one) {
  return one.performance && *one.performance > 0 &&
         (one.state == region_state::complete || one.state == region_state::no_bytes);
}

std::size_t shown_files(const view_model& model) {
  return model.options.mode == view_mode::ranks ? 1 : model.files.size();
}

// The longest first: it gets its name, and smaller markers are drawn over larger ones.
std::vector<shown_region> regions_to_show(const view_model& model) {
  std::vector<shown_region> shown;
  double longest = 0;
  for (std::size_t file = 0; file < shown_files(model); ++file) {
    for (const region_figures& one : model.files[file].regions) {
      if (!is_shown(one)) continue;
      shown.push_back({file, &one, 0});
      longest = std::max(longest, static_cast<double>(*one.time));
    }
  }
  std::stable_sort(shown.begin(), shown.end(),
                   [](const shown_region& a, const shown_region& b) { return *a.figures->time > *b.figures->time; });
  for (shown_region& one : shown) {
    const double share = static_cast<double>(*one.figures->time) / longest;
    one.radius = std::max(smallest_radius, largest_radius * std::sqrt(share));
  }
  return shown;
}

shown_point point_at(const plot_area& area, memory_level level, double lg_x, double lg_y) {
  shown_point point{.level = level, .lg_x = lg_x, .lg_y = lg_y, .at = {area.x(lg_x), area.y(lg_y)}, .edge = {}};
  if (lg_y < area.axes.y0) point.edge = "bottom";
  if (lg_y > area.axes.y1) point.edge = "top";
  if (lg_x < area.axes.x0) point.edge = "left";
  if (lg_x > area.axes.x1) point.edge = "right";
  if (!point.edge.empty()) {
    point.at.x = std::clamp(point.at.x, area.left + edge_inset, area.right - edge_inset);
    point.at.y = std::clamp(point.at.y, area.top + edge_inset, area.bottom - edge_inset);
  }
  return point;
}

std::vector<shown_point> points_of(const plot_area& area, const region_figures& figures) {
  std::vector<shown_point> points;
  for (std::size_t level = 0; level < level_count; ++level) {
    if (!figures.intensity[level] || *figures.intensity[level] <= 0) continue;
    points.push_back(point_at(area, static_cast<memory_level>(level), std::log10(*figures.intensity[level]),
                              std::log10(*figures.performance)));
  }
  return points;
}

std::string summary_of(const region_figures& figures) {
  std::string text = figures.name + ": " + number(*figures.performance, 3) + " GFLOP/s";
  if (figures.time) text += ", " + duration(*figures.time);
  std::string intensities;
  for (std::size_t level = 0; level < level_count; ++level) {
    if (!figures.intensity[level]) continue;
    intensities +=
        std::string(intensities.empty() ? "" : ", ") + level_names[level] + " " + number(*figures.intensity[level], 3);
  }
  text += intensities.empty() ? "; bytes were not counted" : "; flop/byte: " + intensities;
  if (figures.limit) text += "; limited by " + figures.limit->roof;
  if (figures.reached) text += ", reached " + number(100 * *figures.reached, 3) + " %";
  return text;
}

// A triangle at the frame that points to where the point would be.
std::string arrow_path(std::string_view edge) {
  if (edge == "left") return "M-8 0L4 -6L4 6Z";
  if (edge == "right") return "M8 0L-4 -6L-4 6Z";
  if (edge == "top") return "M0 -8L6 4L-6 4Z";
  return "M0 8L6 -4L-6 -4Z";
}

// Draws a small text where there is room beside `at`, and takes the room.
bool draw_beside(picture_state& state, std::string_view css_class, const std::string& text, double size, position at,
                 double distance, position lg) {
  struct place {
    double dx;
    double dy;
    text_anchor align;
  };
  const double middle = size * 0.35;
  constexpr double slack = 0.5;  // A box that just touches a point would depend on rounding.
  const double low = distance + size * font_ascent + label_margin + slack;
  const double high = -distance - size * font_descent - label_margin - slack;
  const std::array<place, 8> places = {{{distance + 4, middle, text_anchor::start},
                                        {-distance - 4, middle, text_anchor::end},
                                        {0, high, text_anchor::middle},
                                        {0, low, text_anchor::middle},
                                        {4, high, text_anchor::start},
                                        {-4, high, text_anchor::end},
                                        {4, low, text_anchor::start},
                                        {-4, low, text_anchor::end}}};
  const place* best = nullptr;
  std::size_t fewest = 0;
  for (const place& one : places) {
    const turned_box box = box_of_text(text, size, {at.x + one.dx, at.y + one.dy}, one.align, 0);
    if (!state.space.is_free(box)) continue;
    const std::size_t crossed = state.space.crossings(box);
    if (best != nullptr && crossed >= fewest) continue;
    best = &one;
    fewest = crossed;
  }
  if (best == nullptr) return false;
  const position baseline = {at.x + best->dx, at.y + best->dy};
  state.space.add_box(box_of_text(text, size, baseline, best->align, 0));
  state.svg.text("text",
                 {{"class", std::string(css_class)},
                  {"x", units(baseline.x)},
                  {"y", units(baseline.y)},
                  {"text-anchor", std::string(anchor_name(best->align))},
                  {"data-x", lg_text(lg.x)},
                  {"data-y", lg_text(lg.y)},
                  {"data-dx", units(best->dx)},
                  {"data-dy", units(best->dy)}},
                 text);
  return true;
}

void draw_marker(picture_state& state, const shown_point& point, double radius, bool hollow) {
  const std::string level(level_class(point.level));
  state.svg.leaf("path", {{"class", "marker " + level + (hollow ? " hollow" : "")},
                          {"data-level", level},
                          {"data-x", lg_text(point.lg_x)},
                          {"data-y", lg_text(point.lg_y)},
                          {"data-size", units(radius)},
                          {"transform", "translate(" + units(point.at.x) + " " + units(point.at.y) + ")"},
                          {"d", marker_path(point.level, radius)}});
}

// The points beyond one edge of the frame, as arrows, and one text with their values.
void draw_beyond(picture_state& state, const std::vector<shown_point>& points, std::string_view edge, bool hollow) {
  const bool sideways = edge == "left" || edge == "right";
  const shown_point* last = nullptr;
  std::string values;
  for (const shown_point& point : points) {
    if (point.edge != edge) continue;
    const std::string level(level_class(point.level));
    state.svg.leaf("path", {{"class", "edge-arrow " + level + (hollow ? " hollow" : "")},
                            {"data-edge", std::string(edge)},
                            {"data-level", level},
                            {"data-x", lg_text(point.lg_x)},
                            {"data-y", lg_text(point.lg_y)},
                            {"transform", "translate(" + units(point.at.x) + " " + units(point.at.y) + ")"},
                            {"d", arrow_path(edge)}});
    last = &point;
    values += (values.empty() ? "" : ", ") + std::string(level_names[static_cast<std::size_t>(point.level)]) + " " +
              number(std::pow(10, point.lg_x), 3);
  }
  if (last == nullptr) return;
  const std::string text = sideways ? values + " flop/byte" : number(std::pow(10, last->lg_y), 3) + " GFLOP/s";
  draw_beside(state, "edge-value", text, small_size, last->at, edge_inset + point_margin, {last->lg_x, last->lg_y});
}

void draw_points(picture_state& state, const std::vector<shown_point>& points, double radius, bool hollow) {
  for (const shown_point& point : points) {
    if (point.edge.empty()) draw_marker(state, point, radius, hollow);
  }
  for (const std::string_view edge : {"left", "right", "top", "bottom"}) draw_beyond(state, points, edge, hollow);
}

// The name stands beside the outermost markers if it can, else beside any.
void draw_name(picture_state& state, const std::string& name, const shown_region& region,
               const std::vector<shown_point>& points) {
  std::vector<shown_point> order = points;
  std::sort(order.begin(), order.end(), [](const shown_point& a, const shown_point& b) { return a.lg_x > b.lg_x; });
  if (order.size() > 2) std::swap(order[1], order.back());
  for (const shown_point& point : order) {
    const double distance = point.edge.empty() ? reach_of(point.level, region.radius) : edge_inset;
    if (draw_beside(state, "region-label", name, label_size, point.at, distance + point_margin,
                    {point.lg_x, point.lg_y})) {
      return;
    }
  }
}

void draw_line(picture_state& state, double from, double to, double lg_y) {
  const plot_area& area = state.area;
  const double x1 = std::clamp(area.x(from), area.left, area.right);
  const double x2 = std::clamp(area.x(to), area.left, area.right);
  state.svg.leaf("line", {{"class", "region-line"},
                          {"clip-path", "url(#plot-clip)"},
                          {"x1", units(x1)},
                          {"y1", units(area.y(lg_y))},
                          {"x2", units(x2)},
                          {"y2", units(area.y(lg_y))},
                          {"data-x1", lg_text(from)},
                          {"data-x2", lg_text(to)},
                          {"data-y", lg_text(lg_y)}});
}

// A region whose bytes weren't counted is a line through the whole frame, with its name and the reason on it.
void draw_without_bytes(picture_state& state, const std::string& name, double lg_y) {
  const plot_area& area = state.area;
  draw_line(state, area.axes.x0 - beyond, area.axes.x1 + beyond, lg_y);
  const std::string text = (name.empty() ? "" : name + ": ") + "bytes were not counted";
  constexpr int steps = 12;
  for (int step = 0; step < steps; ++step) {
    const double lg_x = area.axes.x0 + (step + 0.15) * (area.axes.x1 - area.axes.x0) / steps;
    const position at = {area.x(lg_x), std::clamp(area.y(lg_y), area.top, area.bottom) - 5};
    const turned_box box = box_of_text(text, label_size, at, text_anchor::start, 0);
    if (!state.space.is_free(box)) continue;
    state.space.add_box(box);
    state.svg.text("text",
                   {{"class", "region-note"},
                    {"x", units(at.x)},
                    {"y", units(at.y)},
                    {"text-anchor", "start"},
                    {"data-x", lg_text(lg_x)},
                    {"data-y", lg_text(lg_y)},
                    {"data-dx", "0"},
                    {"data-dy", "-5"}},
                   text);
    return;
  }
}

bool has_partner(const view_model& model, std::size_t region) {
  const auto& pairs = model.baseline->pairs;
  return std::any_of(pairs.begin(), pairs.end(),
                     [region](const region_pair& pair) { return pair.before == region && pair.after.has_value(); });
}

std::string name_of(const view_model& model, const shown_region& region) {
  std::string name = shorten(region.figures->name, longest_name);
  if (model.options.mode == view_mode::overlay) {
    return shorten(model.files[region.file].file.label, 20) + ": " + name;
  }
  // In a baseline the name stands at the point after, unless there is none.
  const bool before = model.options.mode == view_mode::baseline && region.file == 0;
  return before && has_partner(model, region.figures->index) ? "" : name;
}

std::string class_of(const view_model& model, std::size_t file) {
  if (model.options.mode == view_mode::baseline) return file == 0 ? "region before" : "region after";
  return "region";
}

bool is_hollow(const view_model& model, std::size_t file) {
  return model.options.mode == view_mode::baseline ? file == 0 : file > 0;
}

void draw_region(picture_state& state, const shown_region& region, bool with_name) {
  const region_figures& figures = *region.figures;
  const std::string file = std::to_string(region.file);
  const std::string index = std::to_string(figures.index);
  const double lg_y = std::log10(*figures.performance);
  state.svg.open("g", {{"class", class_of(state.model, region.file)},
                       {"id", "region-" + file + "-" + index},
                       {"data-file", file},
                       {"data-region", index},
                       {"tabindex", "0"},
                       {"role", "img"},
                       {"aria-label", summary_of(figures)},
                       {"data-y", lg_text(lg_y)},
                       {figures.threads ? "data-threads" : "", figures.threads ? number(*figures.threads) : ""}});
  state.svg.text("title", {}, summary_of(figures));
  const std::string name = with_name ? name_of(state.model, region) : "";
  const std::vector<shown_point> points = points_of(state.area, figures);
  if (points.empty()) {
    draw_without_bytes(state, name, lg_y);
  } else {
    const auto [first, last] =
        std::minmax_element(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.lg_x < b.lg_x; });
    draw_line(state, first->lg_x, last->lg_x, lg_y);
    draw_points(state, points, region.radius, is_hollow(state.model, region.file));
    if (!name.empty()) draw_name(state, name, region, points);
  }
  state.svg.close();
}

std::optional<memory_level> level_of_move(const view_model& model, const region_figures& before,
                                          const region_figures& after) {
  const auto both = [&](std::size_t level) { return before.intensity[level] && after.intensity[level]; };
  if (model.options.level) {
    const auto level = static_cast<std::size_t>(*model.options.level);
    return both(level) ? model.options.level : std::nullopt;
  }
  for (std::size_t level = level_count; level-- > 0;) {
    if (both(level)) return static_cast<memory_level>(level);
  }
  return std::nullopt;
}

// From one point to the other, with a head of two strokes at its end.
std::string move_path(position from, position to) {
  constexpr double head = 8;
  constexpr double spread = 0.45;
  std::string path = "M" + units(from.x) + " " + units(from.y) + "L" + units(to.x) + " " + units(to.y);
  if (std::hypot(to.x - from.x, to.y - from.y) < head) return path;
  const double angle = std::atan2(to.y - from.y, to.x - from.x);
  const auto stroke = [&](double turn) {
    return units(to.x - head * std::cos(angle + turn)) + " " + units(to.y - head * std::sin(angle + turn));
  };
  return path + "M" + stroke(spread) + "L" + units(to.x) + " " + units(to.y) + "L" + stroke(-spread);
}

}  // namespace

void reserve_points(picture_state& state) {
  for (const shown_region& region : regions_to_show(state.model)) {
    const std::vector<shown_point> points = points_of(state.area, *region.figures);
    for (const shown_point& point : points) {
      const double radius = point.edge.empty() ? reach_of(point.level, region.radius) : edge_inset;
      state.space.add_point({point.at, radius + point_margin});
      state.space.add_line(points.front().at, point.at);
    }
    const double y = state.area.y(std::log10(*region.figures->performance));
    if (points.empty()) state.space.add_line({state.area.left, y}, {state.area.right, y});
  }
}

void draw_regions(picture_state& state) {
  state.svg.open("g", {{"class", "regions"}});
  std::size_t names = 0;
  for (const shown_region& region : regions_to_show(state.model)) draw_region(state, region, names++ < most_names);
  state.svg.close();
}

void draw_moves(picture_state& state) {
  if (!state.model.baseline) return;
  state.svg.open("g", {{"class", "moves"}, {"clip-path", "url(#plot-clip)"}});
  for (const region_pair& pair : state.model.baseline->pairs) {
    if (!pair.before || !pair.after) continue;
    const region_figures& before = state.model.files[0].regions[*pair.before];
    const region_figures& after = state.model.files[1].regions[*pair.after];
    if (!is_shown(before) || !is_shown(after)) continue;
    const auto chosen = level_of_move(state.model, before, after);
    const std::vector<shown_point> from = points_of(state.area, before);
    const std::vector<shown_point> to = points_of(state.area, after);
    for (const shown_point& start : from) {
      const auto end =
          std::find_if(to.begin(), to.end(), [&](const shown_point& one) { return one.level == start.level; });
      if (end == to.end()) continue;
      const std::string level(level_class(start.level));
      state.svg.leaf("path", {{"class", "move " + level},
                              {"data-level", level},
                              {"data-region", std::to_string(*pair.after)},
                              {"data-x1", lg_text(start.lg_x)},
                              {"data-y1", lg_text(start.lg_y)},
                              {"data-x2", lg_text(end->lg_x)},
                              {"data-y2", lg_text(end->lg_y)},
                              {"d", move_path(start.at, end->at)},
                              {chosen == start.level ? "" : "hidden", ""}});
    }
  }
  state.svg.close();
}

}  // namespace ceilmeter::view
