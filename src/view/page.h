// The page: one HTML file with picture, tables, data, style and script inside. It loads nothing, and its policy lets
// nothing run but the script of this program.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "view/model.h"
#include "view/modules.h"

namespace ceilmeter::view {

struct page_options {
  // How many blocks the page lists, the ones with the most operations of all regions first; empty: all. What is left
  // out of a region is one exact row.
  std::optional<std::uint64_t> blocks = 10'000;
  // For each file of the model its modules, null where they are not at hand; or empty.
  std::vector<const module_names*> names;
};

// The whole page, UTF-8. Module paths are written as they stand in result_file::modules.
std::string write_page(const view_model& model, const page_options& options);

}  // namespace ceilmeter::view
