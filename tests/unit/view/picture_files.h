// The files whose pictures are tested: committed ones and hand-made ones that are hard to draw.
#pragma once

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "hand_made.h"
#include "view/compare.h"

namespace ceilmeter::view {

// Many regions in a cloud, from a fixed sequence of numbers.
inline result_file cloud(std::size_t regions, std::vector<roof_set> roofs, std::int64_t threads) {
  std::uint64_t state = 12345;
  const auto next = [&state](double low, double high) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    return low + (high - low) * static_cast<double>(state >> 40) / static_cast<double>(1 << 24);
  };
  std::vector<region> made_regions;
  for (std::size_t at = 0; at < regions; ++at) {
    const auto flop = static_cast<std::int64_t>(std::pow(10, next(7, 11)));
    const auto bytes = [&](double low, double high) {
      return static_cast<std::int64_t>(static_cast<double>(flop) * std::pow(10, next(low, high)));
    };
    const auto time = static_cast<std::int64_t>(static_cast<double>(flop) / std::pow(10, next(-1, 1.5)));
    made_regions.push_back(made("region number " + std::to_string(at), flop, time, threads,
                                {bytes(0.5, 1.3), bytes(-0.3, 0.5), bytes(-1, 0), bytes(-2, 0)}));
  }
  return file_of(std::move(made_regions), std::move(roofs), threads);
}

inline view_model compared_files() {
  view_options options;
  options.mode = view_mode::baseline;
  result_file before =
      file_of({made("solve", 9600000000, 800000000, 4, {100000000000, 20000000000, 4000000000, 16000000000}),
               made("gone", 80000000, 9000000, 4, {900000000, 300000000, 90000000, 60000000})},
              {machine(4)}, 4);
  result_file after =
      file_of({made("solve", 9600000000, 400000000, 4, {50000000000, 10000000000, 3000000000, 8000000000}),
               made("new", 90000000, 7000000, 4, {500000000, 200000000, 70000000, 20000000})},
              {machine(5)}, 4);
  after.roofs[0].threads = 4;
  before.label = "before";
  after.label = "after";
  return build_view({before, after}, options);
}

inline view_model far_points() {
  return build_view({file_of({made("far right", 4000000000000000, 100000000000, 1, {1000, 100, 10, 1}),
                              made("far down", 10, 900000000000, 1, {100, 100, 100, 100}),
                              made("no bytes", 500, 100, 1, {0, 0, 0, 0})},
                             {machine(1)}, 1)},
                    {});
}

inline view_model strange_names() {
  return build_view({file_of({made("</script><img src=x onerror=alert(1)>", 8000, 1000, 4, {64000, 16000, 4000, 1000}),
                              made("\"quoted\" & 'single'", 4000, 1000, 4, {64000, 16000, 4000, 1000}),
                              made(std::string(300, 'W'), 2000, 1000, 4, {64000, 16000, 4000, 1000})},
                             {machine(1), machine(4)}, 4)},
                    {});
}

inline std::vector<std::pair<std::string, view_model>> pictures() {
  roof_set near = {4,
                   {memory_roof("L1", 100), memory_roof("L2", 97), memory_roof("L3", 94), memory_roof("DDR", 91),
                    compute_roof("Scalar(DP)-FMADD", 50), compute_roof("f64x2-FMLA/FMLS", 51)}};
  view_options overlay;
  std::vector<std::pair<std::string, view_model>> all;
  for (const char* name : {"all_phases", "counters_only", "emulated", "roofs_only", "tracer_only"}) {
    all.emplace_back(name, build_view({committed(name)}, {}));
  }
  all.emplace_back("cloud", build_view({cloud(40, {machine(1), machine(4), machine(64)}, 64)}, {}));
  all.emplace_back("near_roofs", build_view({cloud(6, {near}, 4)}, {}));
  all.emplace_back("compared", compared_files());
  all.emplace_back("overlay", build_view({cloud(8, {machine(1)}, 1), cloud(5, {machine(7)}, 7)}, overlay));
  all.emplace_back("far_points", far_points());
  all.emplace_back("strange_names", strange_names());
  all.emplace_back("without_roofs", build_view({cloud(10, {}, 4)}, {}));
  return all;
}

}  // namespace ceilmeter::view
