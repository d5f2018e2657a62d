// Blocks lie where the blocks of a program and its libraries lie; counts range from a few to millions of millions.
#include "made_up_report.h"

#include <array>
#include <random>
#include <string>

#include "shared_names.h"

namespace ceilmeter::bench {

namespace {

constexpr std::uint64_t roofs_per_count = 13;

struct module_place {
  const char* path;
  std::uint64_t base;
};

constexpr std::array<module_place, 4> modules = {{
    {"/home/user/solver/build/bin/solver", 0x400000},
    {"/usr/lib/aarch64-linux-gnu/libm.so.6", 0xffff8a230000},
    {"/usr/lib/aarch64-linux-gnu/openblas-pthread/libblas.so.3", 0xffff8a400000},
    {"/usr/lib/aarch64-linux-gnu/libstdc++.so.6", 0xffff8c010000},
}};

std::string region_name(std::uint64_t number) { return "region_" + std::to_string(number); }

}  // namespace

collector_report made_up_report(std::uint64_t blocks, std::uint64_t regions, std::uint64_t thread_counts) {
  std::mt19937_64 random(1);
  collector_report report;
  report.threads = thread_counts;
  for (std::uint64_t number = 0; number < regions; ++number) {
    region_metric& region = report.regions.emplace_back();
    region.name = region_name(number);
    region.threads = 1 + number % thread_counts;
    const std::uint64_t share = blocks / regions + (number < blocks % regions ? 1 : 0);
    for (std::uint64_t made = 0; made < share; ++made) {
      const module_place& module = modules[random() % modules.size()];
      basic_block_record block;
      block.dump_start = 0x1000 + made * 64 + random() % 8 * 4;
      block.dump_end = block.dump_start + 4 + random() % 8 * 4;
      block.start = module.base + block.dump_start;
      block.end = module.base + block.dump_end;
      block.flop = static_cast<std::int64_t>(1 + random() % 64);
      block.count = static_cast<std::int64_t>(random() >> (24 + random() % 36));
      block.vector_length = 1 << (random() % 4);
      block.module = module.path;
      const std::uint64_t start = block.start;
      region.bbs.insert(start, std::move(block));
    }
    for (const std::string& name : roofline_metric_names) region.metrics.insert(name, random() >> 20);
  }
  for (std::uint64_t count = 1; count <= thread_counts; ++count) {
    std::vector<benchmark_result> roofs;
    for (std::uint64_t number = 0; number < roofs_per_count; ++number) {
      const bool is_compute = number >= 5;
      roofs.push_back({(is_compute ? "Vector FMA " : "Cache level ") + std::to_string(number),
                       static_cast<std::int64_t>(random() >> 24), is_compute ? "GFLOPS" : "GB/s", is_compute});
    }
    report.benchmarks.insert(count, std::move(roofs));
  }
  return report;
}

std::vector<perfmon_region> made_up_counters(std::uint64_t regions) {
  std::mt19937_64 random(2);
  std::vector<perfmon_region> counters;
  for (std::uint64_t number = 0; number < regions; ++number) {
    perfmon_region& region = counters.emplace_back();
    region.name = region_name(number);
    for (const std::string& name : roofline_metric_names) region.metrics.insert(name, random() >> 20);
  }
  return counters;
}

}  // namespace ceilmeter::bench
