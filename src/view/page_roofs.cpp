// The table of roofs: a row for each roof, a column for each thread count.
#include <algorithm>
#include <string>
#include <vector>

#include "view/page_html.h"
#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

struct roof_name {
  std::string name;
  std::string unit;
};

// In the order of the file; counts may have different roofs.
std::vector<roof_name> names_of(const file_view& file) {
  std::vector<roof_name> names;
  for (const roof_lines& roofs : file.roofs) {
    for (const roof_line& roof : roofs.lines) {
      const bool known = std::any_of(names.begin(), names.end(), [&](const roof_name& one) {
        return one.name == roof.name && one.unit == roof.unit;
      });
      if (!known) names.push_back({roof.name, roof.unit});
    }
  }
  return names;
}

void roof_cell(std::string& html, const roof_lines& roofs, const roof_name& name) {
  for (const roof_line& roof : roofs.lines) {
    if (roof.name != name.name || roof.unit != name.unit) continue;
    if (!roof.measured) {
      html += "<td class=\"number\">not measured</td>";
      return;
    }
    shown_figure shown = {.text = fixed(roof.value, 0), .sort = number(roof.value)};
    if (roof.scaled) shown.text += " (scaled)";
    number_cell(html, shown);
    return;
  }
  number_cell(html, {});
}

void roof_table(std::string& html, const view_model& model, std::size_t file) {
  const file_view& shown = model.files[file];
  std::string caption = "What the machine does at best";
  if (listed_files(model).size() > 1) caption += ": " + shown.file.label;
  open_table(html, "table-roofs-" + std::to_string(file), caption);
  html += "<thead><tr>";
  head_cell(html, "Roof", false);
  head_cell(html, "Unit", false);
  for (const roof_lines& roofs : shown.roofs) {
    head_cell(html, counted(roofs.threads, "thread"), true);
  }
  html += "</tr></thead>\n<tbody>\n";
  for (const roof_name& name : names_of(shown)) {
    html += "<tr data-file=\"" + std::to_string(file) + "\" data-roof=\"" + escape_xml(name.name) + "\">";
    html += "<th scope=\"row\">" + escape_xml(name.name) + "</th>";
    text_cell(html, name.unit);
    for (const roof_lines& roofs : shown.roofs) roof_cell(html, roofs, name);
    html += "</tr>\n";
  }
  close_table(html);
}

}  // namespace

std::string roofs_section(const view_model& model) {
  std::string html = "<section id=\"roofs\" aria-labelledby=\"roofs-title\">\n<h2 id=\"roofs-title\">Roofs</h2>\n";
  bool any = false;
  for (const std::size_t file : listed_files(model)) {
    const file_view& shown = model.files[file];
    if (shown.roofs.empty()) continue;
    any = true;
    roof_table(html, model, file);
    if (shown.drawn_roofs) {
      html += "<p>The picture shows the roofs of " + counted(shown.roofs[*shown.drawn_roofs].threads, "thread") +
              " at first.</p>\n";
    }
  }
  if (!any) html += "<p>There are no roofs.</p>\n";
  return html + "</section>\n";
}

}  // namespace ceilmeter::view
