// The parts of the picture in the order in which they are painted. Texts find their places in another order: the roofs
// that are seen first, then the regions' names, then what a click can add.
#include "view/picture.h"

#include <array>
#include <cmath>
#include <iterator>

#include "view/canvas.h"
#include "view/page_parts.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double width = 1120;
constexpr double height = 740;
constexpr double line_height = 17;

std::string decade_text(int exponent) {
  if (exponent < -4 || exponent > 5) return "1e" + std::to_string(exponent);
  return exponent < 0 ? fixed(std::pow(10, exponent), -exponent) : fixed(std::pow(10, exponent), 0);
}

void draw_grid_line(picture_state& state, std::string_view css_class, bool is_x, double at) {
  const plot_area& area = state.area;
  const double across = is_x ? area.x(at) : area.y(at);
  state.svg.leaf("line", {{"class", std::string(css_class)},
                          {"data-axis", is_x ? "x" : "y"},
                          {"data-at", lg_text(at)},
                          {"x1", units(is_x ? across : area.left)},
                          {"y1", units(is_x ? area.top : across)},
                          {"x2", units(is_x ? across : area.right)},
                          {"y2", units(is_x ? area.bottom : across)}});
}

void draw_grid(picture_state& state) {
  state.svg.open("g", {{"class", "grid"}, {"clip-path", "url(#plot-clip)"}});
  for (const bool is_x : {true, false}) {
    const int first = is_x ? state.area.axes.x0 : state.area.axes.y0;
    const int last = is_x ? state.area.axes.x1 : state.area.axes.y1;
    // Minor lines of a frame of many decades would be a grey area.
    const bool with_minor = last - first <= 12;
    for (int decade = first; decade <= last; ++decade) {
      for (int digit = 2; with_minor && decade < last && digit <= 9; ++digit) {
        draw_grid_line(state, "minor", is_x, decade + std::log10(digit));
      }
    }
    for (int decade = first; decade <= last; ++decade) draw_grid_line(state, "major", is_x, decade);
  }
  state.svg.close();
}

void draw_tick(picture_state& state, bool is_x, int decade) {
  const plot_area& area = state.area;
  state.svg.open("g", {{"class", "tick"}, {"data-at", std::to_string(decade)}});
  if (is_x) {
    const std::string x = units(area.x(decade));
    state.svg.leaf("line", {{"x1", x}, {"y1", units(area.bottom)}, {"x2", x}, {"y2", units(area.bottom + 5)}});
    state.svg.text("text", {{"x", x}, {"y", units(area.bottom + 18)}, {"text-anchor", "middle"}}, decade_text(decade));
  } else {
    const double y = area.y(decade);
    state.svg.leaf("line",
                   {{"x1", units(area.left - 5)}, {"y1", units(y)}, {"x2", units(area.left)}, {"y2", units(y)}});
    state.svg.text("text", {{"x", units(area.left - 8)}, {"y", units(y + 4)}, {"text-anchor", "end"}},
                   decade_text(decade));
  }
  state.svg.close();
}

void draw_axes(picture_state& state) {
  const plot_area& area = state.area;
  state.svg.open("g", {{"class", "axis"}, {"data-axis", "x"}});
  for (int decade = area.axes.x0; decade <= area.axes.x1; ++decade) draw_tick(state, true, decade);
  state.svg.text("text",
                 {{"class", "axis-title"},
                  {"x", units((area.left + area.right) / 2)},
                  {"y", units(area.bottom + 38)},
                  {"text-anchor", "middle"}},
                 "arithmetic intensity, flop/byte");
  state.svg.close();
  state.svg.open("g", {{"class", "axis"}, {"data-axis", "y"}});
  for (int decade = area.axes.y0; decade <= area.axes.y1; ++decade) draw_tick(state, false, decade);
  state.svg.text("text",
                 {{"class", "axis-title"},
                  {"text-anchor", "middle"},
                  {"transform", "translate(18 " + units((area.top + area.bottom) / 2) + ") rotate(-90)"}},
                 "performance, GFLOP/s");
  state.svg.close();
}

std::string roofs_text(const view_model& model) {
  const file_view& view = model.files[model.options.mode == view_mode::baseline ? 1 : 0];
  if (!view.drawn_roofs) return "no roofs";
  return "roofs of " + counted(view.roofs[*view.drawn_roofs].threads, "thread");
}

