// Tables, cells and bars. No style attribute is written: the page's policy forbids them, so bars are drawn in SVG.
#include "view/page_html.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

// Three digits, but no exponent up to a million millions: 19.2, 0.0004, 12345.
std::string plain(double value, int digits) {
  const double size = std::fabs(value);
  if (size >= std::pow(10, digits) && size < 1e12) return fixed(value, 0);
  return number(value, digits);
}

}  // namespace

shown_figure show_count(const count& value) {
  if (!value) return {};
  return {.text = number(*value), .sort = number(*value)};
}

shown_figure show_quantity(const count& value, std::string_view unit) {
  if (!value) return {};
  return {.text = quantity(*value, unit), .sort = number(*value)};
}

shown_figure show_time(const count& nanoseconds) {
  if (!nanoseconds) return {};
  return {.text = duration(*nanoseconds), .sort = number(*nanoseconds)};
}

shown_figure show_figure(const figure& value, int digits) {
  if (!value || !std::isfinite(*value)) return {};
  return {.text = plain(*value, digits), .sort = number(*value)};
}

shown_figure show_percent(const figure& share, int digits) {
  if (!share || !std::isfinite(*share)) return {};
  return {.text = plain(*share * 100, digits) + " %", .sort = number(*share)};
}

void open_table(std::string& html, std::string_view id, std::string_view caption) {
  const std::string name = escape_xml(id);
  // The frame scrolls; to be scrolled by keyboard it takes the focus, and so it needs a name.
  html += "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-labelledby=\"" + name + "-caption\">\n";
  html += "<table id=\"" + name + "\"><caption id=\"" + name + "-caption\">" + escape_xml(caption) + "</caption>\n";
}

void close_table(std::string& html) { html += "</tbody></table></div>\n"; }

void head_cell(std::string& html, std::string_view text, bool number, std::string_view explanation) {
  html += number ? "<th scope=\"col\" class=\"number\"" : "<th scope=\"col\"";
  if (!explanation.empty()) html += " title=\"" + escape_xml(explanation) + "\"";
  html += ">" + escape_xml(text) + "</th>";
}

void text_cell(std::string& html, std::string_view text) { html += "<td>" + escape_xml(text) + "</td>"; }

void number_cell(std::string& html, const shown_figure& shown) {
  html += "<td class=\"number\"";
  if (!shown.sort.empty()) html += " data-v=\"" + shown.sort + "\"";
  html += ">" + escape_xml(shown.text) + "</td>";
}

void open_region_row(std::string& html, const view_model& model, std::size_t file, std::size_t region) {
  const file_view& shown = model.files[file];
  html += "<tr data-file=\"" + std::to_string(file) + "\" data-region=\"" + std::to_string(region) + "\">";
  html += "<th scope=\"row\">" + escape_xml(shown.regions[region].name) + "</th>";
  if (listed_files(model).size() > 1) text_cell(html, shown.file.label);
}

std::string bar(double share, std::string_view style) {
  const double width = std::isfinite(share) ? std::clamp(share, 0.0, 1.0) * 100 : 0;
  std::string svg = "<svg class=\"bar\" viewBox=\"0 0 100 8\" preserveAspectRatio=\"none\" aria-hidden=\"true\">";
  svg += "<rect class=\"bar-back\" width=\"100\" height=\"8\"/>";
  svg += "<rect class=\"bar-fill " + std::string(style) + "\" width=\"" + fixed(width, 1) + "\" height=\"8\"/>";
  if (share > 1) svg += "<rect class=\"bar-over\" x=\"96\" width=\"4\" height=\"8\"/>";
  return svg + "</svg>";
}

std::string_view level_class(std::size_t level) {
  static constexpr std::array<std::string_view, level_count> classes = {"l1", "l2", "l3", "ddr"};
  return classes[level];
}

}  // namespace ceilmeter::view
