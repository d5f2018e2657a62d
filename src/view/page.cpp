// Puts the page together: the template, its policy, and the sections of the model.
#include "view/page.h"

#include <string>
#include <string_view>

#include "view/page_parts.h"
#include "view/page_sections.h"
#include "view/page_texts.h"
#include "view/picture.h"
#include "view/sha256.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

struct page_part {
  std::string_view name;
  std::string text;
};

// Replaces each {{name}} of the template. One pass: what a part holds is never looked at again, whatever it says.
std::string fill(std::string_view form, const std::vector<page_part>& parts) {
  std::string page;
  for (;;) {
    const std::size_t open = form.find("{{");
    const std::size_t close = open == std::string_view::npos ? open : form.find("}}", open);
    if (close == std::string_view::npos) return page.append(form);
    page += form.substr(0, open);
    const std::string_view name = form.substr(open + 2, close - open - 2);
    for (const page_part& part : parts) {
      if (part.name == name) page += part.text;
    }
    form.remove_prefix(close + 2);
  }
}

// Nothing is loaded and nothing runs but what has one of these checksums; texts cannot become markup either.
std::string policy(std::string_view library, std::string_view script, std::string_view style) {
  return "default-src 'none'; script-src " + policy_hash(library) + " " + policy_hash(script) + "; style-src " +
         policy_hash(style) +
         "; base-uri 'none'; form-action 'none'; require-trusted-types-for 'script'; "
         "trusted-types 'none'";
}

std::string files_line(const view_model& model) {
  std::string line;
  for (const file_view& file : model.files) {
    line += (line.empty() ? "" : ", ") + file.file.label;
  }
  switch (model.options.mode) {
    case view_mode::single: return line == model.title ? "" : line;
    case view_mode::overlay: return std::to_string(model.files.size()) + " files: " + line;
    case view_mode::baseline: return "Two runs, before and after: " + line;
    case view_mode::ranks: return model.ranks ? counted(model.ranks->labels.size(), "rank") : line;
  }
  return line;
}

}  // namespace

std::string write_page(const view_model& model, const page_options& options) {
  std::string script;
  for (const std::string_view part : {common_js(), picture_js(), tables_js(), page_js()}) script += part;
  const std::string style = std::string(picture_style()) + std::string(page_css());
  return fill(page_template(), {
                                   {"policy", escape_xml(policy(d3_js(), script, style))},
                                   {"title", escape_xml(model.title)},
                                   {"files", escape_xml(files_line(model))},
                                   {"style", style},
                                   {"picture", draw_picture(model, {.standalone = false, .all_threads = true})},
                                   {"remarks", remarks_section(model)},
                                   {"missing", missing_section(model)},
                                   {"comparison", comparison_section(model)},
                                   {"ranks", ranks_section(model)},
                                   {"regions", regions_section(model)},
                                   {"roofs", roofs_section(model)},
                                   {"blocks", blocks_section(model, options)},
                                   {"data", page_data(model, options)},
                                   {"library", std::string(d3_js())},
                                   {"script", script},
                               });
}

}  // namespace ceilmeter::view
