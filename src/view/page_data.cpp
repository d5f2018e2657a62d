// The data block. Everything in it is text that C++ made: the script shows it and calculates nothing.
#include <array>
#include <string>

#include "view/modules.h"
#include "view/page_blocks.h"
#include "view/page_html.h"
#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

// A JSON text that may stand inside of a <script> element, whatever it holds: no character of markup is left, and none
// that ends a line in JavaScript.
std::string json_text(std::string_view text) {
  static constexpr std::array<escape_row, 9> rows = {{{"\"", "\\\""},
                                                      {"\\", "\\\\"},
                                                      {"<", "\\u003c"},
                                                      {">", "\\u003e"},
                                                      {"&", "\\u0026"},
                                                      {"\n", "\\n"},
                                                      {"\t", "\\t"},
                                                      {"\xE2\x80\xA8", "\\u2028"},
                                                      {"\xE2\x80\xA9", "\\u2029"}}};
  return "\"" + escape(text, rows) + "\"";
}

template <typename List, typename Write>
std::string json_array(const List& list, const Write& write) {
  std::string json = "[";
  for (const auto& one : list) {
    if (json.size() > 1) json += ',';
    json += write(one);
  }
  return json + "]";
}

std::string text_of(const count& value) { return value ? number(*value) : "-"; }

// [module, offset, executions, per execution, operations, share, running share, per instruction, elements] and with
// names [.., function, mnemonics].
std::string block_row(const listed_block& one, const module_names* names) {
  std::string json = "[" + std::to_string(one.of->module) + ",\"" + hex(one.of->dump_start) + "\",\"" +
                     number(one.of->executions) + "\",\"" + number(one.of->flop) + "\",\"" + text_of(one.operations) +
                     "\",\"" + show_percent(one.share).text + "\",\"" + show_percent(one.running).text + "\",\"" +
                     show_figure(one.per_instruction).text + "\"," + std::to_string(one.of->elements);
  if (names != nullptr) {
    const block_description description = names->describe(*one.of);
    json += "," + json_text(description.function) + "," + json_text(mnemonics_text(description));
  }
  return json + "]";
}

std::string blocks_object(const region& of, std::uint64_t limit, const module_names* names) {
  const block_list list = list_blocks(of, limit);
  std::string json = "\"blocks\":";
  json += json_array(list.listed, [&](const listed_block& one) { return block_row(one, names); });
  if (list.rest > 0) {
    json += ",\"rest\":[\"" + std::to_string(list.rest) + "\",\"" + text_of(list.rest_executions) + "\",\"" +
            text_of(list.rest_operations) + "\"]";
  }
  return json;
}

std::vector<std::string> region_lines(const file_view& file, const region_figures& region) {
  std::vector<std::string> lines;
  if (region.time) lines.push_back("time " + duration(*region.time));
  if (region.threads) lines.push_back(counted(static_cast<std::uint64_t>(*region.threads), "thread"));
  if (region.performance) lines.push_back(show_figure(region.performance).text + " GFLOP/s");
  if (region.limit) {
    std::string line = "limited by " + region.limit->roof;
    if (region.reached) line += ", reached " + show_percent(region.reached).text;
    lines.push_back(line);
  }
  if (region.roof_threads) lines.push_back("roofs of " + counted(*region.roof_threads, "thread"));
  if (!region.missing.empty()) lines.push_back(region.missing);
  lines.push_back("file " + file.file.label);
  return lines;
}

std::string level_line(const region_figures& region, std::size_t level) {
  std::string line = level_names[level];
  line += ": " + show_figure(region.intensity[level]).text + " flop/byte";
  if (region.bandwidth[level]) line += ", " + show_figure(region.bandwidth[level]).text + " GB/s";
  for (const bound& one : region.bounds) {
    if (one.is_compute || static_cast<std::size_t>(one.level) != level || !one.share) continue;
    line += ", " + show_percent(one.share).text + " of the roof";
  }
  return line;
}

std::string region_object(const file_view& file, std::size_t index, std::uint64_t limit, const module_names* names) {
  const region_figures& region = file.regions[index];
  std::string json =
      "{\"name\":" + json_text(region.name) + ",\"time\":\"" + number(region.time.value_or(0)) + "\",\"lines\":";
  json += json_array(region_lines(file, region), json_text) + ",\"levels\":{";
  for (std::size_t level = 0; level < level_count; ++level) {
    if (level > 0) json += ',';
    json += "\"" + std::string(level_class(level)) + "\":" + json_text(level_line(region, level));
  }
  return json + "}," + blocks_object(file.file.regions[index], limit, names) + "}";
}

}  // namespace

std::string page_data(const view_model& model, const page_options& options) {
  const std::vector<std::vector<std::uint64_t>> limits = block_limits(model, options.blocks);
  std::string json = "{\"files\":[";
  for (const std::size_t file : listed_files(model)) {
    const file_view& shown = model.files[file];
    const module_names* names = file < options.names.size() ? options.names[file] : nullptr;
    if (file > 0) json += ",\n";
    json += "{\"label\":" + json_text(shown.file.label) + ",\"modules\":";
    json += json_array(shortened_paths(shown.file.modules), json_text) + ",\"regions\":[";
    for (std::size_t region = 0; region < shown.regions.size(); ++region) {
      if (region > 0) json += ",\n";
      json += region_object(shown, region, limits[file][region], names);
    }
    json += "]}";
  }
  return json + "]}";
}

}  // namespace ceilmeter::view
