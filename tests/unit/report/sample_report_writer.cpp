// Writes a few result files into a folder, for the test of the schema: sample_report_writer FOLDER. Each file is named
// after what it is a sample of.
#include <cstdio>
#include <limits>
#include <string>

#include "report_handler.h"
#include "shared_names.h"

namespace ceilmeter {
namespace {

region_metric region_of(const std::string& name, std::uint64_t blocks, bool with_metrics) {
  region_metric region;
  region.name = name;
  region.threads = 3;
  for (std::uint64_t number = 0; number < blocks; ++number) {
    const std::uint64_t start = 0x400000 + number * 16;
    region.bbs.insert(start, {start, start + 12, number * 16, number * 16 + 12, 8, 25, 4, "/usr/lib/libm.so.6"});
  }
  if (with_metrics) {
    for (const std::string& metric : roofline_metric_names) region.metrics.insert(metric, 1000);
  }
  return region;
}

std::vector<benchmark_result> roofs_of(std::int64_t value) {
  return {{"L1", value, "GB/s", false}, {"f64x2-FMLA/FMLS", value * 2, "GFLOPS", true}};
}

bool write_samples(const std::string& folder) {
  collector_report full;
  full.regions = {region_of("init", 0, true), region_of("solve", 200, true), region_of("untraced", 3, false)};
  full.threads = 4;
  full.benchmarks.insert(1, roofs_of(100));
  full.benchmarks.insert(4, roofs_of(400));

  collector_report perfmon_only;
  perfmon_only.regions = {region_of("total", 0, true)};

  collector_report other_counts = full;
  other_counts.threads = 2;

  // All numbers at their ends: the sums and the unsigned ones wrap.
  collector_report extreme;
  extreme.threads = ~std::uint64_t{0};
  extreme.benchmarks.insert(extreme.threads, {{"", std::numeric_limits<std::int64_t>::min(), "", false}});
  region_metric& region = extreme.regions.emplace_back(region_of("", 0, true));
  region.metrics.clear();
  for (const std::string& metric : roofline_metric_names) region.metrics.insert(metric, std::uint64_t{1} << 63);
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  region.bbs.insert(~std::uint64_t{0}, {~std::uint64_t{0}, 0, ~std::uint64_t{0}, 0, most, most,
                                        std::numeric_limits<std::int32_t>::min(), ""});
  region.bbs.insert(0, {0, 0, 0, 0, most, -2, std::numeric_limits<std::int32_t>::max(), ""});

  return write(folder + "/empty.json", {}) && write(folder + "/full.json", full) &&
         write(folder + "/perfmon_only.json", perfmon_only) && write(folder + "/other_counts.json", other_counts) &&
         write(folder + "/extreme.json", extreme) && write(folder + "/read_back.json", read(folder + "/full.json"));
}

}  // namespace
}  // namespace ceilmeter

int main(int argc, char** argv) {
  if (argc == 2 && ceilmeter::write_samples(argv[1])) return 0;
  std::perror("sample_report_writer");
  return 1;
}
