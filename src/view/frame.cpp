// With the lowest and highest bandwidth Bmin, Bmax and the lowest and highest rate Pmin, Pmax of the drawn roofs:
//
//   x from floor(lg(Pmin / Bmax) - 1) to ceil(lg(Pmax / Bmin) + 0.5)   all ridges, a decade to the left
//   y from floor(lg Bmin) + x0        to ceil(lg(1.2 Pmax))           the lowest roof at the left edge, room above
#include "view/frame.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace ceilmeter::view {

namespace {

// Keeps powers of ten at their own decade: lg(1000) may come out as 2.9999999999999996.
constexpr double epsilon = 1e-9;

int floor_decade(double value) { return static_cast<int>(std::floor(value + epsilon)); }
int ceil_decade(double value) { return static_cast<int>(std::ceil(value - epsilon)); }

std::optional<int> parse_integer(std::string_view text) {
  int value = 0;
  const auto done = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || done.ec != std::errc{} || done.ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

bool parse_range(std::string_view text, int& low, int& high) {
  constexpr int limit = 30;
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  const auto first = parse_integer(text.substr(0, colon));
  const auto second = parse_integer(text.substr(colon + 1));
  if (!first || !second || *first >= *second || *first < -limit || *second > limit) return false;
  low = *first;
  high = *second;
  return true;
}

// Without roofs the points alone make the frame; far ones are cut off by `most_decades`.
frame frame_of_points(const std::vector<log_point>& points) {
  constexpr int most_decades = 12;
  frame result;
  bool first_x = true;
  bool first_y = true;
  const auto include = [](int& low, int& high, bool& first, double value) {
    const int decade = static_cast<int>(std::floor(std::clamp(value, -300.0, 300.0)));
    low = first ? decade : std::max(std::min(low, decade), high - most_decades);
    high = first ? decade + 1 : std::min(std::max(high, decade + 1), low + most_decades);
    first = false;
  };
  for (const log_point& point : points) {
    include(result.y0, result.y1, first_y, point.y);
    if (point.x) include(result.x0, result.x1, first_x, *point.x);
  }
  return result;
}

}  // namespace

frame frame_of_roofs(const std::vector<double>& bandwidths, const std::vector<double>& rates) {
  // Without one kind of roofs a rate of one operation for each byte stands for it.
  std::vector<double> memory = bandwidths;
  std::vector<double> compute = rates;
  if (memory.empty() && compute.empty()) memory = {1, 100};
  if (memory.empty()) memory = compute;
  if (compute.empty()) compute = memory;
  const auto [low_memory, high_memory] = std::minmax_element(memory.begin(), memory.end());
  const auto [low_compute, high_compute] = std::minmax_element(compute.begin(), compute.end());
  frame result;
  result.x0 = floor_decade(std::log10(*low_compute / *high_memory) - 1);
  result.x1 = ceil_decade(std::log10(*high_compute / *low_memory) + 0.5);
  result.y0 = floor_decade(std::log10(*low_memory)) + result.x0;
  result.y1 = ceil_decade(std::log10(1.2 * *high_compute));
  result.y1 = std::max(result.y1, result.y0 + 1);
  return result;
}

frame widen(frame base, const std::vector<log_point>& points) {
  const auto stretch = [](int edge, int limit, double value, bool upwards) {
    if (!std::isfinite(value)) return edge;
    // A point on the edge line would be half outside: it gets the next decade.
    if (upwards) return value >= edge ? std::min(limit, static_cast<int>(std::floor(std::min(value, 1e6))) + 1) : edge;
    return value <= edge ? std::max(limit, static_cast<int>(std::ceil(std::max(value, -1e6))) - 1) : edge;
  };
  frame result = base;
  for (const log_point& point : points) {
    result.y0 = stretch(result.y0, base.y0 - max_widening, point.y, false);
    result.y1 = stretch(result.y1, base.y1 + max_widening, point.y, true);
    if (!point.x) continue;
    result.x0 = stretch(result.x0, base.x0 - max_widening, *point.x, false);
    result.x1 = stretch(result.x1, base.x1 + max_widening, *point.x, true);
  }
  return result;
}

std::optional<frame> parse_frame(std::string_view text) {
  frame result;
  const std::size_t comma = text.find(',');
  if (comma == std::string_view::npos || !parse_range(text.substr(0, comma), result.x0, result.x1) ||
      !parse_range(text.substr(comma + 1), result.y0, result.y1)) {
    return std::nullopt;
  }
  return result;
}

frame frame_of(const view_model& model) {
  if (model.options.fixed_frame) return *model.options.fixed_frame;
  std::vector<double> bandwidths;
  std::vector<double> rates;
  std::vector<log_point> points;
  const bool sums_alone = model.options.mode == view_mode::ranks;
  for (const file_view& view : model.files) {
    if (view.drawn_roofs) {
      for (const roof_line& line : view.roofs[*view.drawn_roofs].lines) {
        if (line.drawn && line.value > 0) (line.is_compute ? rates : bandwidths).push_back(line.value);
      }
    }
    for (const region_figures& one : view.regions) {
      if (!one.performance || *one.performance <= 0) continue;
      const double y = std::log10(*one.performance);
      points.push_back({std::nullopt, y});
      for (const figure& intensity : one.intensity) {
        if (intensity && *intensity > 0) points.push_back({std::log10(*intensity), y});
      }
    }
    if (sums_alone) break;
  }
  if (!bandwidths.empty() || !rates.empty()) return widen(frame_of_roofs(bandwidths, rates), points);
  return frame_of_points(points);
}

}  // namespace ceilmeter::view
