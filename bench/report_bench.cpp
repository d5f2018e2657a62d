// Time and memory for the result file of a large application: the tool's own path (read, join, write), and its JSON
// library beside two others on the same file in the same run.
//
//   report_bench [--blocks N] [--regions N] [--thread-counts N] [--repetitions N]
//
// Every figure is the median over the repetitions. The repetitions go round all tasks in turn, so that a slow phase of
// the machine affects all tasks. Memory is a child's largest resident set, less that of a child that did only what
// precedes the task: nothing for the tool's path, loading the text for the libraries. So the peak of a print or a save
// contains the tree, and that of a print contains the new text as well. The texts differ in length, because cJSON puts
// a whole array on one line.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "child_task.h"
#include "finalizer.h"
#include "json_contenders.h"
#include "made_up_report.h"
#include "report_handler.h"

namespace ceilmeter::bench {

namespace {

struct settings {
  std::uint64_t blocks = 200000;
  std::uint64_t regions = 10;
  std::uint64_t thread_counts = 16;
  std::uint64_t repetitions = 7;
};

struct task {
  std::string name;
  std::string subject;
  std::size_t baseline;  // Index of the task whose memory is taken off.
  bool sees_blocks;      // Its result is a count of blocks.
  std::function<std::uint64_t(stopwatch&)> work;
  std::vector<task_cost> costs = {};
};

template <typename Value, typename Member>
Value median(const std::vector<task_cost>& costs, Member member) {
  std::vector<Value> values;
  for (const task_cost& cost : costs) values.push_back(cost.*member);
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string load(const std::string& path) {
  std::ifstream stream(path, std::ios::binary | std::ios::ate);
  std::string text(static_cast<std::size_t>(stream.tellg()), '\0');
  stream.seekg(0);
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

void require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "%s failed\n", what);
  _exit(1);
}

std::uint64_t blocks_of(const collector_report& report) {
  std::uint64_t count = 0;
  for (const region_metric& region : report.regions) count += region.bbs.size();
  return count;
}

// The path of a run that adds counters to an earlier file, up to step `steps`: all blocks are read, copied into the new
// regions, written.
std::uint64_t road(const settings& chosen, const std::string& path, const std::string& output, int steps,
                   stopwatch& watch) {
  std::vector<perfmon_region> counters = made_up_counters(chosen.regions);
  bintracer_report no_blocks;
  benchmark_report no_roofs;
  watch.start();
  collector_report report = read(path);
  if (steps > 1) finalize(report, no_blocks, counters, no_roofs);
  if (steps > 2) require(write(output, report), "write");
  watch.stop();
  return blocks_of(report);
}

std::vector<task> make_tasks(const settings& chosen, const std::string& path, const std::string& output) {
  std::vector<task> tasks;
  tasks.push_back({"nothing", "", 0, false, [](stopwatch&) { return std::uint64_t{0}; }});
  const char* steps[] = {"read", "read, join", "read, join, write"};
  for (int count = 1; count <= 3; ++count) {
    tasks.push_back({steps[count - 1], "report", 0, true, [&chosen, &path, &output, count](stopwatch& watch) {
                       return road(chosen, path, output, count, watch);
                     }});
  }
  const std::size_t loading = tasks.size();
  tasks.push_back({"load", "text", 0, false, [&path](stopwatch&) { return std::uint64_t{load(path).size()}; }});
  for (const json_contender& library : json_contenders) {
    tasks.push_back({"parse", library.name, loading, true, [&path, &library](stopwatch& watch) {
                       const std::string text = load(path);
                       watch.start();
                       void* tree = library.parse(text);
                       watch.stop();
                       require(tree != nullptr, "parse");
                       return library.count_blocks(tree);
                     }});
    tasks.push_back({"print", library.name, loading, true, [&path, &library](stopwatch& watch) {
                       const std::string text = load(path);
                       void* tree = library.parse(text);
                       require(tree != nullptr, "parse");
                       watch.start();
                       const std::size_t length = library.print(tree);
                       watch.stop();
                       require(length != 0, "print");
                       return library.count_blocks(tree);
                     }});
    tasks.push_back({"save", library.name, loading, true, [&path, &output, &library](stopwatch& watch) {
                       const std::string text = load(path);
                       void* tree = library.parse(text);
                       require(tree != nullptr, "parse");
                       watch.start();
                       const bool saved = library.save(tree, output.c_str());
                       watch.stop();
                       require(saved, "save");
                       return library.count_blocks(tree);
                     }});
  }
  return tasks;
}

void print_row(const task& row, std::int64_t baseline_kilobytes) {
  const auto seconds = median<double>(row.costs, &task_cost::seconds);
  // This task is its own baseline, so the difference would be 0.
  const auto kilobytes = median<std::int64_t>(row.costs, &task_cost::peak_kilobytes) - baseline_kilobytes;
  std::printf("%-18s %-10s %10.1f %10.1f\n", row.name.c_str(), row.subject.c_str(), seconds * 1e3,
              static_cast<double>(kilobytes) / 1024);
}

int run(const settings& chosen) {
  std::string path = "/tmp/report_bench_XXXXXX";
  const int file = mkstemp(path.data());
  require(file >= 0, "mkstemp");
  close(file);
  const std::string output = path + ".out";

  run_in_child([&chosen, &path](stopwatch&) {
    require(write(path, made_up_report(chosen.blocks, chosen.regions, chosen.thread_counts)), "write");
    return std::uint64_t{0};
  });

  std::vector<task> tasks = make_tasks(chosen, path, output);
  for (std::uint64_t round = 0; round < chosen.repetitions; ++round) {
    for (task& each : tasks) each.costs.push_back(run_in_child(each.work));
  }
  unlink(path.c_str());
  unlink(output.c_str());

  std::printf("%" PRIu64 " blocks in %" PRIu64 " regions, roofs for %" PRIu64 " thread counts\n", chosen.blocks,
              chosen.regions, chosen.thread_counts);
  std::printf("%-18s %-10s %10s %10s\n", "task", "of", "ms", "peak MiB");
  for (const task& row : tasks) {
    print_row(row, median<std::int64_t>(tasks[row.baseline].costs, &task_cost::peak_kilobytes));
  }

  for (const task& each : tasks) {
    for (const task_cost& cost : each.costs) {
      if (!each.sees_blocks || cost.seen == chosen.blocks) continue;
      std::fprintf(stderr, "%s of %s saw %" PRIu64 " blocks\n", each.name.c_str(), each.subject.c_str(), cost.seen);
      return 1;
    }
  }
  std::printf("every task saw %" PRIu64 " blocks\n", chosen.blocks);
  return 0;
}

bool read_settings(int argc, char** argv, settings& chosen) {
  const option options[] = {{"blocks", required_argument, nullptr, 'b'},
                            {"regions", required_argument, nullptr, 'r'},
                            {"thread-counts", required_argument, nullptr, 't'},
                            {"repetitions", required_argument, nullptr, 'n'},
                            {}};
  for (int found; (found = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (found == '?') return false;
    std::uint64_t& value = found == 'b'   ? chosen.blocks
                           : found == 'r' ? chosen.regions
                           : found == 't' ? chosen.thread_counts
                                          : chosen.repetitions;
    value = std::strtoull(optarg, nullptr, 10);
    if (value == 0) return false;
  }
  return optind == argc;
}

}  // namespace

}  // namespace ceilmeter::bench

int main(int argc, char** argv) {
  ceilmeter::bench::settings chosen;
  if (!ceilmeter::bench::read_settings(argc, argv, chosen)) {
    std::fprintf(stderr, "usage: %s [--blocks N] [--regions N] [--thread-counts N] [--repetitions N]\n", argv[0]);
    return 2;
  }
  return ceilmeter::bench::run(chosen);
}
