// Region mode through both application phases, `--mode=region` with the tracer: the same marks give blocks and counters
// under one name. The work inside the regions is fixed, and its floating-point operations are counted exactly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "report_handler.h"
#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr std::uint64_t flop_of_one_round = 2;  // A round of the script's work is one fused multiply-add.

class region_phases_test : public ::testing::Test {
 protected:
  std::filesystem::path result() const { return folder / "result.json"; }

  static std::string example(const std::string& name) {
    return (tool_path().parent_path() / "examples" / name).string();
  }

  process_result run(const std::string& phase, const std::vector<std::string>& application,
                     const process_options& how = {}) const {
    std::vector<std::string> words = {tool_path().string(), "--mode=region", "--phase=" + phase, "-o",
                                      result().string()};
    words.insert(words.end(), application.begin(), application.end());
    process_result done = run_process(words, how);
    EXPECT_EQ(done.status, 0) << done.out << done.err;
    return done;
  }

  process_result run_script(const std::string& phase, std::vector<std::string> words,
                            const std::string& program = "region_script") const {
    words.insert(words.begin(), program_path("regions/" + program).string());
    return run(phase, words, {.seconds_allowed = 800});
  }

  std::vector<std::string> region_names() const {
    std::vector<std::string> names;
    for (const region_metric& region : read(result().string()).regions) names.push_back(region.name);
    return names;
  }

  region_metric region(const std::string& name) const {
    for (region_metric& found : read(result().string()).regions) {
      if (found.name == name) return std::move(found);
    }
    ADD_FAILURE() << "no region " << name << " in " << content_of(result());
    return {};
  }

  // As in the file: the sum over all blocks of operations times executions.
  std::uint64_t flop(const std::string& name) const {
    std::uint64_t sum = 0;
    for (const auto& [start, block] : region(name).bbs) sum += static_cast<std::uint64_t>(block.flop * block.count);
    return sum;
  }

  std::uint64_t time(const std::string& name) const {
    const region_metric found = region(name);
    const std::uint64_t* value = found.metrics.find("time");
    return value != nullptr ? *value : 0;
  }

  // Blocks, counters and threads of one region, from both phases.
  void expect_joined_region(const std::string& name, std::uint64_t rounds) const {
    EXPECT_EQ(flop(name), rounds * flop_of_one_round);
    EXPECT_GT(time(name), 0u);
    EXPECT_EQ(region(name).metrics.size(), 5u);
    EXPECT_EQ(region(name).threads, 1u);
  }

  const temporary_folder folder;
};

TEST_F(region_phases_test, the_shared_librarys_marks_give_exact_counts_and_counters) {
  run_script("~benchmarks", {"work=10", "init", "start=r", "work=1000", "stop=r", "work=77", "finalize"});
  EXPECT_THAT(region_names(), ElementsAre("r"));
  expect_joined_region("r", 1000);
}

TEST_F(region_phases_test, the_static_librarys_marks_give_exact_counts_and_counters) {
  run_script("~benchmarks", {"work=10", "init", "start=r", "work=1000", "stop=r", "work=77", "finalize"},
             "region_script_static");
  expect_joined_region("r", 1000);
}

TEST_F(region_phases_test, marks_in_a_library_that_is_opened_later_give_exact_counts_and_counters) {
  const std::string library = (tool_path().parent_path() / "libroofline_events.so").string();
  run_script("~benchmarks", {"load=" + library, "init", "start=r", "work=1000", "stop=r", "work=77", "finalize"},
             "region_script_dlopen");
  expect_joined_region("r", 1000);
}

TEST_F(region_phases_test, marks_in_a_program_whose_code_does_not_begin_at_address_0_are_not_found) {
  run_script("bintracer", {"init", "start=r", "work=1000", "stop=r", "finalize"}, "region_script_shifted");
  EXPECT_THAT(region_names(), IsEmpty());
}

TEST_F(region_phases_test, the_phases_give_the_same_in_either_order) {
  const std::vector<std::string> words = {"init", "start=r", "work=50", "stop=r", "finalize"};
  run_script("perfmon", words);
  run_script("bintracer", words);
  expect_joined_region("r", 50);
  std::filesystem::remove(result());
  run_script("bintracer", words);
  run_script("perfmon", words);
  expect_joined_region("r", 50);
}

