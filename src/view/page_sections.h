// The parts that page.cpp puts together. Each function returns a whole <section>, or nothing if there is nothing to
// say.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "view/model.h"
#include "view/page.h"

namespace ceilmeter::view {

// How many blocks of a region stand in the page as a table; the others are in its data and need the script.
inline constexpr std::size_t static_blocks = 20;

// The files whose own figures the page lists: all, but of ranks the sums alone.
std::vector<std::size_t> listed_files(const view_model& model);

// Regions: the table that --table prints; bytes and intensity of each level; bandwidth and the share of each roof.
std::string regions_section(const view_model& model);

// "Not in the picture, because ..." for each region without a point.
std::string missing_section(const view_model& model);

// The remarks of files, roofs and regions.
std::string remarks_section(const view_model& model);

// The roofs of every thread count.
std::string roofs_section(const view_model& model);

// The hottest blocks of each region, and its operations by module and by width.
std::string blocks_section(const view_model& model, const page_options& options);

// Before and after. Only in mode `baseline`.
std::string comparison_section(const view_model& model);

// Regions over ranks, with the strip of times. Only in mode `ranks`.
std::string ranks_section(const view_model& model);

// The data block: tooltips and blocks, as JSON that may stand inside of a <script> element.
std::string page_data(const view_model& model, const page_options& options);

}  // namespace ceilmeter::view
