// Every formula of the viewer stands here, once: performance, intensity, bounds, limit, reached, remarks, and which
// roofs are drawn. docs/viewer.md explains them to users.
#pragma once

#include "view/model.h"

namespace ceilmeter::view {

// All that is derived from one file. Takes the records over.
file_view derive(result_file file, const view_options& options);

// The roofs that `threads` threads are held against: those of that count, else those of the root's count, else null.
const roof_set* roofs_for(const result_file& file, const count& threads);

// Sum and product with overflow told as an empty result.
count add(const count& a, const count& b);
count multiply(const count& a, const count& b);

}  // namespace ceilmeter::view
