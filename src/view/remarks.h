// The sentences about a region and a file: what is missing and why, and what is suspicious. A part of formulas.
#pragma once

#include "view/model.h"

namespace ceilmeter::view {

// Fills `missing` from the state, and `remarks`. All other figures have been derived.
void explain_region(const result_file& file, const region& source, region_figures& figures);

// Remarks of the file as a whole.
void explain_file(file_view& view, const view_options& options);

}  // namespace ceilmeter::view
