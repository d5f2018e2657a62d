// Two runs laid side by side, and many ranks put together.
#include <string>

#include "view/page_html.h"
#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

std::string joined_remarks(const std::vector<remark>& remarks) {
  std::string text;
  for (const remark& one : remarks) text += (text.empty() ? "" : " ") + one.text;
  return text;
}

// "x 0.5": the later figure divided by the earlier one.
shown_figure show_ratio(const figure& ratio) {
  shown_figure shown = show_figure(ratio);
  if (!shown.sort.empty()) shown.text = "\xC3\x97 " + shown.text;
  return shown;
}

void pair_row(std::string& html, const view_model& model, const region_pair& pair) {
  const std::optional<std::size_t> region = pair.after ? pair.after : pair.before;
  html += "<tr data-file=\"" + std::string(pair.after ? "1" : "0") + "\" data-region=\"" +
          std::to_string(region.value_or(0)) + "\"><th scope=\"row\">" + escape_xml(pair.name) + "</th>";
  number_cell(html, show_time(pair.before ? model.files[0].regions[*pair.before].time : count()));
  number_cell(html, show_time(pair.after ? model.files[1].regions[*pair.after].time : count()));
  number_cell(html, show_ratio(pair.time_ratio));
  number_cell(html, show_ratio(pair.performance_ratio));
  for (const figure& ratio : pair.intensity_ratio) number_cell(html, show_ratio(ratio));
  number_cell(html, show_percent(pair.reached_before));
  number_cell(html, show_percent(pair.reached_after));
  text_cell(html, joined_remarks(pair.remarks));
  html += "</tr>\n";
}

void pair_table(std::string& html, const view_model& model) {
  open_table(html, "table-comparison", "Regions of both runs");
  html += "<thead><tr>";
  head_cell(html, "Region", false);
  head_cell(html, "Time before", true);
  head_cell(html, "Time after", true);
  head_cell(html, "Time", true, "After divided by before: below 1 is faster");
  head_cell(html, "GFLOP/s", true, "After divided by before");
  for (const char* level : level_names) {
    head_cell(html, "flop/byte " + std::string(level), true, "Intensity after divided by before");
  }
  head_cell(html, "Reached before", true);
  head_cell(html, "Reached after", true);
  head_cell(html, "Remarks", false);
  html += "</tr></thead>\n<tbody>\n";
  for (const region_pair& pair : model.baseline->pairs) pair_row(html, model, pair);
  close_table(html);
}

void roof_difference_table(std::string& html, const baseline_view& baseline) {
  if (baseline.roofs.empty()) return;
  // Two machines differ in every roof of every thread count; that many rows are there to be looked up.
  html += "<details><summary>" + counted(baseline.roofs.size(), "differing roof") + "</summary>\n";
  open_table(html, "table-roof-differences", "Roofs that differ");
  html += "<thead><tr>";
  head_cell(html, "Roof", false);
  head_cell(html, "Threads", true);
  head_cell(html, "Unit", false);
  head_cell(html, "Before", true);
  head_cell(html, "After", true);
  head_cell(html, "Ratio", true, "After divided by before");
  html += "</tr></thead>\n<tbody>\n";
  for (const roof_difference& roof : baseline.roofs) {
    html += "<tr><th scope=\"row\">" + escape_xml(roof.name) + "</th>";
    number_cell(html, show_count(static_cast<std::int64_t>(roof.threads)));
    text_cell(html, roof.unit);
    number_cell(html, show_figure(roof.before));
    number_cell(html, show_figure(roof.after));
    number_cell(html, show_ratio(roof.before > 0 ? figure(roof.after / roof.before) : std::nullopt));
    html += "</tr>\n";
  }
  close_table(html);
  html += "</details>\n";
}

