// Fuzz target of the viewer: reads any bytes as a result file, derives the figures, compares the file with itself in
// each way, and draws the picture. Checks what must hold of every file that was read.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "view/compare.h"
#include "view/picture.h"
#include "view/read_result.h"
#include "view/text.h"

namespace ceilmeter::view {
namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

bool finite(const figure& one) { return !one || std::isfinite(*one); }

void check_file(const result_file& file) {
  for (const region& one : file.regions) {
    require(clean_utf8(one.name) == one.name, "names are clean");
    for (const block& part : one.blocks) require(part.module < file.modules.size(), "a block's module is in the table");
  }
  const auto rising = [](const roof_set& a, const roof_set& b) { return a.threads < b.threads; };
  require(std::is_sorted(file.roofs.begin(), file.roofs.end(), rising), "thread counts rise");
}

void check_region(const region_figures& figures) {
  require(finite(figures.performance) && finite(figures.reached), "figures are finite");
  for (std::size_t level = 0; level < level_count; ++level) {
    require(finite(figures.intensity[level]) && finite(figures.bandwidth[level]), "figures of a level are finite");
  }
  require(!figures.limit || figures.limit->seconds >= 0, "a limit is no negative time");
  require((figures.state == region_state::complete) == figures.missing.empty(), "what is missing is said");
}

void check_mode(const result_file& file, view_mode mode) {
  view_options options;
  options.mode = mode;
  std::vector<result_file> files(mode == view_mode::single ? 1 : 2, file);
  const view_model model = build_view(std::move(files), options);
  for (const file_view& view : model.files) {
    require(view.regions.size() == view.file.regions.size(), "each region has its figures");
    for (const region_figures& figures : view.regions) check_region(figures);
  }
  require(model.axes.x0 < model.axes.x1 && model.axes.y0 < model.axes.y1, "the frame has an area");
  const std::string svg = draw_picture(model, {.standalone = true, .all_threads = true});
  require(clean_utf8(svg) == svg, "the picture is valid UTF-8");
  require(svg.find("\"nan\"") == std::string::npos, "no place is not a number");
  for (const char* bad : {"\"inf\"", "\"-inf\"", "(inf", "(-inf", "(nan"}) {
    require(svg.find(bad) == std::string::npos, "no place is infinite");
  }
}

}  // namespace
}  // namespace ceilmeter::view

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ceilmeter::view;
  const read_outcome outcome = parse_result("fuzzed.json", std::string(reinterpret_cast<const char*>(data), size));
  require(outcome.ok == outcome.error.empty(), "a failure has its words");
  if (!outcome.ok) return 0;
  check_file(outcome.result);
  for (const view_mode mode : {view_mode::single, view_mode::overlay, view_mode::baseline, view_mode::ranks}) {
    check_mode(outcome.result, mode);
  }
  return 0;
}
