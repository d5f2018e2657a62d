// The ranks of a parallel job put together. A part of compare.
#pragma once

#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

// One file of the sums over the ranks: flop, bytes and blocks added, time that of the longest rank, threads added.
result_file sum_of_ranks(const std::vector<file_view>& ranks);

ranks_view compare_ranks(const std::vector<file_view>& ranks);

}  // namespace ceilmeter::view
