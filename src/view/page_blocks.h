// The hot blocks of one region, in the order that tables and data list them in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "view/model.h"
#include "view/modules.h"

namespace ceilmeter::view {

struct listed_block {
  const block* of = nullptr;
  count operations;        // of all executions; empty: exceeds 64 bits
  figure share;            // of the region's operations
  figure running;          // share of this block and of all before it
  figure per_instruction;  // operations of one execution by instructions
};

struct block_list {
  std::vector<listed_block> listed;  // most operations first
  std::size_t rest = 0;              // blocks that aren't listed, and their sums
  count rest_executions;
  count rest_operations;
};

struct module_work {
  std::uint32_t module = 0;
  std::size_t blocks = 0;
  count operations;
  figure share;
};

// Lower case, without prefix or leading zeros, as the result file writes offsets.
std::string hex(std::uint64_t value);

// The block's instructions in order, with blanks between them.
std::string mnemonics_text(const block_description& description);

// At most `limit` blocks; empty: all of them.
block_list list_blocks(const region& of, const std::optional<std::uint64_t>& limit);

// For each file and region of the model how many blocks the page's data lists, so that they are the `limit` blocks of
// most operations of the whole page; without a limit all. A region has no fewer than the tables in the page show.
std::vector<std::vector<std::uint64_t>> block_limits(const view_model& model,
                                                     const std::optional<std::uint64_t>& limit);

// The region's operations by module, most first.
std::vector<module_work> work_by_module(const region& of);

}  // namespace ceilmeter::view
