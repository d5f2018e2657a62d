// The page: one HTML file with picture, tables, data, style and script inside. It loads nothing, and its policy lets
// nothing run but the script of this program.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

// What is known of a block beyond the result file: from the module's symbol table and its code.
struct block_text {
  std::string function;                   // empty: no symbol
  std::vector<std::string> instructions;  // one text for each instruction, in order
};

// By index into result_file::modules and the block's dump_start.
using block_texts = std::map<std::pair<std::uint32_t, std::uint64_t>, block_text>;

struct page_options {
  // How many blocks the page lists, the ones with the most operations first; empty: all. What is left out is one exact
  // row for each region.
  std::optional<std::size_t> blocks = 10000;
  std::vector<block_texts> texts;  // one for each file of the model, or empty
};

// The whole page, UTF-8. Module paths are written as they stand in result_file::modules.
std::string write_page(const view_model& model, const page_options& options);

}  // namespace ceilmeter::view
