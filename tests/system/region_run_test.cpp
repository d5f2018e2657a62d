// `ceilmeter --mode=region --phase=perfmon` on the examples, and on programs that make every mistake with regions, on a
// real kernel. The emulated counter unit opens the tool's events but moves none of them, so only the regions, their
// time and the log can be checked. That counts reach the file is shown with events of the tests' own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "report_handler.h"
#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

const std::string initialized_line = "ROOFLINE_EVENTS are initialized.\n";

class region_run_test : public ::testing::Test {
 protected:
  std::filesystem::path result() const { return folder / "result.json"; }

  static std::string example(const std::string& name) {
    return (tool_path().parent_path() / "examples" / name).string();
  }
  static std::string script(const std::string& name = "region_script") {
    return program_path("regions/" + name).string();
  }

  process_result run(const std::vector<std::string>& options, const std::vector<std::string>& application,
                     const process_options& how = {}) const {
    std::vector<std::string> words = {tool_path().string(), "--mode=region", "--phase=perfmon"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), application.begin(), application.end());
    process_result done = run_process(words, how);
    done.err = without_silent_metrics(done.err);
    return done;
  }

  // The script's words under the tool. Fails the test unless the script came to its end.
  process_result run_script(std::vector<std::string> words) const {
    words.insert(words.begin(), script());
    process_result done = run({"-o", result().string()}, words, {.seconds_allowed = 800});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_THAT(done.out, HasSubstr("\ndone\n")) << done.err;
    return done;
  }

  std::vector<std::string> region_names() const {
    std::vector<std::string> names;
    for (const region_metric& region : read(result().string()).regions) names.push_back(region.name);
    return names;
  }

  // A region's active time; fails the test if there is no such region, or it lacks one of the five metrics.
  std::uint64_t time_of(const std::string& name) const {
    for (const region_metric& region : read(result().string()).regions) {
      if (region.name != name) continue;
      EXPECT_EQ(region.metrics.size(), 5u) << name;
      const std::uint64_t* time = region.metrics.find("time");
      if (time != nullptr) return *time;
    }
    ADD_FAILURE() << "no time of region " << name << " in " << content_of(result());
    return 0;
  }

  const temporary_folder folder;
};

class region_example_test : public region_run_test, public ::testing::WithParamInterface<std::string> {};

TEST_P(region_example_test, has_its_three_regions_with_time_and_its_own_output) {
  std::vector<std::string> words = {GetParam(), "40", "60"};
  process_options how;
  if (const std::size_t blank = words[0].find(' '); blank != std::string::npos) {
    const std::string threads = words[0].substr(blank + 1);
    words[0].resize(blank);
    if (words[0] == "solver_openmp") {
      how.environment["OMP_NUM_THREADS"] = threads;
    } else {
      words.push_back(threads);
    }
  }
  words[0] = example(words[0]);
  const process_result done = run({"-o", result().string()}, words, how);
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.err, IsEmpty());
  EXPECT_THAT(done.out, HasSubstr(initialized_line + "points 1600, residual "));
  EXPECT_THAT(region_names(), ElementsAre("assembly", "stencil", "vectors"));
  for (const char* region : {"assembly", "stencil", "vectors"}) EXPECT_GT(time_of(region), 0u) << region;
}

