// Fuzz target of the result file's reader: reads any bytes as a file, checks what every report must hold, writes the
// report and, where the file can be read back, reads it back. The file is one in memory, private to the process.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "common/log.h"
#include "report_handler.h"
#include "shared_names.h"

namespace ceilmeter {
namespace {

// Only the stack bounds the parser's recursion, and that is intended. Deeper inputs are left out.
constexpr std::int64_t deepest_nesting = 1000;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

class memory_file {
 public:
  memory_file() : file_(memfd_create("report", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(file_)) {
    require(file_ >= 0, "there is a file in memory");
  }

  void fill(const std::uint8_t* data, std::size_t size) const {
    require(ftruncate(file_, 0) == 0, "the file is emptied");
    require(pwrite(file_, data, size, 0) == static_cast<ssize_t>(size), "the file is filled");
  }
  const std::string& path() const { return path_; }

 private:
  int file_;
  std::string path_;
};

bool named(const json_token* token, const char* key) {
  return json_get_key(token) != nullptr && std::string(json_get_key(token)) == key;
}

// A block whose eighth field is no string ends the process, and that is intended. The check looks at all duplicate
// keys, although the reader takes the first.
bool has_block_without_module(const json_token* root) {
  for (const json_token* regions = json_first_child(root); regions != nullptr; regions = json_next_sibling(regions)) {
    if (!named(regions, "regions")) continue;
    for (const json_token* region = json_first_child(regions); region != nullptr; region = json_next_sibling(region)) {
      for (const json_token* blocks = json_first_child(region); blocks != nullptr; blocks = json_next_sibling(blocks)) {
        if (!named(blocks, "bbs")) continue;
        for (const json_token* block = json_first_child(blocks); block != nullptr; block = json_next_sibling(block)) {
          const json_token* field = json_first_child(block);
          for (int position = 0; field != nullptr && position < 7; ++position) field = json_next_sibling(field);
          if (field != nullptr && json_get_string(field) == nullptr) return true;
        }
      }
    }
  }
  return false;
}

bool is_survivable(const std::string& text) {
  const auto openings = std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{');
  if (openings > deepest_nesting) return false;
  json_document* document = nullptr;
  json_parse(text.c_str(), &document);
  const bool survivable = !has_block_without_module(json_document_root(document));
  json_document_free(document);
  return survivable;
}

// The writer does not escape texts. With one of these two characters the file reads differently, or not at all.
bool reads_back(const std::string& text) { return text.find_first_of("\"\\") == std::string::npos; }

bool reads_back(const collector_report& report) {
  for (const region_metric& region : report.regions) {
    if (!reads_back(region.name)) return false;
    for (const auto& [start, block] : region.bbs) {
      if (!reads_back(block.module)) return false;
    }
  }
  for (const auto& [count, roofs] : report.benchmarks) {
    for (const benchmark_result& roof : roofs) {
      if (!reads_back(roof.name) || !reads_back(roof.measure)) return false;
    }
  }
  return true;
}

void check_regions(const collector_report& report) {
  for (const region_metric& region : report.regions) {
    require(region.metrics.size() == roofline_metric_names.size(), "a region has five metrics");
    for (const std::string& name : roofline_metric_names) require(region.metrics.contains(name), "each by its name");
    std::uint64_t seen = 0;
    for (const auto& [start, block] : region.bbs) {
      require(block.start == start, "a block stands under its start");
      require(region.bbs.find(start) == &block, "a block of the iteration is found");
      ++seen;
    }
    require(seen == region.bbs.size(), "the iteration sees every block once");
  }
}

void check_block(const basic_block_record& block, const basic_block_record& again) {
  require(block.end == again.end && block.dump_start == again.dump_start && block.dump_end == again.dump_end,
          "addresses read back");
  require(block.flop == again.flop && block.count == again.count && block.vector_length == again.vector_length,
          "numbers read back");
  require(block.module == again.module, "modules read back");
}

void check_same(const collector_report& report, const collector_report& again) {
  require(report.threads == again.threads, "the thread count reads back");
  require(report.regions.size() == again.regions.size(), "every region reads back");
  for (std::size_t number = 0; number < report.regions.size(); ++number) {
    const region_metric& region = report.regions[number];
    const region_metric& same = again.regions[number];
    require(region.name == same.name && region.threads == same.threads, "a region reads back");
    require(region.bbs.size() == same.bbs.size(), "every block reads back");
    std::uint64_t flop = 0;
    for (const auto& [start, block] : region.bbs) {
      require(same.bbs.contains(start), "a block reads back");
      check_block(block, *same.bbs.find(start));
      flop += static_cast<std::uint64_t>(block.flop) * static_cast<std::uint64_t>(block.count);
    }
    require(same.flop == flop, "a region's operations are the sum over its blocks");
    for (const auto& [name, value] : region.metrics) require(*same.metrics.find(name) == value, "a metric reads back");
  }
  require(report.benchmarks.size() == again.benchmarks.size(), "every thread count reads back");
  for (const auto& [count, roofs] : report.benchmarks) {
    const std::vector<benchmark_result>* same = again.benchmarks.find(count);
    require(same != nullptr && same->size() == roofs.size(), "every roof reads back");
    for (std::size_t number = 0; number < roofs.size(); ++number) {
      require(roofs[number].name == (*same)[number].name && roofs[number].value == (*same)[number].value &&
                  roofs[number].measure == (*same)[number].measure &&
                  roofs[number].is_compute == (*same)[number].is_compute,
              "a roof reads back");
    }
  }
}

}  // namespace
}  // namespace ceilmeter

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ceilmeter;
  static const memory_file input;
  static const memory_file output;
  mora_log_set_level(LEVEL_FATAL);

  if (!is_survivable(std::string(reinterpret_cast<const char*>(data), size))) return 0;
  input.fill(data, size);
  collector_report report;
  try {
    report = read(input.path());
  } catch (const std::invalid_argument&) {  // A thread count without digits, and that is wanted.
    return 0;
  } catch (const std::out_of_range&) {
    return 0;
  }
  check_regions(report);
  require(write(output.path(), report), "a report can be written");
  if (reads_back(report)) check_same(report, read(output.path()));
  return 0;
}
