// Hot blocks of regions: the order, the shares, and the tables that stand in the page itself.
#include "view/page_blocks.h"

#include <algorithm>
#include <map>
#include <string>
#include <tuple>

#include "view/formulas.h"
#include "view/modules.h"
#include "view/page_html.h"
#include "view/page_sections.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

// For shares and for the order alone, where a double's precision is enough.
double work(const block& one) { return static_cast<double>(one.flop) * static_cast<double>(one.executions); }

double work(const region& of) {
  double sum = 0;
  for (const block& one : of.blocks) sum += work(one);
  return sum;
}

figure share_of(double part, double whole) { return whole > 0 ? figure(part / whole) : std::nullopt; }

bool hotter(const block* a, const block* b) {
  const double first = work(*a);
  const double second = work(*b);
  if (first != second) return first > second;
  return std::tie(a->module, a->dump_start, a->start) < std::tie(b->module, b->dump_start, b->start);
}

}  // namespace

std::string hex(std::uint64_t value) {
  std::string digits;
  do {
    digits.insert(digits.begin(), "0123456789abcdef"[value % 16]);
    value /= 16;
  } while (value > 0);
  return digits;
}

std::string mnemonics_text(const block_description& description) {
  std::string text;
  for (const char* mnemonic : description.mnemonics) {
    if (!text.empty()) text += ' ';
    text += mnemonic;
  }
  return text;
}

block_list list_blocks(const region& of, const std::optional<std::uint64_t>& limit) {
  std::vector<const block*> order;
  order.reserve(of.blocks.size());
  for (const block& one : of.blocks) order.push_back(&one);
  const std::size_t listed = std::min<std::uint64_t>(limit.value_or(order.size()), order.size());
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(listed), order.end(), hotter);

  block_list list;
  const double whole = work(of);
  double running = 0;
  for (std::size_t at = 0; at < listed; ++at) {
    const block& one = *order[at];
    const std::uint64_t instructions = one.dump_end > one.dump_start ? (one.dump_end - one.dump_start) / 4 : 0;
    running += work(one);
    list.listed.push_back(
        {.of = &one,
         .operations = multiply(one.flop, one.executions),
         .share = share_of(work(one), whole),
         .running = share_of(running, whole),
         .per_instruction = share_of(static_cast<double>(one.flop), static_cast<double>(instructions))});
  }
  list.rest = order.size() - listed;
  list.rest_executions = 0;
  list.rest_operations = 0;
  for (std::size_t at = listed; at < order.size(); ++at) {
    list.rest_executions = add(list.rest_executions, order[at]->executions);
    list.rest_operations = add(list.rest_operations, multiply(order[at]->flop, order[at]->executions));
  }
  return list;
}

std::vector<std::vector<std::uint64_t>> block_limits(const view_model& model,
                                                     const std::optional<std::uint64_t>& limit) {
  struct candidate {
    double operations;
    std::size_t file;
    std::size_t region;
  };
  std::vector<std::vector<std::uint64_t>> limits(model.files.size());
  std::vector<candidate> candidates;
  for (const std::size_t file : listed_files(model)) {
    for (const region& of : model.files[file].file.regions) {
      const std::size_t index = limits[file].size();
      limits[file].push_back(of.blocks.size());
      for (const block& one : of.blocks) candidates.push_back({work(one), file, index});
    }
  }
  if (!limit || candidates.size() <= *limit) return limits;
  const auto chosen = candidates.begin() + static_cast<std::ptrdiff_t>(*limit);
  std::nth_element(candidates.begin(), chosen, candidates.end(), [](const candidate& a, const candidate& b) {
    return a.operations != b.operations ? a.operations > b.operations
                                        : std::tie(a.file, a.region) < std::tie(b.file, b.region);
  });
  for (std::vector<std::uint64_t>& file : limits) std::fill(file.begin(), file.end(), 0);
  std::for_each(candidates.begin(), chosen, [&](const candidate& one) { ++limits[one.file][one.region]; });
  const std::uint64_t least = std::min<std::uint64_t>(*limit, static_blocks);
  for (std::vector<std::uint64_t>& file : limits) {
    for (std::uint64_t& region : file) region = std::max(region, least);
  }
  return limits;
}

std::vector<module_work> work_by_module(const region& of) {
  std::map<std::uint32_t, std::pair<module_work, double>> modules;
  const double whole = work(of);
  for (const block& one : of.blocks) {
    auto [place, fresh] = modules.try_emplace(one.module);
    auto& [sum, rough] = place->second;
    if (fresh) sum = {.module = one.module, .blocks = 0, .operations = 0, .share = {}};
    ++sum.blocks;
    sum.operations = add(sum.operations, multiply(one.flop, one.executions));
    rough += work(one);
    sum.share = share_of(rough, whole);
  }
  std::vector<module_work> list;
  list.reserve(modules.size());
  for (const auto& [module, sum] : modules) list.push_back(sum.first);
  std::stable_sort(list.begin(), list.end(), [](const module_work& a, const module_work& b) {
    return a.share.value_or(0) > b.share.value_or(0);
  });
  return list;
}

namespace {

struct blocks_writer {
  const view_model& model;
  const module_names* names;
  std::size_t file;
  std::size_t region;
  std::size_t limit;
  std::vector<std::string> modules;  // short ones

  std::string place() const { return std::to_string(file) + "-" + std::to_string(region); }

