// Regions and roofs as plain text for a terminal. docs/viewer.md explains the columns.
#pragma once

#include <string>

#include "view/model.h"

namespace ceilmeter::view {

// For each file its path, a line for each region and the roofs of the whole run; what the file does not tell is a "-".
// Behind them, where files are compared, what the comparison says.
std::string write_table(const view_model& model);

}  // namespace ceilmeter::view