// One cell for each rank; the longest rank's is the darkest, an absent one's is empty.
std::string heat_strip(const rank_region& region, const std::vector<std::string>& labels) {
  const std::string width = std::to_string(region.ranks.size());
  std::string svg = "<svg class=\"heat\" role=\"img\" viewBox=\"0 0 " + width +
                    " 1\" preserveAspectRatio=\"none\" aria-label=\"" + width + " ranks of " + escape_xml(region.name) +
                    ", time over the longest\">";
  for (std::size_t rank = 0; rank < region.ranks.size(); ++rank) {
    const rank_cell& cell = region.ranks[rank];
    if (!cell.present) continue;
    svg += "<rect x=\"" + std::to_string(rank) + "\" width=\"1\" height=\"1\" fill-opacity=\"" +
           fixed(cell.of_longest.value_or(0), 3) + "\"><title>" +
           escape_xml(rank < labels.size() ? labels[rank] : std::to_string(rank)) + ": " +
           escape_xml(show_time(cell.time).text) + "</title></rect>";
  }
  return svg + "</svg>";
}

std::string slowest_ranks(const rank_region& region, const std::vector<std::string>& labels) {
  std::string text;
  for (const std::size_t rank : region.slowest) {
    if (rank >= labels.size() || rank >= region.ranks.size()) continue;
    text += (text.empty() ? "" : ", ") + labels[rank] + " (" + show_time(region.ranks[rank].time).text + ")";
  }
  return text.empty() ? "-" : text;
}

void rank_row(std::string& html, const ranks_view& ranks, std::size_t index) {
  const rank_region& region = ranks.regions[index];
  html += "<tr><th scope=\"row\">" + escape_xml(region.name) + "</th>";
  number_cell(html, {.text = std::to_string(region.present) + " of " + std::to_string(ranks.labels.size()),
                     .sort = std::to_string(region.present)});
  number_cell(html, show_quantity(region.operations, ""));
  for (const count& bytes : region.bytes) number_cell(html, show_quantity(bytes, "B"));
  number_cell(html, show_time(region.time_longest));
  number_cell(html, show_time(region.time_shortest));
  number_cell(html, show_percent(region.spread));
  html += "<td>" + heat_strip(region, ranks.labels) + "</td>";
  text_cell(html, slowest_ranks(region, ranks.labels));
  text_cell(html, joined_remarks(region.remarks));
  html += "</tr>\n";
}

}  // namespace

std::string comparison_section(const view_model& model) {
  if (!model.baseline || model.files.size() < 2) return {};
  std::string html =
      "<section id=\"comparison\" aria-labelledby=\"comparison-title\">\n"
      "<h2 id=\"comparison-title\">Before and after</h2>\n";
  html += "<p>Before: " + escape_xml(model.files[0].file.label) + ". After: " + escape_xml(model.files[1].file.label) +
          ". A ratio is the later figure divided by the earlier one.</p>\n";
  pair_table(html, model);
  roof_difference_table(html, *model.baseline);
  return html + "</section>\n";
}

std::string ranks_section(const view_model& model) {
  if (!model.ranks) return {};
  std::string html = "<section id=\"ranks\" aria-labelledby=\"ranks-title\">\n<h2 id=\"ranks-title\">Ranks</h2>\n";
  open_table(html, "table-ranks", "Sums over ranks; time of the longest rank");
  html += "<thead><tr>";
  head_cell(html, "Region", false);
  head_cell(html, "Ranks", true, "Ranks that have the region");
  head_cell(html, "Operations", true);
  for (const char* level : level_names) head_cell(html, level, true);
  head_cell(html, "Longest", true);
  head_cell(html, "Shortest", true);
  head_cell(html, "Spread", true, "(longest - shortest) / longest");
  head_cell(html, "Time by rank", false, "Dark: as long as the longest rank");
  head_cell(html, "Slowest ranks", false);
  head_cell(html, "Remarks", false);
  html += "</tr></thead>\n<tbody>\n";
  for (std::size_t index = 0; index < model.ranks->regions.size(); ++index) rank_row(html, *model.ranks, index);
  close_table(html);
  return html + "</section>\n";
}

}  // namespace ceilmeter::view
