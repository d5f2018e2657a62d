#include "view/table.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr const char* missing = "-";
constexpr int digits = 3;

using line = std::vector<std::string>;

// A stranger's text in one line of a terminal.
std::string one_line(std::string_view text) {
  std::string clean = clean_utf8(text);
  for (char& c : clean) {
    if (c == '\t' || c == '\n') c = ' ';
  }
  return clean;
}

// Characters, not bytes.
std::size_t width(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string shown(const figure& value) { return value ? number(*value, digits) : missing; }

std::string shown_time(const count& value) { return value ? duration(*value) : missing; }

std::string shown_percent(const figure& value) { return value ? number(100 * *value, digits) + " %" : missing; }

std::string shown_quantity(const count& value, std::string_view unit) {
  return value ? quantity(*value, unit) : missing;
}

// Appends the lines as columns, two blanks apart. Columns named in `left` begin at their left edge, the others end at
// their right one.
void append_columns(std::string& text, const std::vector<line>& lines, std::span<const std::size_t> left) {
  std::vector<std::size_t> widths(lines.front().size());
  for (const line& one : lines) {
    for (std::size_t at = 0; at < one.size(); ++at) widths[at] = std::max(widths[at], width(one[at]));
  }
  for (const line& one : lines) {
    std::string row = "  ";
    for (std::size_t at = 0; at < one.size(); ++at) {
      const std::string padding(widths[at] - width(one[at]), ' ');
      if (at > 0) row += "  ";
      const bool is_left = std::find(left.begin(), left.end(), at) != left.end();
      row += is_left ? one[at] + padding : padding + one[at];
    }
    row.erase(row.find_last_not_of(' ') + 1);
    text += row + "\n";
  }
}

std::string limit_text(const region_figures& region) {
  if (!region.limit) return missing;
  const std::string name = one_line(region.limit->roof);
  const std::uint64_t threads = region.threads ? static_cast<std::uint64_t>(*region.threads) : 0;
  if (!region.roof_threads || *region.roof_threads == threads) return name;
  return name + " (of " + counted(*region.roof_threads, "thread") + ")";
}

line region_line(const region_figures& region) {
  line cells = {one_line(region.name), region.threads ? number(*region.threads) : missing, shown_time(region.time)};
  for (const count& bytes : region.bytes) cells.push_back(shown_quantity(bytes, "B"));
  cells.push_back(shown_quantity(region.operations, ""));
  cells.push_back(shown(region.performance));
  cells.push_back(shown(region.intensity[static_cast<std::size_t>(memory_level::ddr)]));
  cells.push_back(limit_text(region));
  cells.push_back(shown_percent(region.reached));
  return cells;
}

// The roofs of one thread count, a line for each unit in the order in which the units come.
void append_roofs(std::string& text, std::span<const roof> roofs, std::int64_t threads) {
  std::vector<std::pair<std::string, std::string>> by_unit;
  for (const roof& one : roofs) {
    auto found = std::find_if(by_unit.begin(), by_unit.end(), [&](const auto& unit) { return unit.first == one.unit; });
    if (found == by_unit.end()) found = by_unit.insert(by_unit.end(), {one.unit, ""});
    if (!found->second.empty()) found->second += ", ";
    found->second += one_line(one.name) + " " + number(one.value);
  }
  for (const auto& [unit, list] : by_unit) {
    text += "  roofs of " + number(threads) + (threads == 1 ? " thread" : " threads") + " in " + one_line(unit) + ": " +
            list + "\n";
  }
}

void append_file(std::string& text, const file_view& file, const view_options& options) {
  text += one_line(file.file.path) + "\n";
  if (file.regions.empty()) {
    text += "  no regions\n";
  } else {
    std::vector<line> lines = {{"region", "threads", "time"}};
    lines.front().insert(lines.front().end(), level_names.begin(), level_names.end());
    for (const char* heading : {"operations", "GFLOP/s", "flop/byte", "limited by", "reached"}) {
      lines.front().emplace_back(heading);
    }
    for (const region_figures& region : file.regions) lines.push_back(region_line(region));
    constexpr std::array<std::size_t, 2> left = {0, 3 + level_count + 3};
    append_columns(text, lines, left);
  }
  if (options.threads && file.drawn_roofs) {
    const roof_set& chosen = file.file.roofs[*file.drawn_roofs];
    append_roofs(text, chosen.roofs, static_cast<std::int64_t>(chosen.threads));
  } else {
    append_roofs(text, file.file.root_roofs, file.file.threads.value_or(0));
  }
}

void append_remarks(std::string& text, const std::vector<remark>& remarks, const std::string& about) {
  for (const remark& one : remarks) text += "  " + about + one_line(one.text) + "\n";
}

void append_baseline(std::string& text, const baseline_view& view) {
  text += "before and after\n";
  if (!view.pairs.empty()) {
    std::vector<line> lines = {{"region", "time", "GFLOP/s", "flop/byte", "reached before", "reached after"}};
    for (const region_pair& pair : view.pairs) {
      const auto times = [](const figure& ratio) { return ratio ? "x " + number(*ratio, digits) : missing; };
      lines.push_back({one_line(pair.name), times(pair.time_ratio), times(pair.performance_ratio),
                       times(pair.intensity_ratio[static_cast<std::size_t>(memory_level::ddr)]),
                       shown_percent(pair.reached_before), shown_percent(pair.reached_after)});
    }
    constexpr std::array<std::size_t, 1> left = {0};
    append_columns(text, lines, left);
  }
  for (const region_pair& pair : view.pairs) append_remarks(text, pair.remarks, one_line(pair.name) + ": ");
  for (const roof_difference& roof : view.roofs) {
    text += "  roof " + one_line(roof.name) + " of " + counted(roof.threads, "thread") + ": " +
            number(roof.before, digits) + ", then " + number(roof.after, digits) + " " + one_line(roof.unit) + "\n";
  }
  append_remarks(text, view.remarks, "");
}

void append_ranks(std::string& text, const ranks_view& view) {
  text += "ranks\n";
  if (!view.regions.empty()) {
    std::vector<line> lines = {{"region", "ranks", "longest", "shortest", "spread", "slowest"}};
    for (const rank_region& region : view.regions) {
      std::string slowest;
      for (const std::size_t rank : region.slowest) {
        slowest += (slowest.empty() ? "" : ", ") + one_line(view.labels[rank]);
      }
      const std::string present = std::to_string(region.present) + " of " + std::to_string(view.labels.size());
      lines.push_back({one_line(region.name), present, shown_time(region.time_longest),
                       shown_time(region.time_shortest), shown_percent(region.spread),
                       slowest.empty() ? missing : slowest});
    }
    constexpr std::array<std::size_t, 2> left = {0, 5};
    append_columns(text, lines, left);
  }
  for (const rank_region& region : view.regions) append_remarks(text, region.remarks, one_line(region.name) + ": ");
  append_remarks(text, view.remarks, "");
}

}  // namespace

std::string write_table(const view_model& model) {
  std::string text;
  // With ranks the table shows their sums. `ceilview --table` without --ranks shows each rank.
  const std::size_t files = model.ranks ? std::min<std::size_t>(model.files.size(), 1) : model.files.size();
  for (std::size_t at = 0; at < files; ++at) append_file(text, model.files[at], model.options);
  if (model.baseline) append_baseline(text, *model.baseline);
  if (model.ranks) append_ranks(text, *model.ranks);
  return text;
}

}  // namespace ceilmeter::view
