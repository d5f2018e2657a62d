// `ceilmeter --phase=bintracer` on real programs and a real kernel: output, status, log and result file. The tests of
// tracer/ show that the counts are exact, by an independent count.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "report_handler.h"
#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class tracer_run : public ::testing::Test {
 protected:
  process_result run(const std::vector<std::string>& options, const std::vector<std::string>& application) const {
    std::vector<std::string> words = {tool_path().string(), "--phase=bintracer", "-o", result().string()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), application.begin(), application.end());
    return run_process(words, {.folder = folder.path()});
  }

  std::filesystem::path result() const { return folder / "result.json"; }

  static std::string program(const std::string& name) { return program_path("tracer/" + name).string(); }

  // Does what its words say; chdir=FOLDER is one of them.
  static std::string moving_program() { return program_path("regions/region_script_static").string(); }

  // The one region of a run over the whole application.
  region_metric total() const {
    const collector_report report = read(result());
    if (report.regions.size() != 1 || report.regions[0].name != "total") {
      ADD_FAILURE() << "the result has not the one region \"total\": " << content_of(result());
      return {};
    }
    return report.regions[0];
  }

  temporary_folder folder;
};

TEST_F(tracer_run, lines_of_the_tool_stand_around_the_applications) {
  const process_result traced = run({}, {program("fixed_work"), "3"});
  EXPECT_EQ(traced.status, 0);
  EXPECT_EQ(traced.err, "");
  EXPECT_EQ(traced.out, "CEILMETER: Start collection for " + program("fixed_work") +
                            "\nCEILMETER: Launch application to do binary instrumentation of " + program("fixed_work") +
                            "\n3000\nCEILMETER: Processing all collected data\nCEILMETER: Result is captured at " +
                            result().string() + "\nCEILMETER: Run \"ceilview " + result().string() +
                            "\" to get report.\n");
}

TEST_F(tracer_run, status_is_the_applications) {
  EXPECT_EQ(run({}, {"/bin/sh", "-c", "exit 3"}).status, 3);
  EXPECT_EQ(run({}, {"/bin/false"}).status, 1);
  EXPECT_TRUE(std::filesystem::exists(result()));
}

TEST_F(tracer_run, work_and_threads_of_fixed_work_are_exact_from_2_to_32_threads) {
  for (const unsigned threads : {2U, 4U, 8U, 16U, 32U}) {
    EXPECT_EQ(run({}, {program("fixed_work"), std::to_string(threads)}).status, 0);
    const region_metric region = total();
    EXPECT_EQ(region.flop, 2000U * threads) << threads;
    EXPECT_EQ(region.threads, threads + 1) << "the first thread waits for the others";
  }
}

TEST_F(tracer_run, block_of_the_application_is_tied_to_its_file) {
  run({}, {program("long_block")});
  const region_metric region = total();
  // The loop is entered once from above, in a block that begins at the function, and twice from its end.
  ASSERT_EQ(region.bbs.size(), 2U);
  std::int64_t count = 0;
  for (const auto& [start, block] : region.bbs) {
    EXPECT_EQ(block.module, program("long_block"));
    EXPECT_EQ(block.flop, 7000);
    EXPECT_EQ(block.vector_length, 2);
    EXPECT_GE(block.end - block.start, 5000U * 4);
    EXPECT_EQ(block.end - block.start, block.dump_end - block.dump_start);
    count += block.count;
  }
  EXPECT_EQ(count, 3);
}

TEST_F(tracer_run, relative_result_path_starts_at_the_folder_of_the_tool_wherever_the_application_has_gone) {
  std::filesystem::create_directory(folder / "elsewhere");
  const process_result traced = run({"-o", "here.json"}, {moving_program(), "chdir=elsewhere"});
  EXPECT_EQ(traced.status, 0) << traced.err;
  EXPECT_THAT(traced.out, HasSubstr("CEILMETER: Result is captured at here.json\n"));
  EXPECT_TRUE(std::filesystem::exists(folder / "here.json"));
  EXPECT_TRUE(std::filesystem::is_empty(folder / "elsewhere"));
}

