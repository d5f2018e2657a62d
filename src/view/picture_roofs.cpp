// Roofs and the labels along them.
#include <algorithm>
#include <cmath>
#include <optional>

#include "view/canvas.h"
#include "view/compare.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

// How far beyond the frame the page can draw a roof that has no end there, in decades.
constexpr double beyond = 20;

struct roof_ends {
  position from;  // decimal logarithms
  position to;
};

std::size_t reference_file(const view_model& model) { return model.options.mode == view_mode::baseline ? 1 : 0; }

const roof_lines& lines_of(const view_model& model, const shown_set& set) {
  return model.files[set.file].roofs[set.set];
}

// Whether a line of a compared file differs from the reference's. If the reference has no lines of that thread count,
// every line does.
bool differs_from_reference(const view_model& model, std::uint64_t threads, const roof_line& line) {
  for (const roof_lines& set : model.files[reference_file(model)].roofs) {
    if (set.threads != threads) continue;
    for (const roof_line& other : set.lines) {
      if (other.name == line.name && other.measured) return roofs_differ(other.value, line.value);
    }
  }
  return true;
}

void add_set(const view_model& model, const picture_options& options, std::size_t file, std::size_t set,
             std::vector<shown_set>& shown) {
  const std::size_t reference = reference_file(model);
  const file_view& view = model.files[file];
  const bool chosen = view.drawn_roofs == set;
  if (!chosen && !options.all_threads) return;
  shown_set one{.file = file, .set = set, .lines = {}, .hidden = !chosen, .old = file != reference};
  for (std::size_t at = 0; at < view.roofs[set].lines.size(); ++at) {
    const roof_line& line = view.roofs[set].lines[at];
    if (!line.measured || (!line.drawn && !options.all_threads)) continue;
    if (one.old && (!line.drawn || !differs_from_reference(model, view.roofs[set].threads, line))) continue;
    one.lines.push_back(at);
  }
  if (!one.lines.empty()) shown.push_back(std::move(one));
}

// Memory roofs end where they meet the highest arithmetic that is drawn, those of the arithmetic begin at the highest
// bandwidth.
roof_ends ends_of(const picture_state& state, const shown_set& set, const roof_line& roof) {
  const frame& axes = state.area.axes;
  double highest_memory = 0;
  double highest_compute = 0;
  for (const roof_line& line : lines_of(state.model, set).lines) {
    if (!line.drawn) continue;
    double& highest = line.is_compute ? highest_compute : highest_memory;
    highest = std::max(highest, line.value);
  }
  const double value = std::log10(roof.value);
  const double left = axes.x0 - beyond;
  const double right = axes.x1 + beyond;
  if (roof.is_compute) {
    const double from = highest_memory > 0 ? value - std::log10(highest_memory) : left;
    return {{from, value}, {right, value}};
  }
  const double to = highest_compute > 0 ? std::log10(highest_compute) - value : right;
  return {{left, left + value}, {to, to + value}};
}

// The part of a roof inside of the frame, or nothing.
std::optional<roof_ends> clipped(const frame& axes, const roof_ends& ends) {
  const bool level = ends.from.y == ends.to.y;
  double low = std::max(ends.from.x, static_cast<double>(axes.x0));
  double high = std::min(ends.to.x, static_cast<double>(axes.x1));
  if (level) {
    if (ends.from.y <= axes.y0 || ends.from.y >= axes.y1) return std::nullopt;
  } else {
    const double value = ends.from.y - ends.from.x;
    low = std::max(low, axes.y0 - value);
    high = std::min(high, axes.y1 - value);
  }
  if (low >= high) return std::nullopt;
  const double rise = level ? 0 : 1;
  return roof_ends{{low, ends.from.y + rise * (low - ends.from.x)}, {high, ends.from.y + rise * (high - ends.from.x)}};
}

std::string label_of(const picture_state& state, const shown_set& set, const roof_line& line) {
  std::string label = line.name + " " + number(line.value) + " " + line.unit + ", " +
                      counted(lines_of(state.model, set).threads, "thread");
  if (line.scaled) label += ", scaled";
  if (!set.old) return label;
  if (state.model.options.mode == view_mode::baseline) return label + " (before)";
  return label + " (" + shorten(state.model.files[set.file].file.label, 20) + ")";
}

