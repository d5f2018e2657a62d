// Which roofs there are, which of them the picture shows by default, and what is odd about them. A part of formulas.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

std::optional<memory_level> level_of_roof(std::string_view name);

// One for each set of file.roofs. `file` supplies the widths that its operations have.
std::vector<roof_lines> describe_roofs(const result_file& file);

// Index of the set that the picture draws: `wanted`, else the root's count, else the largest. Empty without roofs.
std::optional<std::size_t> choose_roofs(const result_file& file, std::optional<std::uint64_t> wanted);

}  // namespace ceilmeter::view
