// Result files made by hand for the viewer's tests: as text for the reader, as records for everything behind it.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "view/model.h"
#include "view/read_result.h"

namespace ceilmeter::view {

inline roof memory_roof(const std::string& name, std::int64_t value) { return {name, value, "GB/s", false}; }
inline roof compute_roof(const std::string& name, std::int64_t value) { return {name, value, "GFLOPS", true}; }

// The thirteen roofs of a machine that is made up: `threads` times those of one thread.
inline roof_set machine(std::uint64_t threads) {
  const auto times = static_cast<std::int64_t>(threads);
  return {threads,
          {compute_roof("f16x8-FADD/FSUB", 48 * times), compute_roof("f32x4-FADD/FSUB", 24 * times),
           compute_roof("f64x2-FADD/FSUB", 12 * times), compute_roof("f32x4-FMLA/FMLS", 48 * times),
           compute_roof("f64x2-FMLA/FMLS", 24 * times), compute_roof("f16x8-FMLA/FMLS", 96 * times),
           compute_roof("Scalar(SP)-FMADD", 10 * times), compute_roof("Scalar(DP)-FMADD", 12 * times),
           memory_roof("L1", 90 * times), memory_roof("L2", 70 * times), memory_roof("L3", 40 * times),
           memory_roof("DDR", 10 * times), memory_roof("DDR Numa-local", 10 * times)}};
}

inline block work(std::int64_t flop, std::int64_t executions, std::int32_t elements) {
  block one;
  one.start = 0x400000 + static_cast<std::uint64_t>(elements) * 0x100;
  one.end = one.start + 0x40;
  one.dump_start = one.start - 0x400000;
  one.dump_end = one.dump_start + 0x40;
  one.flop = flop;
  one.executions = executions;
  one.elements = elements;
  return one;
}

// A region of one class of operations: 2 for each execution.
inline region made(const std::string& name, std::int64_t flop, std::int64_t time, std::int64_t threads,
                   const per_level<std::int64_t>& bytes, std::int32_t elements = 2) {
  region one;
  one.name = name;
  one.flop = flop;
  one.threads = threads;
  one.time = time;
  for (std::size_t level = 0; level < level_count; ++level) one.bytes[level] = bytes[level];
  if (flop > 0) one.blocks.push_back(work(2, flop / 2, elements));
  return one;
}

inline result_file file_of(std::vector<region> regions, std::vector<roof_set> roofs, std::int64_t threads) {
  result_file file;
  file.path = "made.json";
  file.label = "made";
  file.threads = threads;
  file.regions = std::move(regions);
  file.roofs = std::move(roofs);
  file.modules = {"/opt/app"};
  return file;
}

// One of the committed result files.
inline result_file committed(const std::string& name) {
  const read_outcome outcome = read_result(std::string(CEILMETER_VIEW_RESULTS) + "/" + name + ".json");
  result_file file = outcome.result;
  file.path = outcome.ok ? name + ".json" : outcome.error;
  return file;
}

inline std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ceilmeter::view
