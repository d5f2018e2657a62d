// Records in words, so that two of them compare in one expectation whose failure shows both. One line a record, tables
// in their order of iteration.
#pragma once

#include <sstream>
#include <string>

#include "report.h"

namespace ceilmeter {

inline std::string in_words(const basic_block_record& block) {
  std::ostringstream out;
  out << std::hex << block.start << '-' << block.end << " file " << block.dump_start << '-' << block.dump_end
      << std::dec << " flop " << block.flop << " count " << block.count << " vector " << block.vector_length << " in "
      << block.module;
  return out.str();
}

inline std::string in_words(const basic_block_table& blocks) {
  std::string text;
  for (const auto& [start, block] : blocks) text += "  block " + in_words(block) + "\n";
  return text;
}

inline std::string in_words(const metric_table& metrics) {
  std::string text;
  for (const auto& [name, value] : metrics) text += "  " + name + " " + std::to_string(value) + "\n";
  return text;
}

inline std::string in_words(const region_metric& region) {
  return "region " + region.name + " flop " + std::to_string(region.flop) + " threads " +
         std::to_string(region.threads) + "\n" + in_words(region.bbs) + in_words(region.metrics);
}

inline std::string in_words(const std::vector<region_metric>& regions) {
  std::string text;
  for (const region_metric& region : regions) text += in_words(region);
  return text;
}

inline std::string in_words(const benchmark_report& benchmarks) {
  std::string text;
  for (const auto& [count, roofs] : benchmarks) {
    text += "roofs of " + std::to_string(count) + "\n";
    for (const benchmark_result& roof : roofs) {
      text += "  " + roof.name + " " + std::to_string(roof.value) + " " + roof.measure +
              (roof.is_compute ? " compute\n" : " memory\n");
    }
  }
  return text;
}

inline std::string in_words(const collector_report& report) {
  return "threads " + std::to_string(report.threads) + "\n" + in_words(report.regions) + in_words(report.benchmarks);
}

}  // namespace ceilmeter