TEST_F(region_phases_test, under_the_tracer_no_counter_is_opened_and_the_application_leaves_the_report_alone) {
  const std::string calls = (folder / "calls").string();
  const process_result done =
      run_process({"strace", "-f", "--seccomp-bpf", "-e", "trace=perf_event_open,openat", "-o", calls,
                   tool_path().string(), "-o", result().string(), "--mode=region", "--phase=bintracer",
                   program_path("regions/region_script").string(), "init", "start=r", "work=10", "stop=r", "finalize"},
                  {.environment = {{"ROOFLINE_REPORT_FILE", result().string()}}});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_THAT(done.out, Not(HasSubstr("ROOFLINE_EVENTS")));
  const std::string trace = content_of(calls);
  EXPECT_THAT(trace, Not(HasSubstr("perf_event_open(")));
  // The tool's own opens: before and after the run it checks whether an earlier file can be read, reads it, opens it to
  // overwrite it, and creates one because there is none.
  std::size_t opened = 0;
  for (std::size_t at = 0; (at = trace.find(result().string(), at)) != std::string::npos; ++at) ++opened;
  EXPECT_EQ(opened, 5u) << trace;
}

TEST_F(region_phases_test, the_stencil_of_every_example_counts_its_operations_exactly) {
  // On n by n points an application costs one product a point and one sum a neighbour. The boundary has no neighbours.
  constexpr std::uint64_t n = 20;
  constexpr std::uint64_t iterations = 10;
  constexpr std::uint64_t expected = iterations * (n * n + 4 * n * n - 4 * n);
  const std::vector<std::vector<std::string>> examples = {{"solver_regions", "20", "10"},
                                                          {"solver_threads", "20", "10", "1"},
                                                          {"solver_threads", "20", "10", "2"},
                                                          {"solver_threads", "20", "10", "16"},
                                                          {"solver_openmp", "20", "10"}};
  for (std::vector<std::string> words : examples) {
    SCOPED_TRACE(::testing::PrintToString(words));
    words[0] = example(words[0]);
    std::filesystem::remove(result());
    std::vector<std::string> all = {tool_path().string(), "--mode=region", "--phase=bintracer", "-o",
                                    result().string()};
    all.insert(all.end(), words.begin(), words.end());
    // After so few iterations the error is one that the example itself calls a failure: status 1.
    EXPECT_EQ(run_process(all, {.environment = {{"OMP_NUM_THREADS", "2"}}}).status, 1);
    EXPECT_THAT(region_names(), UnorderedElementsAre("assembly", "stencil", "vectors"));
    EXPECT_EQ(flop("stencil"), expected);
    EXPECT_GT(flop("assembly"), 0u);
    EXPECT_GT(flop("vectors"), 0u);
  }
}

TEST_F(region_phases_test, the_stencil_in_fortran_counts_its_operations_exactly) {
  // There the boundary is a frame of zeros, so that every point has four neighbours.
  std::vector<std::string> words = {tool_path().string(),
                                    "--mode=region",
                                    "--phase=bintracer",
                                    "-o",
                                    result().string(),
                                    example("solver_fortran"),
                                    "20",
                                    "10"};
  EXPECT_EQ(run_process(words).status, 1);
  EXPECT_EQ(flop("stencil"), 10u * 5 * 20 * 20);
}

// Sixteen threads with `pairs` starts and stops each, one round of work inside.
std::vector<std::string> sixteen_threads(int pairs) {
  std::vector<std::string> words = {"init"};
  for (int thread = 0; thread < 16; ++thread) {
    words.insert(words.end(), {"{", "pairs=" + std::to_string(pairs) + ":r", "}"});
  }
  words.insert(words.end(), {"join", "finalize"});
  return words;
}

TEST_F(region_phases_test, sixteen_threads_with_many_pairs_give_the_exact_count) {
  const process_result done = run_script("bintracer", sixteen_threads(300));
  EXPECT_THAT(done.err, IsEmpty());
  EXPECT_EQ(flop("r"), 16u * 300 * flop_of_one_round);
  EXPECT_LE(region("r").threads, 16u);
  EXPECT_GE(region("r").threads, 1u);
}