TEST_F(tracer_run, default_result_path_is_beside_the_application_wherever_that_has_gone) {
  std::filesystem::create_directory(folder / "elsewhere");
  std::filesystem::copy_file(moving_program(), folder / "app");
  write_file(folder / "app.roofline.json", "{\"regions\": {\"total\": {\"bbs\": [], \"time\": 77}}}");
  run_process({tool_path().string(), "--phase=bintracer", "app", "chdir=elsewhere"}, {.folder = folder.path()});
  EXPECT_THAT(content_of(folder / "app.roofline.json"), HasSubstr("\"threads\": 1"));
  EXPECT_THAT(content_of(folder / "app.roofline.json"), HasSubstr("\"time\": 77")) << "the earlier file was not read";
  EXPECT_TRUE(std::filesystem::is_empty(folder / "elsewhere"));
}

TEST_F(tracer_run, result_goes_where_the_application_is_if_the_tools_folder_has_gone) {
  std::filesystem::create_directory(folder / "gone");
  const process_result traced = run_process(
      {tool_path().string(), "--phase=bintracer", "-o", "here.json", "/bin/sh", "-c", "cd ..; rmdir gone; exit 3"},
      {.folder = folder / "gone"});
  EXPECT_EQ(traced.status, 3) << traced.err;
  EXPECT_TRUE(std::filesystem::exists(folder / "here.json"));
}

TEST_F(tracer_run, application_that_becomes_another_program_takes_the_tool_with_it_and_leaves_an_earlier_file_alone) {
  write_file(result(), "{}");
  const process_result traced = run({}, {"/bin/sh", "-c", "exec /bin/sh -c 'echo replaced; exit 5'"});
  EXPECT_EQ(traced.status, 5);
  EXPECT_EQ(traced.err, "");
  EXPECT_THAT(traced.out, HasSubstr("\nreplaced\n"));
  EXPECT_THAT(traced.out, Not(HasSubstr("Result is captured")));
  EXPECT_EQ(content_of(result()), "{}");
}

TEST_F(tracer_run, result_has_the_mode_that_the_user_has_chosen_whatever_the_application_sets) {
  run_process({"/bin/sh", "-c", "umask 027; exec \"$0\" --phase=bintracer -o r.json /bin/sh -c 'umask 0'",
               tool_path().string()},
              {.folder = folder.path()});
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(folder / "r.json").permissions(),
            perms::owner_read | perms::owner_write | perms::group_read);
}

TEST_F(tracer_run, script_that_opens_a_descriptor_of_its_choice_keeps_its_file_for_itself) {
  const process_result traced = run({"-l", "info", "--log-file=log"}, {"/bin/sh", "-c", "exec 3>mine; echo data >&3"});
  EXPECT_EQ(traced.status, 0);
  EXPECT_EQ(content_of(folder / "mine"), "data\n");
  EXPECT_THAT(content_of(folder / "log"), HasSubstr("Finishing collection for "));
}

TEST_F(tracer_run, timer_that_the_application_has_left_does_not_end_the_finishing_step) {
  // A pipe in place of an earlier file: the finishing step waits for it, and here that takes longer than the timer.
  const process_result traced =
      run_process({"/bin/sh", "-c",
                   "mkfifo pipe && { \"$0\" --phase=bintracer -o pipe \"$1\" & sleep 4; echo '{}' > pipe; wait $!; }",
                   tool_path().string(), program("late_timer")},
                  {.folder = folder.path(), .seconds_allowed = 30});
  EXPECT_EQ(traced.status, 3) << traced.err;
  EXPECT_THAT(traced.out, HasSubstr("CEILMETER: Result is captured at "));
}

TEST_F(tracer_run, application_that_ends_on_a_signal_stack_of_the_usual_size_leaves_its_result) {
  const process_result traced = run({}, {program("ends_in_handler"), "11264"});
  EXPECT_EQ(traced.status, 5);
  EXPECT_GE(total().flop, 2000U);
}

