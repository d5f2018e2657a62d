// The axes: whole decades made from the roofs, so that two pictures of one machine can be laid side by side.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

// The most decades by which points may widen the frame on each side.
inline constexpr int max_widening = 3;

struct log_point {
  std::optional<double> x;  // lg of flop/byte; empty for a region whose bytes weren't counted
  double y = 0;             // lg of GFLOP/s
};

// Bandwidths in GB/s and rates in GFLOPS of the roofs that are drawn, all above 0; either list may be empty.
frame frame_of_roofs(const std::vector<double>& bandwidths, const std::vector<double>& rates);

frame widen(frame base, const std::vector<log_point>& points);

// "X0:X1,Y0:Y1", exponents of ten, each range at least one decade and within -30 to 30; empty on anything else.
std::optional<frame> parse_frame(std::string_view text);

// The frame of the model's picture: options.fixed_frame, else that of the drawn roofs of all files, widened.
frame frame_of(const view_model& model);

}  // namespace ceilmeter::view
