#include "view/csv.h"

#include <cmath>
#include <span>
#include <vector>

#include "view/text.h"

namespace ceilmeter::view {

namespace {

// Where a value stands in a line; the order of `headings`.
enum column : std::size_t {
  KIND,
  FILE_PATH,
  NAME,
  LEVEL,
  THREADS,
  TIME,
  FLOP,
  BYTES,
  INTENSITY,
  PERFORMANCE,
  BANDWIDTH,
  LIMITED_BY,
  ROOF_THREADS,
  REACHED,
  VALUE,
  UNIT,
  NOTE,
  COLUMN_COUNT
};

constexpr std::array<const char*, COLUMN_COUNT> headings = {
    "kind",        "file",     "name",       "level",        "threads", "time_ns", "flop", "bytes", "flop_per_byte",
    "gflop_per_s", "gb_per_s", "limited_by", "roof_threads", "reached", "value",   "unit", "note"};

using cells = std::array<std::string, COLUMN_COUNT>;

std::string cell(const count& value) { return value ? number(*value) : ""; }

std::string cell(const figure& value) { return value && std::isfinite(*value) ? number(*value) : ""; }

// Thread counts are the one figure that has no sign.
std::string cell(std::uint64_t value) { return std::to_string(value); }

void append_line(std::string& text, std::span<const std::string> line) {
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (at > 0) text += ',';
    text += line[at];
  }
  text += "\r\n";
}

void append_points(std::string& text, const file_view& file) {
  for (const region_figures& region : file.regions) {
    cells line;
    line[KIND] = "point";
    line[FILE_PATH] = csv_text(file.file.path);
    line[NAME] = csv_text(region.name);
    line[THREADS] = cell(region.threads);
    line[TIME] = cell(region.time);
    line[FLOP] = cell(region.operations);
    line[PERFORMANCE] = cell(region.performance);
    if (region.limit) line[LIMITED_BY] = csv_text(region.limit->roof);
    if (region.roof_threads) line[ROOF_THREADS] = cell(*region.roof_threads);
    line[REACHED] = cell(region.reached);
    line[NOTE] = csv_text(region.missing);
    for (std::size_t level = 0; level < level_count; ++level) {
      line[LEVEL] = level_names[level];
      line[BYTES] = cell(region.bytes[level]);
      line[INTENSITY] = cell(region.intensity[level]);
      line[BANDWIDTH] = cell(region.bandwidth[level]);
      append_line(text, line);
    }
  }
}

void append_roofs(std::string& text, const file_view& file) {
  for (std::size_t at = 0; at < file.roofs.size(); ++at) {
    const roof_lines& set = file.roofs[at];
    for (std::size_t index = 0; index < set.lines.size(); ++index) {
      const roof_line& roof = set.lines[index];
      cells line;
      line[KIND] = "roof";
      line[FILE_PATH] = csv_text(file.file.path);
      line[NAME] = csv_text(roof.name);
      if (roof.level) line[LEVEL] = level_names[static_cast<std::size_t>(*roof.level)];
      line[THREADS] = cell(set.threads);
      // The file's own integer: a double would lose the low digits of a large one.
      line[VALUE] = number(file.file.roofs[at].roofs[index].value);
      line[UNIT] = csv_text(roof.unit);
      if (!roof.measured) line[NOTE] = "not measured";
      if (roof.scaled) line[NOTE] = "scaled from fewer threads";
      append_line(text, line);
    }
  }
}

}  // namespace

std::string csv_text(std::string_view text) {
  std::string clean = clean_utf8(text);
  // Spreadsheets take these for the beginning of a formula, some of them behind white space too.
  if (!clean.empty() && std::string_view("=+-@\t\r\n").find(clean.front()) != std::string_view::npos) {
    clean.insert(clean.begin(), '\'');
  }
  if (clean.find_first_of(",\"\r\n") == std::string::npos) return clean;
  std::string quoted = "\"";
  for (const char c : clean) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string write_csv(const view_model& model) {
  std::string text;
  append_line(text, std::vector<std::string>(headings.begin(), headings.end()));
  for (const file_view& file : model.files) append_points(text, file);
  for (const file_view& file : model.files) append_roofs(text, file);
  return text;
}

}  // namespace ceilmeter::view