TEST_F(tracer_run, application_that_has_used_up_its_descriptors_leaves_its_result) {
  const process_result traced = run({}, {program("leaks_descriptors")});
  EXPECT_EQ(traced.status, 3) << traced.err;
  EXPECT_EQ(total().threads, 1U);
}

TEST_F(tracer_run, closing_lines_that_nobody_reads_cost_no_result) {
  for (const std::string phase : {"perfmon", "bintracer"}) {
    const process_result read_in_part =
        run_process({"/bin/sh", "-c", "{ \"$0\" --phase=$2 -o r.json \"$1\" 2; echo $? > status; } | head -2",
                     tool_path().string(), program("late_timer"), phase},
                    {.folder = folder.path()});
    EXPECT_THAT(read_in_part.out, Not(HasSubstr("Processing")));
    EXPECT_EQ(content_of(folder / "status"), phase == "perfmon" ? "0\n" : "3\n");
    EXPECT_THAT(content_of(folder / "r.json"), HasSubstr("\"regions\"")) << phase;
    std::filesystem::remove(folder / "r.json");
  }
}

TEST_F(tracer_run, program_without_floating_point_work_has_a_region_without_blocks) {
  EXPECT_EQ(run({}, {"/bin/true"}).status, 0);
  EXPECT_EQ(total().bbs.size(), 0U);
  EXPECT_EQ(total().threads, 1U);
}

TEST_F(tracer_run, phases_without_benchmarks_join_counters_and_blocks_in_one_region) {
  const process_result both = run({"--phase=~benchmarks"}, {program("fixed_work"), "4"});
  EXPECT_EQ(both.status, 0);
  EXPECT_THAT(both.out,
              HasSubstr("CEILMETER: Launch application to collect performance metrics of " + program("fixed_work") +
                        "\n4000\n" + "CEILMETER: Launch application to do binary instrumentation of " +
                        program("fixed_work") + "\n4000\n"));
  const region_metric region = total();
  EXPECT_EQ(region.flop, 8000U);
  EXPECT_EQ(region.threads, 5U);
  for (const char* name : {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"}) {
    EXPECT_TRUE(region.metrics.contains(name)) << name;
  }
}

TEST_F(tracer_run, log_tells_the_life_of_the_threads) {
  const std::vector<std::string> lines =
      log_lines_of_level(run({"-l", "info"}, {program("fixed_work"), "2"}).err, "info");
  EXPECT_THAT(lines, Contains("bintracer info Launch bintracer_ctor"));
  EXPECT_THAT(lines, Contains("bintracer info running application: " + program("fixed_work")));
  EXPECT_THAT(lines, Contains("bintracer info init_thread, thread_count is 1"));
  EXPECT_THAT(lines, Contains("bintracer info init_thread, thread_count is 3"));
  EXPECT_THAT(lines, Contains("collector info Finish phase bintracer"));
}

TEST_F(tracer_run, module_with_a_blank_and_other_letters_in_its_name_is_read_again) {
  const std::filesystem::path copy = folder / "a möd ule";
  std::filesystem::copy_file(program("long_block"), copy);
  EXPECT_EQ(run({}, {copy.string()}).status, 0);
  EXPECT_EQ(total().flop, 21000U);
}

TEST_F(tracer_run, module_that_the_program_has_removed_is_reported_and_left_out) {
  const std::filesystem::path copy = folder / "removed";
  std::filesystem::copy_file(program("removes_itself"), copy);
  const process_result traced = run({}, {copy.string()});
  EXPECT_EQ(traced.status, 0);
  EXPECT_THAT(traced.err, HasSubstr("Failed to make canonical from " + copy.string()));
  for (const auto& [start, block] : total().bbs) EXPECT_NE(block.module, copy.string());
}

TEST_F(tracer_run, file_that_is_no_program_ends_the_run_with_status_1) {
  write_file(folder / "text", "not a program");
  const process_result traced = run({}, {(folder / "text").string()});
  EXPECT_EQ(traced.status, 1);
  EXPECT_FALSE(std::filesystem::exists(result()));
}

}  // namespace
}  // namespace ceilmeter::test
