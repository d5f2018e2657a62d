// The driver of the roof benchmarks. Benchmarks run one after the other, so that each sees the machine alone; those
// that are constructed together hold their buffers together.
#include "run_benchmarks.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/roof_list.h"
#include "benchmarks/row_sizes.h"
#include "common/log.h"
#include "progress.h"
#include "terminal_progress.h"

namespace ceilmeter {

namespace {

// The lines keep the name of the unit that this source was once cut out of: they are part of the interface.
constexpr tool_log log{"src/collector"};

using benchmark_list = std::vector<std::unique_ptr<benchmark_std>>;

benchmark_list make_all(const std::vector<roof_maker>& makers, std::uint64_t num_threads) {
  benchmark_list benchmarks;
  benchmarks.reserve(makers.size());
  for (const roof_maker& make : makers) benchmarks.push_back(make(static_cast<std::uint32_t>(num_threads)));
  return benchmarks;
}

// Runs the roofs one by one and tells on a terminal which one it is and how long it will take.
class roof_runner {
 public:
  explicit roof_runner(std::uint64_t rows) : m_rows(rows), m_start(std::chrono::steady_clock::now()) {}

  void run(benchmark_std& roof) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
    const std::uint64_t seconds = remaining_seconds(m_done, m_rows - m_done, elapsed.count());
    m_progress.show("roof " + std::to_string(m_done + 1) + " of " + std::to_string(m_rows) + ", " + roof.name +
                    ", about " + std::to_string(seconds) + " s left");
    roof();
    ++m_done;
  }

 private:
  terminal_progress m_progress;
  std::uint64_t m_rows;
  std::uint64_t m_done = 0;
  std::chrono::steady_clock::time_point m_start;
};

benchmark_result describe(benchmark_std& roof, std::uint64_t value) {
  return {.name = roof.name,
          .value = static_cast<std::int64_t>(value),
          .measure = roof.unit(),
          .is_compute = roof.is_compute()};
}

}  // namespace

benchmark_report run_benchmarks(std::set<std::uint64_t>& num_threads_set) {
  num_threads_set.erase(0);
  warn_of_misnamed_rows(num_threads_set);
  return run_benchmarks(num_threads_set, machine_roofs(), std::thread::hardware_concurrency());
}

benchmark_report run_benchmarks(std::set<std::uint64_t>& num_threads_set, const roof_list& roofs,
                                std::uint32_t hardware_concurrency) {
  benchmark_report report;
  num_threads_set.erase(0);
  if (num_threads_set.empty()) {
    log(LEVEL_WARN, "Cannot run benchmarks for zero thread");
    return report;
  }
  print_progress("Launch benchmarks for measuring roofs");

  std::uint64_t max_threads = hardware_concurrency;
  if (max_threads == 0) {
    log(LEVEL_WARN, "Cannot determine number of maximum number of concurrent threads");
    max_threads = 16;
  }
  constexpr std::uint64_t first_count_limit = 4096;
  std::uint64_t first_count = *num_threads_set.begin();
  if (first_count > first_count_limit) {
    first_count = first_count_limit;
    log(LEVEL_WARN, "To many threads for run benchmark, fallback to limit value = %lu", first_count_limit);
  }

  const benchmark_list once = make_all(roofs.measured_once, first_count);
  roof_runner runner(roofs.measured_once.size() + roofs.measured_each_count.size() * num_threads_set.size());
  for (const auto& roof : once) runner.run(*roof);

  for (const std::uint64_t num_threads : num_threads_set) {
    std::vector<benchmark_result> results;
    results.reserve(roofs.measured_once.size() + roofs.measured_each_count.size());
    const auto add = [&](benchmark_std& roof, std::uint64_t value) {
      results.push_back(describe(roof, value));
      const benchmark_result& added = results.back();
      log({LEVEL_DEBUG, __builtin_LINE(), "run_benchmarks"}, "%s benchmark for num_thread=%lu result: %lu %s",
          added.name.c_str(), num_threads, value, added.measure.c_str());
    };

    // Linear in the thread count, up to the processors and no further. Cut, never rounded.
    const double scale = static_cast<double>(std::min(num_threads, max_threads)) /
                         static_cast<double>(std::min(max_threads, first_count));
    for (const auto& roof : once) add(*roof, static_cast<std::uint64_t>(scale * roof->result()));

    // All of them exist at once, so that none is given pages that another has just freed, touched and placed already.
    const benchmark_list each = make_all(roofs.measured_each_count, num_threads);
    for (const auto& roof : each) {
      runner.run(*roof);
      add(*roof, roof->result());
    }
    report.insert(num_threads, std::move(results));
  }
  return report;
}

}  // namespace ceilmeter