// Shapes, fill and area, in one line below the axis.
void draw_legend(picture_state& state) {
  const double y = state.area.bottom + 62;
  double x = state.area.left;
  svg_writer& svg = state.svg;
  svg.open("g", {{"class", "legend"}});
  const auto say = [&](const std::string& text) {
    svg.text("text", {{"x", units(x)}, {"y", units(y)}}, text);
    x += text_width(text, label_size) + 20;
  };
  const auto show = [&](memory_level level, std::string_view more, const std::string& text) {
    svg.leaf("path", {{"class", "marker " + std::string(level_class(level)) + std::string(more)},
                      {"transform", "translate(" + units(x + 6) + " " + units(y - 4) + ")"},
                      {"d", marker_path(level, 6)}});
    x += 18;
    say(text);
  };
  for (std::size_t level = 0; level < level_count; ++level) {
    show(static_cast<memory_level>(level), "", level_names[level]);
  }
  if (state.model.options.mode == view_mode::baseline) {
    show(memory_level::ddr, " hollow", "before");
    show(memory_level::ddr, "", "after");
  } else if (state.model.options.mode == view_mode::overlay) {
    show(memory_level::ddr, "", shorten(state.model.files[0].file.label, 20));
    show(memory_level::ddr, " hollow", "the other files");
  }
  say("area: time");
  say("dashed: a region's performance");
  say(roofs_text(state.model));
  svg.close();
}

std::vector<std::string> wrap(const std::string& text, double width_limit) {
  std::vector<std::string> lines(1);
  std::size_t from = 0;
  while (from < text.size()) {
    const std::size_t blank = std::min(text.find(' ', from), text.size());
    const std::string word = text.substr(from, blank - from);
    if (!lines.back().empty() && text_width(lines.back() + " " + word, label_size) > width_limit) lines.emplace_back();
    lines.back() += (lines.back().empty() ? "" : " ") + word;
    from = blank + 1;
  }
  return lines;
}

struct note_line {
  std::string text;
  bool warn = false;
};

bool is_warning(remark_kind kind) {
  return kind == remark_kind::above_roof || kind == remark_kind::ddr_roof_near_l3 ||
         kind == remark_kind::l2_roof_near_l1;
}

// What a reader of the picture alone has to know: why something is missing, and what is suspicious.
std::vector<note_line> notes_of(const view_model& model) {
  constexpr std::size_t most_lines = 24;
  std::vector<note_line> lines;
  const auto add = [&lines](const std::string& text, bool warn) {
    for (const std::string& line : wrap(text, width - 120)) lines.push_back({line, warn});
  };
  const std::size_t files = model.options.mode == view_mode::ranks ? 1 : model.files.size();
  for (std::size_t at = 0; at < files; ++at) {
    const file_view& view = model.files[at];
    const std::string prefix = files > 1 ? view.file.label + ": " : "";
    for (const remark& one : view.remarks) add(prefix + one.text, is_warning(one.kind));
    if (view.drawn_roofs) {
      for (const remark& one : view.roofs[*view.drawn_roofs].remarks) add(prefix + one.text, is_warning(one.kind));
    }
    for (const region_figures& one : view.regions) {
      if (!one.missing.empty()) add(prefix + one.name + ": " + one.missing, false);
      for (const remark& about : one.remarks) {
        if (is_warning(about.kind)) add(prefix + one.name + ": " + about.text, true);
      }
    }
  }
  if (model.baseline) {
    for (const remark& one : model.baseline->remarks) add(one.text, false);
  }
  if (model.ranks) {
    for (const remark& one : model.ranks->remarks) add(one.text, false);
  }
  if (lines.size() > most_lines) {
    lines.resize(most_lines);
    lines.back() = {"... and more: see the page or the table.", false};
  }
  return lines;
}

void draw_notes(picture_state& state, const std::vector<note_line>& notes) {
  state.svg.open("g", {{"class", "notes"}});
  double y = height + 2;
  for (const note_line& note : notes) {
    state.svg.text("text",
                   {{"class", note.warn ? "note warn" : "note"}, {"x", units(state.area.left)}, {"y", units(y)}},
                   note.text);
    y += line_height;
  }
  state.svg.close();
}

std::string_view mode_name(view_mode mode) {
  static constexpr std::array<std::string_view, 4> names = {"single", "overlay", "baseline", "ranks"};
  return names[static_cast<std::size_t>(mode)];
}

void open_picture(picture_state& state, double full_height) {
  const plot_area& area = state.area;
  const view_model& model = state.model;
  const file_view& view = model.files[model.options.mode == view_mode::baseline ? 1 : 0];
  const std::string threads = view.drawn_roofs ? std::to_string(view.roofs[*view.drawn_roofs].threads) : "";
  const bool standalone = state.options.standalone;
  state.svg.open("svg", {{standalone ? "xmlns" : "", "http://www.w3.org/2000/svg"},
                         {"id", "roofline"},
                         {"class", "roofline"},
                         {"role", "group"},
                         {"viewBox", "0 0 " + units(width) + " " + units(full_height)},
                         {standalone ? "width" : "", units(width)},
                         {standalone ? "height" : "", units(full_height)},
                         {"aria-labelledby", "roofline-title roofline-desc"},
                         {"data-x0", std::to_string(area.axes.x0)},
                         {"data-x1", std::to_string(area.axes.x1)},
                         {"data-y0", std::to_string(area.axes.y0)},
                         {"data-y1", std::to_string(area.axes.y1)},
                         {"data-left", units(area.left)},
                         {"data-right", units(area.right)},
                         {"data-top", units(area.top)},
                         {"data-bottom", units(area.bottom)},
                         {"data-level", model.options.level ? std::string(level_class(*model.options.level)) : "all"},
                         {"data-threads", threads},
                         {"data-mode", std::string(mode_name(model.options.mode))}});
  state.svg.text("title", {{"id", "roofline-title"}}, "Roofline of " + model.title);
  state.svg.text(
      "desc", {{"id", "roofline-desc"}},
      "Both axes are logarithmic: arithmetic intensity in flop/byte, performance in GFLOP/s. Sloped lines are "
      "bandwidths, level ones arithmetic: " +
          roofs_text(model) + ".");
  if (standalone) {
    state.svg.raw("<style>\n");
    state.svg.raw(picture_style());
    state.svg.raw("</style>\n");
  }
}

