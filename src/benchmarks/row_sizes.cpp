// The machine's caches from sysfs, and the rows against them.
#include "benchmarks/row_sizes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <string_view>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/benchmarks/row_sizes"};

// Empty if there is no such file.
std::string first_word(const std::string& path) {
  std::ifstream file(path);
  std::string word;
  file >> word;
  return word;
}

// "64K" or "32M"; 0 for anything else.
std::uint64_t size_of(std::string_view text) {
  std::uint64_t size = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
  if (error != std::errc()) return 0;
  const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
  if (unit == "K") return size << 10;
  if (unit == "M") return size << 20;
  return unit.empty() ? size : 0;
}

// How many processors a list such as "0-3,8" names; 1 for an empty or a strange one.
std::uint64_t count_processors(std::string_view list) {
  std::uint64_t count = 0;
  while (!list.empty()) {
    const std::string_view range = list.substr(0, list.find(','));
    list.remove_prefix(std::min(list.size(), range.size() + 1));
    std::uint64_t first = 0;
    const char* end = range.data() + range.size();
    const auto [dash, error] = std::from_chars(range.data(), end, first);
    if (error != std::errc()) return 1;
    std::uint64_t last = first;
    if (dash != end && std::from_chars(dash + 1, end, last).ec != std::errc()) return 1;
    if (last < first) return 1;
    count += last - first + 1;
  }
  return std::max<std::uint64_t>(count, 1);
}

struct memory_row {
  const char* name;
  int level;  // 0: memory.
  std::uint64_t bytes;
  bool measured_each_count;
};

constexpr std::array<memory_row, 5> memory_rows = {{{"L1", 1, l1_row_bytes, false},
                                                    {"L2", 2, l2_row_bytes, false},
                                                    {"L3", 3, l3_row_bytes, true},
                                                    {"DDR", 0, ddr_row_bytes, true},
                                                    {"DDR Numa-local", 0, ddr_row_bytes, true}}};

// The first cache that holds what `threads` threads sweep, with as many of them on it as have room; 0: none.
int level_read(const std::vector<data_cache>& caches, std::uint64_t bytes, std::uint64_t threads) {
  for (const data_cache& cache : caches) {
    if (bytes * std::min(threads, cache.processors) <= cache.bytes) return cache.level;
  }
  return 0;
}

std::string level_name(int level) { return level == 0 ? "memory" : "L" + std::to_string(level); }

}  // namespace

std::vector<data_cache> read_data_caches(const std::string& folder) {
  std::vector<data_cache> caches;
  for (int index = 0;; ++index) {
    const std::string path = folder + "/index" + std::to_string(index);
    const std::string type = first_word(path + "/type");
    if (type.empty()) break;
    data_cache cache;
    const std::string level = first_word(path + "/level");
    std::from_chars(level.data(), level.data() + level.size(), cache.level);
    cache.bytes = size_of(first_word(path + "/size"));
    cache.processors = count_processors(first_word(path + "/shared_cpu_list"));
    if (type != "Instruction" && cache.level > 0 && cache.bytes != 0) caches.push_back(cache);
  }
  std::stable_sort(caches.begin(), caches.end(),
                   [](const data_cache& left, const data_cache& right) { return left.level < right.level; });
  return caches;
}

std::vector<std::string> describe_misnamed_rows(const std::vector<data_cache>& caches,
                                                const std::set<std::uint64_t>& thread_counts) {
  std::vector<std::string> lines;
  if (caches.empty() || thread_counts.empty()) return lines;
  for (const memory_row& row : memory_rows) {
    // The counts by the level that is read with them, deepest last.
    std::array<std::string, 10> counts_by_level;
    for (const std::uint64_t threads : thread_counts) {
      const int level = std::min<int>(level_read(caches, row.bytes, threads), counts_by_level.size() - 1);
      if (level == row.level) {
        if (!row.measured_each_count) break;
        continue;
      }
      std::string& counts = counts_by_level[static_cast<std::size_t>(level)];
      counts += (counts.empty() ? "" : ", ") + std::to_string(threads);
      if (!row.measured_each_count) break;
    }
    for (std::size_t level = 0; level < counts_by_level.size(); ++level) {
      if (counts_by_level[level].empty()) continue;
      std::string line = std::string(row.name) + " reads " + level_name(static_cast<int>(level));
      if (row.measured_each_count) line += " with a thread count of " + counts_by_level[level];
      lines.push_back(line);
    }
  }
  return lines;
}

void warn_of_misnamed_rows(const std::set<std::uint64_t>& thread_counts) {
  std::string all;
  for (const std::string& line : describe_misnamed_rows(read_data_caches(cache_folder), thread_counts)) {
    all += (all.empty() ? "" : "; ") + line;
  }
  if (!all.empty()) log(LEVEL_WARN, "by the cache sizes of this machine: %s", all.c_str());
}

}  // namespace ceilmeter
