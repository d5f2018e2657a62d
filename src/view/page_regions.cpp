// What the page says of regions: three tables, the regions without a point, and the remarks.
#include <algorithm>
#include <string>

#include "view/page_html.h"
#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

void name_heads(std::string& html, const view_model& model) {
  html += "<thead><tr>";
  head_cell(html, "Region", false);
  if (listed_files(model).size() > 1) head_cell(html, "File", false);
}

template <typename Cells>
void region_rows(std::string& html, const view_model& model, const Cells& cells) {
  html += "</tr></thead>\n<tbody>\n";
  for (const std::size_t file : listed_files(model)) {
    for (std::size_t region = 0; region < model.files[file].regions.size(); ++region) {
      open_region_row(html, model, file, region);
      cells(model.files[file].regions[region]);
      html += "</tr>\n";
    }
  }
  close_table(html);
}

void main_table(std::string& html, const view_model& model) {
  open_table(html, "table-regions", "Time, work and limit");
  name_heads(html, model);
  head_cell(html, "Threads", true, "The most threads inside the region when one of them left it");
  head_cell(html, "Time", true, "Time in which at least one thread was in the region");
  head_cell(html, "Operations", true, "Floating-point operations");
  head_cell(html, "GFLOP/s", true, "Operations divided by time");
  head_cell(html, "Limited by", false, "The roof that gives the region the longest shortest time");
  head_cell(html, "Reached", true, "That shortest time divided by the measured time");
  head_cell(html, "Roofs of", true, "Thread count of the roofs that the region is held against");
  region_rows(html, model, [&](const region_figures& region) {
    number_cell(html, show_count(region.threads));
    number_cell(html, show_time(region.time));
    number_cell(html, show_quantity(region.operations, ""));
    number_cell(html, show_figure(region.performance));
    text_cell(html, region.limit ? region.limit->roof : "-");
    number_cell(html, show_percent(region.reached));
    shown_figure threads;
    if (region.roof_threads) {
      threads = {counted(*region.roof_threads, "thread"), std::to_string(*region.roof_threads)};
    }
    number_cell(html, threads);
  });
}

void level_heads(std::string& html, const view_model& model, std::string_view first, std::string_view second) {
  html += "<thead><tr>";
  html += "<th scope=\"col\" rowspan=\"2\">Region</th>";
  if (listed_files(model).size() > 1) html += "<th scope=\"col\" rowspan=\"2\">File</th>";
  for (const std::string_view group : {first, second}) {
    html += "<th scope=\"colgroup\" colspan=\"4\" class=\"group\">" + escape_xml(group) + "</th>";
  }
  html += "</tr><tr>";
  for (int group = 0; group < 2; ++group) {
    for (const char* level : level_names) head_cell(html, level, true);
  }
}

void level_table(std::string& html, const view_model& model) {
  open_table(html, "table-levels", "Traffic of each memory level");
  level_heads(html, model, "Bytes", "Intensity, flop/byte");
  region_rows(html, model, [&](const region_figures& region) {
    for (const count& bytes : region.bytes) number_cell(html, show_quantity(bytes, "B"));
    for (const figure& intensity : region.intensity) number_cell(html, show_figure(intensity));
  });
}

const bound* bound_of(const region_figures& region, std::size_t level) {
  for (const bound& one : region.bounds) {
    if (!one.is_compute && static_cast<std::size_t>(one.level) == level) return &one;
  }
  return nullptr;
}

const bound* compute_bound(const region_figures& region) {
  for (const bound& one : region.bounds) {
    if (one.is_compute) return &one;
  }
  return nullptr;
}

// A figure, its bar and its share of the roof; sorted by the share where there is one.
void share_cell(std::string& html, const figure& rate, const bound* against, std::string_view style) {
  const shown_figure value = show_figure(rate);
  const shown_figure share = against != nullptr ? show_percent(against->share) : shown_figure{};
  const std::string& sort = share.sort.empty() ? value.sort : share.sort;
  html += "<td class=\"number share\"";
  if (!sort.empty()) html += " data-v=\"" + sort + "\"";
  html += ">" + value.text;
  if (against != nullptr && against->share) {
    html += bar(*against->share, style) + "<span class=\"of\">" + share.text + " of " + fixed(against->value, 0);
    if (against->is_compute) html += ", " + escape_xml(against->roof);
    html += "</span>";
  }
  html += "</td>";
}

