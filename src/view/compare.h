// From the files of a command line to the whole that is shown: one file, an overlay, a baseline or ranks.
#pragma once

#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

// `files` in the order of the command line, at least one; exactly two for mode `baseline`. With one file the mode
// becomes `single`, except for `ranks`; with several and mode `single` it becomes `overlay`.
view_model build_view(std::vector<result_file> files, const view_options& options);

// Whether two values of one roof are so far apart that both have to be drawn: more than 3 % of the first.
bool roofs_differ(double before, double after);

}  // namespace ceilmeter::view