  void block_row(std::string& html, const listed_block& one) const {
    html += "<tr><th scope=\"row\"><code>" + escape_xml(modules[one.of->module]) + "+" + hex(one.of->dump_start) +
            "</code></th>";
    const block_description description = names != nullptr ? names->describe(*one.of) : block_description();
    if (names != nullptr) text_cell(html, description.function);
    number_cell(html, show_count(one.of->executions));
    number_cell(html, show_count(one.of->flop));
    number_cell(html, one.operations ? show_count(one.operations) : shown_figure{"exceeds 64 bits", ""});
    number_cell(html, show_percent(one.share));
    number_cell(html, show_percent(one.running));
    number_cell(html, show_figure(one.per_instruction));
    number_cell(html, show_count(one.of->elements));
    if (names != nullptr) html += "<td class=\"code\">" + escape_xml(mnemonics_text(description)) + "</td>";
    html += "</tr>\n";
  }

  void block_table(std::string& html, const block_list& list) const {
    const std::string what = list.rest > 0 ? "The hottest blocks" : "Blocks";
    open_table(html, "table-blocks-" + place(), what + " of " + model.files[file].regions[region].name);
    html += "<thead><tr>";
    head_cell(html, "Module and offset", false);
    if (names != nullptr) head_cell(html, "Function", false);
    head_cell(html, "Executions", true, "Over all threads");
    head_cell(html, "Per execution", true, "Floating-point operations of one execution");
    head_cell(html, "Operations", true);
    head_cell(html, "Share", true, "Of the region's operations");
    head_cell(html, "Running share", true, "This block and all above it");
    head_cell(html, "Per instruction", true, "Operations of one execution divided by the block's instructions");
    head_cell(html, "Elements", true, "The most elements of any floating-point instruction of the block");
    if (names != nullptr) head_cell(html, "Instructions", false);
    html += "</tr></thead>\n<tbody>\n";
    for (const listed_block& one : list.listed) block_row(html, one);
    if (list.rest > 0) {
      html += "<tr class=\"rest\"><th scope=\"row\">and " + counted(list.rest, "more block") + "</th>";
      if (names != nullptr) text_cell(html, "");
      number_cell(html, show_count(list.rest_executions));
      text_cell(html, "");
      number_cell(html, show_count(list.rest_operations));
      html += "<td></td><td></td><td></td><td></td>";
      html += names != nullptr ? "<td></td></tr>\n" : "</tr>\n";
    }
    close_table(html);
  }

  void module_table(std::string& html, const ceilmeter::view::region& of) const {
    open_table(html, "table-modules-" + place(), "Operations by module");
    html += "<thead><tr>";
    head_cell(html, "Module", false);
    head_cell(html, "Blocks", true);
    head_cell(html, "Operations", true);
    head_cell(html, "Share", true);
    html += "</tr></thead>\n<tbody>\n";
    for (const module_work& one : work_by_module(of)) {
      html += "<tr><th scope=\"row\">" + escape_xml(model.files[file].file.modules[one.module]) + "</th>";
      number_cell(html, show_count(static_cast<std::int64_t>(one.blocks)));
      number_cell(html, show_quantity(one.operations, ""));
      number_cell(html, show_percent(one.share));
      html += "</tr>\n";
    }
    close_table(html);
  }

  void width_table(std::string& html) const {
    const region_figures& figures = model.files[file].regions[region];
    if (figures.widths.empty()) return;
    open_table(html, "table-widths-" + place(), "Operations by elements of an instruction");
    html += "<thead><tr>";
    head_cell(html, "Elements", true);
    head_cell(html, "Operations", true);
    html += "</tr></thead>\n<tbody>\n";
    for (const width_work& one : figures.widths) {
      html += "<tr>";
      number_cell(html, show_count(one.elements));
      number_cell(html, show_quantity(one.operations, ""));
      html += "</tr>\n";
    }
    close_table(html);
  }

  std::string details(bool open) const {
    const ceilmeter::view::region& of = model.files[file].file.regions[region];
    const region_figures& figures = model.files[file].regions[region];
    const std::string label = listed_files(model).size() > 1 ? " (" + model.files[file].file.label + ")" : "";
    std::string html = "<details data-file=\"" + std::to_string(file) + "\" data-region=\"" + std::to_string(region) +
                       "\"" + (open ? " open" : "") + "><summary>" + escape_xml(figures.name + label) + ": " +
                       counted(of.blocks.size(), "block");
    if (figures.operations) html += ", " + quantity(*figures.operations, "") + " operations";
    html += "</summary>\n";
    block_table(html, list_blocks(of, limit));
    html += "<div class=\"side\">\n";
    module_table(html, of);
    width_table(html);
    return html + "</div></details>\n";
  }
};

const module_names* names_of(const page_options& options, std::size_t file) {
  return file < options.names.size() ? options.names[file] : nullptr;
}

}  // namespace

std::string blocks_section(const view_model& model, const page_options& options) {
  std::string html;
  std::size_t regions = 0;
  for (const std::size_t file : listed_files(model)) regions += model.files[file].regions.size();
  // If there are very many regions, the script lists their blocks, and the page without it has a few of each.
  const std::size_t limit = regions <= 50 ? static_blocks : 3;
  for (const std::size_t file : listed_files(model)) {
    const result_file& from = model.files[file].file;
    const std::vector<std::string> modules = shortened_paths(from.modules);
    for (std::size_t region = 0; region < from.regions.size(); ++region) {
      if (from.regions[region].blocks.empty()) continue;
      const blocks_writer writer = {model, names_of(options, file), file, region, limit, modules};
      html += writer.details(html.empty());
    }
  }
  if (html.empty()) return {};
  return "<section id=\"blocks\" aria-labelledby=\"blocks-title\">\n<h2 id=\"blocks-title\">Hot blocks</h2>\n"
         "<p id=\"blocks-hint\">Bytes and time are known of regions only, so blocks have no points.</p>\n" +
         html + "</section>\n";
}

}  // namespace ceilmeter::view