void share_table(std::string& html, const view_model& model) {
  open_table(html, "table-shares", "Rates, and what share of each roof they are");
  name_heads(html, model);
  for (const char* level : level_names) head_cell(html, std::string(level) + ", GB/s", true);
  head_cell(html, "Arithmetic, GFLOP/s", true);
  region_rows(html, model, [&](const region_figures& region) {
    for (std::size_t level = 0; level < level_count; ++level) {
      share_cell(html, region.bandwidth[level], bound_of(region, level), level_class(level));
    }
    share_cell(html, region.performance, compute_bound(region), "compute");
  });
}

void remark_items(std::string& html, const std::string& before, const std::vector<remark>& remarks) {
  for (const remark& one : remarks) {
    const bool serious = one.kind == remark_kind::above_roof || one.kind == remark_kind::no_roofs;
    html += std::string("<li") + (serious ? " class=\"serious\"" : "") + ">";
    if (!before.empty()) html += "<strong>" + escape_xml(before) + ":</strong> ";
    html += escape_xml(one.text) + "</li>\n";
  }
}

// The file's name is said only where there are several.
std::string of_file(const view_model& model, std::size_t file, const std::string& rest) {
  if (listed_files(model).size() < 2) return rest;
  return model.files[file].file.label + (rest.empty() ? "" : ", " + rest);
}

}  // namespace

std::vector<std::size_t> listed_files(const view_model& model) {
  std::vector<std::size_t> files;
  const std::size_t end =
      model.options.mode == view_mode::ranks ? std::min<std::size_t>(1, model.files.size()) : model.files.size();
  for (std::size_t file = 0; file < end; ++file) files.push_back(file);
  return files;
}

std::string regions_section(const view_model& model) {
  bool any = false;
  for (const std::size_t file : listed_files(model)) any = any || !model.files[file].regions.empty();
  std::string html =
      "<section id=\"regions\" aria-labelledby=\"regions-title\">\n<h2 id=\"regions-title\">Regions</h2>\n";
  if (!any) return html + "<p>There are no regions.</p>\n</section>\n";
  main_table(html, model);
  level_table(html, model);
  share_table(html, model);
  return html + "</section>\n";
}

std::string missing_section(const view_model& model) {
  std::string items;
  for (const std::size_t file : listed_files(model)) {
    for (const region_figures& region : model.files[file].regions) {
      if (region.missing.empty()) continue;
      items += "<li><strong>" + escape_xml(of_file(model, file, region.name)) + ":</strong> " +
               escape_xml(region.missing) + "</li>\n";
    }
  }
  if (items.empty()) return {};
  return "<section id=\"missing\" aria-labelledby=\"missing-title\">\n"
         "<h2 id=\"missing-title\">Not in the picture</h2>\n<ul>\n" +
         items + "</ul>\n</section>\n";
}

std::string remarks_section(const view_model& model) {
  std::string items;
  if (model.baseline) remark_items(items, "", model.baseline->remarks);
  if (model.ranks) remark_items(items, "", model.ranks->remarks);
  for (const std::size_t file : listed_files(model)) {
    const file_view& shown = model.files[file];
    remark_items(items, of_file(model, file, ""), shown.remarks);
    for (const roof_lines& roofs : shown.roofs) {
      remark_items(items, of_file(model, file, "roofs of " + counted(roofs.threads, "thread")), roofs.remarks);
    }
    for (const region_figures& region : shown.regions) {
      remark_items(items, of_file(model, file, region.name), region.remarks);
    }
    for (const std::string& note : shown.file.notes) {
      remark_items(items, of_file(model, file, ""), {{.kind = remark_kind::other, .text = note}});
    }
  }
  if (items.empty()) return {};
  return "<section id=\"remarks\" aria-labelledby=\"remarks-title\">\n<h2 id=\"remarks-title\">Remarks</h2>\n<ul>\n" +
         items + "</ul>\n</section>\n";
}

}  // namespace ceilmeter::view