// Run on its own, behind the label "long".
TEST_F(region_phases_test, DISABLED_sixteen_threads_with_a_million_pairs_give_the_exact_count) {
  run_script("bintracer", sixteen_threads(62500));
  EXPECT_EQ(flop("r"), 1'000'000u * flop_of_one_round);
}

TEST_F(region_phases_test, start_a_start_b_stop_b_stop_a_is_all_b_and_a_warning) {
  const process_result done = run_script(
      "bintracer", {"init", "start=A", "work=10", "start=B", "work=20", "stop=B", "work=40", "stop=A", "finalize"});
  EXPECT_THAT(log_lines(done.err),
              ElementsAre("bintracer warn pre_stop_roofline_handler: current region total doesn't match A"));
  EXPECT_THAT(region_names(), ElementsAre("B"));
  EXPECT_EQ(flop("B"), 30 * flop_of_one_round);
}

TEST_F(region_phases_test, a_stop_on_another_thread_leaves_the_first_one_in_the_region) {
  const process_result done =
      run_script("bintracer", {"init", "start=r", "work=10", "[", "stop=r", "work=7", "]", "work=11", "finalize"});
  EXPECT_THAT(log_lines(done.err),
              ElementsAre("bintracer warn pre_stop_roofline_handler: current region total doesn't match r"));
  EXPECT_EQ(flop("r"), 21 * flop_of_one_round);
}

TEST_F(region_phases_test, a_thread_that_ends_inside_a_region_is_counted_there) {
  run_script("bintracer", {"init", "[", "start=r", "work=10", "]", "start=r", "work=5", "stop=r", "finalize"});
  EXPECT_EQ(flop("r"), 15 * flop_of_one_round);
}

TEST_F(region_phases_test, an_exit_inside_a_region_without_finalize_is_counted_by_the_tracer) {
  run_script("bintracer", {"init", "start=r", "work=10", "exit=0"});
  EXPECT_EQ(flop("r"), 10 * flop_of_one_round);
}

// The child marks a region of its own and calls all functions, while its parent is in a region.
const std::vector<std::string> forked_inside_a_region = {"init",    "start=r",   "work=10", "(",
                                                         "start=c", "work=1000", "stop=c",  "finalize",
                                                         ")",       "work=5",    "stop=r",  "finalize"};

TEST_F(region_phases_test, a_child_that_is_forked_inside_a_region_is_not_in_the_tracers_result) {
  // The child's calls reach the child's copy of the tracer, which is thrown away, with or without a warning.
  run_script("bintracer", forked_inside_a_region);
  EXPECT_THAT(region_names(), ElementsAre("r"));
  EXPECT_EQ(flop("r"), 15 * flop_of_one_round);
}

TEST_F(region_phases_test, of_a_process_and_its_forked_child_the_last_to_finalize_has_its_counters_in_the_file) {
  // Its parent's group counts the child as well as the child's own group. Few counter units can do both at once: the
  // log may say so.
  run_script("perfmon", forked_inside_a_region);
  EXPECT_THAT(region_names(), ElementsAre("r"));
  EXPECT_GT(time("r"), 0u);
}

TEST_F(region_phases_test, the_variables_of_region_mode_reach_the_counted_application_and_not_the_traced_one) {
  // The traced one has the environment that the tool was started with.
  const process_result done = run("~benchmarks", {"/usr/bin/env"});
  const std::string variable = "ROOFLINE_REPORT_FILE=" + result().string() + "\n";
  const std::size_t first = done.out.find(variable);
  const std::size_t tracer = done.out.find("CEILMETER: Launch application to do binary instrumentation of ");
  EXPECT_LT(first, tracer) << done.out;
  EXPECT_EQ(done.out.find(variable, tracer), std::string::npos) << done.out;
}

TEST_F(region_phases_test, names_with_blanks_of_4000_characters_and_beyond_ascii_are_the_same_in_both_phases) {
  const std::string long_name(4000, 'x');
  run_script("~benchmarks", {"init", "start=two words ∇²", "work=10", "stop=two words ∇²", "start=" + long_name,
                             "work=9", "stop=" + long_name, "finalize"});
  EXPECT_THAT(region_names(), UnorderedElementsAre("two words ∇²", long_name));
  expect_joined_region("two words ∇²", 10);
  expect_joined_region(long_name, 9);
}

}  // namespace
}  // namespace ceilmeter::test