// Tries places along the roof, the wanted end first, above and then below it. The first that crosses the fewest lines
// wins; one whose text goes on beyond the roof's end is taken only if there is no other, and for the many roofs of a
// file that is compared with neither such a place nor one with a line along the text.
std::optional<placed_label> find_place(const picture_state& state, const roof_line& line, const roof_ends& visible,
                                       const std::string& text, bool old) {
  constexpr int steps = 64;
  constexpr double above = -5;
  constexpr double below = 14;
  constexpr std::size_t overhang_cost = 1000;
  const plot_area& area = state.area;
  const double slope = line.is_compute ? 0 : -std::atan2(area.y_unit(), area.x_unit());
  const text_anchor align = line.is_compute ? text_anchor::end : text_anchor::start;
  const double whole =
      std::hypot((visible.to.x - visible.from.x) * area.x_unit(), (visible.to.y - visible.from.y) * area.y_unit());
  const double longest_part = 1 - text_width(text, label_size) / whole;
  std::optional<placed_label> best;
  std::size_t fewest = 0;
  for (const double offset : {above, below}) {
    for (int step = 0; step <= steps; ++step) {
      const double part = line.is_compute ? 1.0 - static_cast<double>(step) / steps : static_cast<double>(step) / steps;
      const position anchor = {area.x(visible.from.x + part * (visible.to.x - visible.from.x)),
                               area.y(visible.from.y + part * (visible.to.y - visible.from.y))};
      const position baseline = {anchor.x - offset * std::sin(slope), anchor.y + offset * std::cos(slope)};
      const turned_box box = box_of_text(text, label_size, baseline, align, slope);
      if (!state.space.is_free(box)) continue;
      const bool overhangs = static_cast<double>(step) / steps > longest_part;
      const std::size_t crossed = state.space.crossings(box) + (overhangs ? overhang_cost : 0);
      if ((old && crossed >= struck_cost) || (best && crossed >= fewest)) continue;
      best = placed_label{0, text, anchor, baseline, slope * 180 / M_PI, offset, align};
      fewest = crossed;
      if (fewest == 0) return best;
    }
  }
  return best;
}

void draw_label(picture_state& state, const placed_label& label) {
  const plot_area& area = state.area;
  state.svg.text("text",
                 {{"class", "roof-label"},
                  {"text-anchor", std::string(anchor_name(label.align))},
                  {"transform", "translate(" + units(label.baseline.x) + " " + units(label.baseline.y) + ") rotate(" +
                                    units(label.angle) + ")"},
                  {"data-x", lg_text(area.axes.x0 + (label.anchor.x - area.left) / area.x_unit())},
                  {"data-y", lg_text(area.axes.y0 + (area.bottom - label.anchor.y) / area.y_unit())},
                  {"data-angle", units(label.angle)},
                  {"data-offset", units(label.offset)}},
                 label.text);
}

std::string roof_class(const shown_set& set, const roof_line& line) {
  std::string classes = "roof ";
  classes += line.level ? level_class(*line.level) : line.is_compute ? "compute" : "memory";
  if (line.thin) classes += " thin";
  if (!line.drawn) classes += " extra";
  if (line.scaled) classes += " scaled";
  if (set.old) classes += " old";
  return classes;
}

}  // namespace

std::vector<shown_set> sets_to_show(const view_model& model, const picture_options& options) {
  std::vector<shown_set> shown;
  const std::size_t files = model.options.mode == view_mode::ranks ? 1 : model.files.size();
  const std::size_t reference = reference_file(model);
  for (std::size_t set = 0; set < model.files[reference].roofs.size(); ++set) {
    add_set(model, options, reference, set, shown);
  }
  for (std::size_t file = 0; file < files; ++file) {
    if (file == reference) continue;
    for (std::size_t set = 0; set < model.files[file].roofs.size(); ++set) add_set(model, options, file, set, shown);
  }
  // Those that are seen first find the best places for their labels; then come the hidden ones, count by count.
  std::stable_sort(shown.begin(), shown.end(), [&model](const shown_set& a, const shown_set& b) {
    const auto key = [&model](const shown_set& one) {
      return std::pair(one.hidden, one.hidden ? lines_of(model, one).threads : 0);
    };
    return key(a) < key(b);
  });
  return shown;
}