std::string test_name(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(every_example, region_example_test,
                         ::testing::Values("solver_regions", "solver_threads 1", "solver_threads 2",
                                           "solver_threads 16", "solver_openmp 1", "solver_openmp 2",
                                           "solver_openmp 16", "solver_fortran"),
                         test_name);

TEST_F(region_run_test, outside_the_tool_no_counter_is_opened_and_nothing_is_printed) {
  const process_result done =
      run_process({"strace", "-f", "-e", "trace=perf_event_open", example("solver_threads"), "40", "60"},
                  {.folder = folder.path()});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.out, StartsWith("points 1600, residual "));
  EXPECT_THAT(done.err, Not(HasSubstr("perf_event_open(")));
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(region_run_test, an_application_without_regions_leaves_a_report_without_counters) {
  const process_result done = run({"-o", result().string()}, {example("solver"), "20", "20"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(region_names(), IsEmpty());
  EXPECT_THAT(content_of(result()), HasSubstr("\"bb_keys\""));
}

TEST_F(region_run_test, the_static_library_counts_as_the_shared_one) {
  const process_result done = run({"-o", result().string()}, {script("region_script_static"), "init", "start=r",
                                                              "work=1000", "stop=r", "finalize"});
  EXPECT_THAT(done.out, HasSubstr(initialized_line));
  EXPECT_GT(time_of("r"), 0u);
}

TEST_F(region_run_test, a_library_that_is_opened_while_the_program_runs_counts) {
  const std::string library = (tool_path().parent_path() / "libroofline_events.so").string();
  const process_result done = run({"-o", result().string()}, {script("region_script_dlopen"), "load=" + library, "init",
                                                              "start=r", "work=1000", "stop=r", "finalize"});
  EXPECT_THAT(done.out, HasSubstr(initialized_line));
  EXPECT_GT(time_of("r"), 0u);
}

TEST_F(region_run_test, names_with_blanks_of_4000_characters_and_beyond_ascii_reach_the_file) {
  const std::string long_name(4000, 'x');
  run_script({"init", "start=two words", "stop=two words", "start=" + long_name, "stop=" + long_name, "start=löser ∇²",
              "stop=löser ∇²", "finalize"});
  EXPECT_THAT(region_names(), UnorderedElementsAre("two words", long_name, "löser ∇²"));
}

TEST_F(region_run_test, start_without_init_is_counted_and_finalize_without_init_writes) {
  const process_result done = run_script({"start=r", "work=1000", "stop=r", "finalize"});
  EXPECT_THAT(done.out, Not(HasSubstr(initialized_line)));
  EXPECT_GT(time_of("r"), 0u);
}

TEST_F(region_run_test, start_a_start_b_stop_b_stop_a_counts_both_and_b_within_a) {
  const process_result done = run_script(
      {"init", "start=A", "work=10000", "start=B", "work=10000", "stop=B", "work=10000", "stop=A", "finalize"});
  // Two groups of six on one thread are more than most counter units hold. They then take turns, and the log says so.
  EXPECT_THAT(
      log_lines(done.err),
      Each(::testing::AnyOf("perfmon warn core counters have multiplexing!",
                            ::testing::MatchesRegex("perfmon warn the counters of [AB] region ran for [0-9.]+ % "
                                                    "of its time: its bytes are too low"))));
  EXPECT_GT(time_of("B"), 0u);
  EXPECT_GT(time_of("A"), time_of("B"));
}

TEST_F(region_run_test, a_stop_on_another_thread_warns_and_the_region_has_no_time) {
  const process_result done = run_script({"init", "start=r", "work=10000", "[", "stop=r", "]", "finalize"});
  EXPECT_THAT(log_lines(done.err), ElementsAre("perfmon warn roofline events don't exist for r region"));
  EXPECT_EQ(time_of("r"), 0u);
}

TEST_F(region_run_test, a_stop_before_the_start_warns) {
  const process_result done = run_script({"init", "stop=r", "finalize"});
  EXPECT_THAT(log_lines(done.err), ElementsAre("perfmon warn roofline events don't exist for r region"));
  EXPECT_THAT(region_names(), IsEmpty());
}

TEST_F(region_run_test, a_region_that_is_never_stopped_stands_in_the_file_without_time) {
  run_script({"init", "start=r", "work=10000", "finalize"});
  EXPECT_EQ(time_of("r"), 0u);
}

TEST_F(region_run_test, a_thread_that_ends_inside_a_region_leaves_the_region_in_the_file) {
  const process_result done = run_script({"init", "[", "start=r", "work=10000", "]", "finalize"});
  EXPECT_THAT(done.err, IsEmpty());
  EXPECT_EQ(time_of("r"), 0u);
}

TEST_F(region_run_test, two_threads_in_one_region_are_one_region) {
  run_script({"init", "{", "start=r", "work=100000", "stop=r", "}", "{", "start=r", "work=100000", "stop=r", "}",
              "join", "finalize"});
  EXPECT_THAT(region_names(), ElementsAre("r"));
  EXPECT_GT(time_of("r"), 0u);
}

TEST_F(region_run_test, after_finalize_the_application_has_the_descriptors_that_it_had_before) {
  const process_result done = run_script(
      {"init", "descriptors", "start=a", "start=b", "[", "start=a", "]", "descriptors", "finalize", "descriptors"});
  // Six counters in each of three groups.
  EXPECT_THAT(done.out, HasSubstr("\n3 descriptors\n21 descriptors\n3 descriptors\n"));
}

TEST_F(region_run_test, an_exit_without_finalize_leaves_what_an_earlier_run_wrote) {
  run_script({"init", "start=old", "work=1000", "stop=old", "finalize"});
  const std::uint64_t time = time_of("old");
  const process_result done = run({"-o", result().string()}, {script(), "init", "start=new", "stop=new", "exit=0"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(region_names(), ElementsAre("old"));
  EXPECT_EQ(time_of("old"), time);
}

TEST_F(region_run_test, regions_of_an_earlier_run_go_when_new_ones_come) {
  run_script({"init", "start=old", "stop=old", "finalize"});
  run_script({"init", "start=new", "stop=new", "finalize"});
  EXPECT_THAT(region_names(), ElementsAre("new"));
}

TEST_F(region_run_test, the_applications_status_reaches_the_log_and_not_the_tools_status) {
  const process_result done =
      run({"-o", result().string()}, {script(), "init", "start=r", "stop=r", "finalize", "exit=3"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(log_lines(done.err), Contains("run_application warn Application exit status is 3!"));
  EXPECT_THAT(region_names(), ElementsAre("r"));
}

TEST_F(region_run_test, both_processes_write_to_one_log_that_is_appended_to) {
  const std::filesystem::path log = folder / "log";
  write_file(log, "a line of yesterday\n");
  run({"-o", result().string(), "--log-append", "--log-file", log.string(), "--log-level=info"},
      {script(), "init", "start=r", "stop=r", "finalize"});
  const std::vector<std::string> lines = log_lines(content_of(log));
  const auto place = [&lines](const std::string& line) { return std::find(lines.begin(), lines.end(), line); };
  EXPECT_EQ(lines.at(0), "a line of yesterday");
  const auto launch = place("collector info Launch application " + script() + " in region mode");
  const auto init = place("roofline_events info init_perf_roofline_events");
  const auto written = place("roofline_events info Regions roofline events are written to " + result().string());
  const auto last = place("collector info Finishing collection for " + script());
  ASSERT_NE(last, lines.end()) << content_of(log);
  EXPECT_LT(launch, init);
  EXPECT_LT(init, written);
  EXPECT_LT(written, last);
}

TEST_F(region_run_test, a_report_that_cannot_be_written_costs_the_application_both_lines_and_ends_the_tool) {
  const std::string missing = (folder / "missing/result.json").string();
  const process_result done = run({"-o", missing, "--log-level=info"}, {script(), "init", "finalize"});
  const std::vector<std::string> lines = log_lines(done.err);
  const auto warning =
      std::find(lines.begin(), lines.end(), "roofline_events warn failed to write roofline events to " + missing + ".");
  ASSERT_NE(warning, lines.end()) << done.err;
  EXPECT_EQ(*(warning + 1), "roofline_events info Regions roofline events are written to " + missing);
  EXPECT_THAT(done.out, HasSubstr("\ndone\n"));
  EXPECT_EQ(done.status, 128 + 6);
}

TEST_F(region_run_test, a_relative_result_path_follows_the_application_to_another_folder) {
  // Without -o the path is the application's, as it was typed.
  std::filesystem::create_directory(folder / "elsewhere");
  std::filesystem::copy_file(script("region_script_static"), folder / "app");
  const process_result done =
      run({}, {"./app", "init", "start=r", "stop=r", "chdir=elsewhere", "finalize"}, {.folder = folder.path()});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(content_of(folder / "elsewhere/app.roofline.json"), HasSubstr("\"r\": {"));
  EXPECT_THAT(content_of(folder / "app.roofline.json"), Not(HasSubstr("\"r\": {")));
}

// As with the group over the whole application, the kernel refuses to make a thread if the group of its owner does not
// fit the unit. From level info on a group has ten counters; those that do not fit are closed at the first start.
TEST_F(region_run_test, at_info_a_thread_is_made_after_the_first_start_although_ten_counters_do_not_fit) {
  const process_result done =
      run({"-o", result().string(), "--log-level=info", "--log-file", (folder / "log").string()},
          {script(), "init", "start=r", "[", "work=1", "]", "stop=r", "finalize"});
  EXPECT_EQ(done.err, "");
  EXPECT_THAT(done.out, HasSubstr("\ndone\n"));
  // The group of six does not come to that.
  EXPECT_THAT(run_script({"init", "start=r", "[", "work=1", "]", "stop=r", "finalize"}).err, IsEmpty());
}

// The tool has opened the log before the application does, and writes to it again afterwards.
TEST_F(region_run_test, the_log_file_has_the_lines_of_tool_and_application) {
  const std::string log = (folder / "log").string();
  const process_result done = run({"-o", result().string(), "--log-level=info", "--log-file", log},
                                  {script(), "init", "start=r", "stop=r", "finalize"});
  EXPECT_EQ(done.status, 0);
  const std::vector<std::string> lines = log_lines(content_of(log));
  EXPECT_THAT(lines, Contains("roofline_events info init_perf_roofline_events"));
  EXPECT_THAT(lines, Contains("roofline_events info finalize_perf_roofline_events"));
  EXPECT_THAT(lines, Contains("collector info Finish phase Perfmon"));
  for (const std::string& line : lines) EXPECT_THAT(line, Not(HasSubstr("MORA")));  // No line within a line.
}

TEST_F(region_run_test, counters_of_an_earlier_run_are_told_where_the_application_writes_none) {
  run_script({"init", "start=r", "work=1", "stop=r", "finalize"});
  const process_result done = run({"-o", result().string()}, {script(), "init", "start=r", "stop=r"});
  EXPECT_THAT(log_lines(done.err),
              ElementsAre("stale_counters warn the application has written no counters: bytes and time of the regions "
                          "in " +
                          result().string() + " are those of an earlier run"));
  EXPECT_THAT(run_script({"init", "start=r", "work=1", "stop=r", "finalize"}).err, IsEmpty());
}

TEST_F(region_run_test, a_rank_without_a_result_of_its_own_is_warned_at_the_start) {
  process_options how;
  how.environment["PMIX_RANK"] = "3";
  const std::vector<std::string> application = {script(), "init", "start=r", "stop=r", "finalize"};
  EXPECT_THAT(log_lines(run({"-o", result().string()}, application, how).err),
              ElementsAre("main warn the environment shows a rank, but all ranks write " + result().string() +
                          ": put %r or %p into the name given with -o"));
  EXPECT_EQ(run({"-o", (folder / "result.%r.json").string()}, application, how).err, "");
}

// Sixteen threads, each with `shared` starts and stops of one region and `own` of another one.
std::vector<std::string> sixteen_threads(int shared, int own) {
  std::vector<std::string> words = {"init"};
  for (int thread = 0; thread < 16; ++thread) {
    words.insert(words.end(), {"{", "pairs=" + std::to_string(shared) + ":shared",
                               "pairs=" + std::to_string(own) + ":own " + std::to_string(thread), "}"});
  }
  words.insert(words.end(), {"join", "finalize"});
  return words;
}

TEST_F(region_run_test, sixteen_threads_with_many_pairs_end_with_their_regions) {
  const process_result done = run_script(sixteen_threads(500, 100));
  EXPECT_THAT(done.err, IsEmpty());
  EXPECT_EQ(region_names().size(), 17u);
  EXPECT_GT(time_of("shared"), 0u);
}

// Some 100 s on an emulated machine: run on its own, behind the label "long".
TEST_F(region_run_test, DISABLED_sixteen_threads_with_a_million_pairs_end_with_their_regions) {
  const process_result done = run_script(sixteen_threads(62500, 1));
  EXPECT_THAT(done.err, IsEmpty());
  EXPECT_EQ(region_names().size(), 17u);
  EXPECT_GT(time_of("shared"), 0u);
}

}  // namespace
}  // namespace ceilmeter::test
