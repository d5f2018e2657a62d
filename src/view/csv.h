// Points and roofs as comma-separated values: for spreadsheets and for programs that draw by themselves.
#pragma once

#include <string>
#include <string_view>

#include "view/model.h"

namespace ceilmeter::view {

// One heading line, then for every file a line of kind "point" for each region and level, and one of kind "roof" for
// each roof of each thread count. UTF-8, lines end with CR LF, numbers have a dot and as many digits as give them back
// exactly. A cell is empty where its figure is not known or does not belong to the kind.
std::string write_csv(const view_model& model);

// A text as a cell: in quotes where it has to be, and with an apostrophe in front where a spreadsheet would take it for
// a formula.
std::string csv_text(std::string_view text);

}  // namespace ceilmeter::view