void reserve_roofs(picture_state& state, const shown_set& set) {
  const plot_area& area = state.area;
  for (const std::size_t at : set.lines) {
    const roof_line& line = lines_of(state.model, set).lines[at];
    const auto visible = clipped(area.axes, ends_of(state, set, line));
    if (!line.drawn || !visible) continue;
    state.space.add_line({area.x(visible->from.x), area.y(visible->from.y)},
                         {area.x(visible->to.x), area.y(visible->to.y)});
  }
}

std::vector<placed_label> place_roof_labels(picture_state& state, const shown_set& set, bool wanted_default) {
  std::vector<placed_label> placed;
  const roof_lines& roofs = lines_of(state.model, set);
  for (std::size_t at = 0; at < set.lines.size(); ++at) {
    const roof_line& line = roofs.lines[set.lines[at]];
    if (line.drawn != wanted_default) continue;
    const auto visible = clipped(state.area.axes, ends_of(state, set, line));
    if (!visible) continue;
    auto label = find_place(state, line, *visible, label_of(state, set, line), set.old);
    if (!label) continue;
    label->line = at;
    state.space.add_box(box_of_text(label->text, label_size, label->baseline, label->align, label->angle * M_PI / 180));
    placed.push_back(std::move(*label));
  }
  return placed;
}

void draw_roof_set(picture_state& state, const shown_set& set, const std::vector<placed_label>& labels) {
  const roof_lines& roofs = lines_of(state.model, set);
  svg_writer& svg = state.svg;
  const std::string prefix = "roof-" + std::to_string(set.file) + "-" + std::to_string(roofs.threads) + "-";
  svg.open("g", {{"class", set.old ? "roofs old" : "roofs"},
                 {"data-file", std::to_string(set.file)},
                 {"data-threads", std::to_string(roofs.threads)},
                 {set.hidden ? "hidden" : "", ""}});
  for (std::size_t at = 0; at < set.lines.size(); ++at) {
    const roof_line& line = roofs.lines[set.lines[at]];
    const roof_ends ends = ends_of(state, set, line);
    const auto visible = clipped(state.area.axes, ends);
    svg.open("g", {{"class", roof_class(set, line)},
                   {"id", prefix + std::to_string(set.lines[at])},
                   {"data-roof", line.name},
                   {"data-kind", line.is_compute ? "compute" : "memory"},
                   {line.level ? "data-level" : "", line.level ? std::string(level_class(*line.level)) : ""},
                   {"data-default", line.drawn ? "1" : "0"},
                   {"data-value", lg_text(std::log10(line.value))},
                   {"data-unit", line.unit},
                   {"data-text", label_of(state, set, line)},
                   {line.drawn ? "" : "hidden", ""}});
    // A roof outside of the frame keeps an empty line that the page can move.
    const position from = visible ? visible->from : ends.to;
    const position to = visible ? visible->to : ends.to;
    svg.leaf("line", {{"class", "roof-line"},
                      {"clip-path", "url(#plot-clip)"},
                      {"x1", units(state.area.x(from.x))},
                      {"y1", units(state.area.y(from.y))},
                      {"x2", units(state.area.x(to.x))},
                      {"y2", units(state.area.y(to.y))},
                      {"data-x1", lg_text(ends.from.x)},
                      {"data-y1", lg_text(ends.from.y)},
                      {"data-x2", lg_text(ends.to.x)},
                      {"data-y2", lg_text(ends.to.y)}});
    const auto label =
        std::find_if(labels.begin(), labels.end(), [at](const placed_label& one) { return one.line == at; });
    if (label != labels.end()) draw_label(state, *label);
    svg.close();
  }
  svg.close();
}

}  // namespace ceilmeter::view
