// Every formula of the viewer stands here, once: performance, intensity, bounds, limit, reached, remarks, and which
// roofs are drawn. docs/viewer.md explains them to users.
#pragma once

#include <string_view>

#include "view/model.h"

namespace ceilmeter::view {

// All that is derived from one file. Takes the records over.
file_view derive(result_file file, const view_options& options);

// The roofs that `threads` threads are held against: those of that count, else those of the root's count, else null.
const roof_set* roofs_for(const result_file& file, const count& threads);

// The class whose roof a region's arithmetic is held against, by the elements of most of its operations: 1, 2, 4 or 8.
// 0 without any operations in blocks.
std::int64_t main_width(const std::vector<block>& blocks);

// The better one of the roofs that hold multiply-adds of `width` elements, or null if none was measured.
const roof* multiply_add_roof(const roof_set& roofs, std::int64_t width);

// Sum and product with overflow told as an empty result.
count add(const count& a, const count& b);
count multiply(const count& a, const count& b);

// The last roof of that name, as long as it was measured; else null.
const roof* find_roof(const roof_set& roofs, std::string_view name);

// One of 1, 2, 4, 8: the widest class of roofs that `elements` fill.
std::int64_t width_class(std::int64_t elements);

}  // namespace ceilmeter::view