void draw_plot_background(picture_state& state, double full_height) {
  const plot_area& area = state.area;
  const std::string x = units(area.left);
  const std::string y = units(area.top);
  const std::string across = units(area.right - area.left);
  const std::string down = units(area.bottom - area.top);
  svg_writer& svg = state.svg;
  svg.open("clipPath", {{"id", "plot-clip"}});
  svg.leaf("rect", {{"x", x}, {"y", y}, {"width", across}, {"height", down}});
  svg.close();
  svg.leaf("rect", {{"class", "background"}, {"width", units(width)}, {"height", units(full_height)}});
  if (state.options.standalone) {
    svg.text("text", {{"class", "title"}, {"x", x}, {"y", "28"}}, shorten(state.model.title, 90));
  }
  svg.leaf("rect", {{"class", "plot"}, {"x", x}, {"y", y}, {"width", across}, {"height", down}});
}

void append(std::vector<placed_label>& labels, std::vector<placed_label> more) {
  labels.insert(labels.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

std::uint64_t threads_of(const view_model& model, const shown_set& set) {
  return model.files[set.file].roofs[set.set].threads;
}

void draw_roofs_and_regions(picture_state& state) {
  const view_model& model = state.model;
  reserve_points(state);
  const std::vector<shown_set> sets = sets_to_show(model, state.options);
  std::vector<std::vector<placed_label>> labels(sets.size());
  for (const shown_set& set : sets) {
    if (!set.hidden) reserve_roofs(state, set);
  }
  for (std::size_t at = 0; at < sets.size(); ++at) {
    if (!sets[at].hidden) labels[at] = place_roof_labels(state, sets[at], true);
  }
  // The regions are painted over the roofs, but their names are placed before what isn't seen at first.
  svg_writer before = std::move(state.svg);
  state.svg = before.nested();
  draw_regions(state);
  const std::string regions = state.svg.take();
  state.svg = std::move(before);
  state.svg.open("g", {{"class", "roof-sets"}});
  for (std::size_t at = 0; at < sets.size(); ++at) {
    if (!sets[at].hidden) append(labels[at], place_roof_labels(state, sets[at], false));
  }
  // The old ones are painted first, so that none of their lines goes over a label of the others.
  for (const bool old : {true, false}) {
    for (std::size_t at = 0; at < sets.size(); ++at) {
      if (!sets[at].hidden && sets[at].old == old) draw_roof_set(state, sets[at], labels[at]);
    }
  }
  // Hidden sets of two thread counts are never seen together: each count finds the space as the visible ones left it.
  const label_space shared = state.space;
  for (std::size_t at = 0; at < sets.size(); ++at) {
    if (!sets[at].hidden) continue;
    if (at == 0 || threads_of(model, sets[at]) != threads_of(model, sets[at - 1])) state.space = shared;
    labels[at] = place_roof_labels(state, sets[at], true);
    append(labels[at], place_roof_labels(state, sets[at], false));
    draw_roof_set(state, sets[at], labels[at]);
  }
  state.svg.close();
  state.svg.raw(regions);
}

}  // namespace

std::string draw_picture(const view_model& model, const picture_options& options) {
  plot_area area;
  area.axes = model.axes;
  picture_state state{.model = model,
                      .options = options,
                      .area = area,
                      .space = label_space(area.left, area.top, area.right, area.bottom),
                      .svg = {}};
  const std::vector<note_line> notes = options.standalone ? notes_of(model) : std::vector<note_line>{};
  const double full_height = notes.empty() ? height - 24 : height + line_height * static_cast<double>(notes.size()) - 4;
  if (options.standalone) state.svg.raw("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
  open_picture(state, full_height);
  draw_plot_background(state, full_height);
  draw_grid(state);
  draw_axes(state);
  draw_roofs_and_regions(state);
  draw_moves(state);
  draw_legend(state);
  draw_notes(state, notes);
  state.svg.close();
  return state.svg.take();
}

}  // namespace ceilmeter::view
