// The command line, judged by what a user sees: the tool is run and standard output, standard error and status are
// compared byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The usage text is written here once more, word for word, because it is part of the tool's interface.
std::string usage_text() {
  return "usage: " + tool_path().string() + " <OPTIONS> [--] command-line [args]\n" +
         "OPTIONS:\n"
         "    --mode=<total|region>                  - profile the whole binary or user selected regions (default:\n"
         "                                             total)\n"
         "    --phase=<perfmon|bintracer|benchmarks> - run specified collection phase, could be used for hardware\n"
         "                                             characterization (benchmarks phase)\n"
         "    --benchmarks_num_threads=<num_threads> - if --phase=benchmarks used, then specify number of threads in\n"
         "                                             benchmarks, otherwise no effect\n"
         "    -o|--output=<path/to/output/file>      - specify output json file path (default: current directory)\n"
         "    -l|--log-level <none|fatal|warn|info|\n"
         "                    debug|trace>           - log level (default: warn)\n"
         "    --log-file <stdout|stderr|file-name>   - log file (default: stderr)\n"
         "    --log-append                           - append logs to the end of log file (default: overwrite log\n"
         "                                             file, if exists)\n"
         "    -h|--help                              - print this message and exit\n"
         "    -v|--version                           - print version info and exit\n";
}

class command_line : public ::testing::Test {
 protected:
  process_result run(std::vector<std::string> words, process_options options = {}) const {
    words.insert(words.begin(), tool_path().string());
    if (options.folder.empty()) options.folder = folder.path();
    return run_process(words, options);
  }

  // Standard error has the complaint and the single newline with which the log ends a run that does not start.
  void expect_refusal(const std::vector<std::string>& words, const std::string& complaint) const {
    const process_result result = run(words);
    EXPECT_EQ(result.out, usage_text());
    EXPECT_EQ(result.err, complaint + "\n");
    EXPECT_EQ(result.status, 1);
  }

  // Leaves its arguments in a file, so that a test can see what reached the application.
  std::filesystem::path argument_printer(const std::string& name) const {
    const std::filesystem::path script = folder / name;
    write_file(script, "#!/bin/sh\nprintf '%s|' \"$0\" \"$@\" > " + (folder / "arguments").string() + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::all);
    return script;
  }

  temporary_folder folder;
};

TEST_F(command_line, unknown_long_option_is_refused_in_the_librarys_words) {
  expect_refusal({"--bogus", "/bin/true"}, tool_path().string() + ": unrecognized option '--bogus'\n");
}

TEST_F(command_line, unknown_short_option_is_refused_in_the_librarys_words) {
  expect_refusal({"-x", "/bin/true"}, tool_path().string() + ": invalid option -- 'x'\n");
}

TEST_F(command_line, missing_argument_is_refused_in_the_librarys_words) {
  expect_refusal({"-o"}, tool_path().string() + ": option requires an argument -- 'o'\n");
  expect_refusal({"--phase"}, tool_path().string() + ": option '--phase' requires an argument\n");
}

TEST_F(command_line, wrong_mode_is_refused) {
  for (const std::string value : {"Total", "regions", ""}) {
    expect_refusal({"--mode=" + value, "/bin/true"}, "CEILMETER: ERROR: Wrong mode option\n");
  }
}

TEST_F(command_line, wrong_phase_is_refused) {
  for (const std::string value : {"perf", "", "~", "~~perfmon", "Full", "perfmon "}) {
    expect_refusal({"--phase=" + value, "/bin/true"}, "CEILMETER: ERROR: Wrong phase option\n");
  }
}

TEST_F(command_line, wrong_log_level_is_refused_in_the_log) {
  const process_result result = run({"-l", "loud", "/bin/true"});
  EXPECT_EQ(result.out, usage_text());
  EXPECT_THAT(log_lines(result.err), ElementsAre("log warn Incorrect log level: loud", ""));
  EXPECT_EQ(result.status, 1);
}

TEST_F(command_line, missing_application_is_refused) {
  expect_refusal({}, "CEILMETER: No binary specified!\n");
  expect_refusal({"--phase=perfmon"}, "CEILMETER: No binary specified!\n");
  expect_refusal({"--"}, "CEILMETER: No binary specified!\n");
}

TEST_F(command_line, complement_of_benchmarks_needs_an_application) {
  expect_refusal({"--phase=~benchmarks"}, "CEILMETER: No binary specified!\n");
}

TEST_F(command_line, application_file_that_does_not_exist_is_refused) {
  expect_refusal({"./missing"}, "CEILMETER: Specified binary file does not exist!\n");
  expect_refusal({""}, "CEILMETER: Specified binary file does not exist!\n");
  expect_refusal({"/dev/null/x"}, "CEILMETER: Specified binary file does not exist!\n");
}

TEST_F(command_line, application_that_only_path_would_find_is_refused) {
  expect_refusal({"true"}, "CEILMETER: Specified binary file does not exist!\n");
}

TEST_F(command_line, run_that_cannot_start_leaves_an_earlier_result_alone) {
  const std::filesystem::path result = folder / "result.json";
  write_file(result, "earlier");
  const std::string output = "--output=" + result.string();
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{output, "--mode=x", "/bin/true"},
                                             {output, "--phase=x", "/bin/true"},
                                             {output, "--bogus", "/bin/true"},
                                             {output, "-l", "x", "/bin/true"},
                                             {output, "./missing"},
                                             {output},
                                             {output, "-h"},
                                             {output, "-v"},
                                             {output, "--benchmarks_num_threads=x", "/bin/true"}}) {
    run(words);
    EXPECT_EQ(content_of(result), "earlier") << words[1 % words.size()];
  }
}

TEST_F(command_line, help_prints_the_usage_and_succeeds) {
  for (const char* word : {"-h", "--help"}) {
    const process_result result = run({word});
    EXPECT_EQ(result.out, usage_text());
    EXPECT_EQ(result.err, "\n");
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(command_line, version_prints_version_and_configuration) {
  for (const char* word : {"-v", "--version"}) {
    const process_result result = run({word});
    EXPECT_EQ(result.out, "ceilmeter tool version 0.1\nbuild configuration: --prefix=" CEILMETER_TEST_PREFIX_PATH "\n");
    EXPECT_EQ(result.err, "\n");
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(command_line, help_stops_the_parsing_before_a_wrong_mode) {
  EXPECT_EQ(run({"-h", "--mode=wrong"}).status, 0);
  EXPECT_EQ(run({"-h", "--mode=wrong"}).err, "\n");
}

TEST_F(command_line, wrong_mode_stops_the_parsing_before_help) {
  expect_refusal({"--mode=wrong", "-h"}, "CEILMETER: ERROR: Wrong mode option\n");
}

TEST_F(command_line, closing_newline_goes_to_the_logs_destination) {
  const process_result result = run({"--log-file=stdout", "-h"});
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "\n" + usage_text());
}

TEST_F(command_line, thread_count_without_digits_ends_the_process) {
  const process_result result = run({"--benchmarks_num_threads=many", "/bin/true"});
  EXPECT_EQ(result.status, 128 + SIGABRT);
  EXPECT_EQ(result.err, "terminate called after throwing an instance of 'std::invalid_argument'\n  what():  stoul\n");
  EXPECT_EQ(result.out, "");
}

TEST_F(command_line, thread_count_out_of_range_ends_the_process) {
  const process_result result = run({"--benchmarks_num_threads=99999999999999999999", "/bin/true"});
  EXPECT_EQ(result.status, 128 + SIGABRT);
  EXPECT_EQ(result.err, "terminate called after throwing an instance of 'std::out_of_range'\n  what():  stoul\n");
}

TEST_F(command_line, thread_count_takes_blanks_sign_and_trailing_text) {
  const auto logged = [this](const std::string& value) {
    const process_result result =
        run({"-l", "info", "--phase=perfmon", "-o", "r.json", "--benchmarks_num_threads=" + value, "/bin/true"});
    for (const std::string& line : log_lines(result.err)) {
      if (line.find("num_threads_for_bench") != std::string::npos) return line.substr(line.find("= ") + 2);
    }
    return std::string("not logged");
  };
  EXPECT_EQ(logged("8"), "8");
  EXPECT_EQ(logged("0"), "0");
  EXPECT_EQ(logged(" +12 threads"), "12");
  EXPECT_EQ(logged("-1"), "18446744073709551615");
  EXPECT_EQ(logged("0x10"), "0");
}

TEST_F(command_line, options_behind_the_application_are_its_own) {
  argument_printer("a.out");
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"--phase=perfmon", "--", "./a.out", "-h", "--mode=wrong"},
                                             {"--phase=perfmon", "./a.out", "-h", "--mode=wrong"}}) {
    EXPECT_EQ(run(words).status, 0);
    EXPECT_EQ(content_of(folder / "arguments"), "./a.out|-h|--mode=wrong|");
  }
}

TEST_F(command_line, bare_word_is_run_from_the_current_folder) {
  argument_printer("a.out");
  const process_result result = run({"--phase=perfmon", "a.out", "x y"});
  EXPECT_THAT(result.out, StartsWith("CEILMETER: Start collection for ./a.out\n"));
  EXPECT_EQ(content_of(folder / "arguments"), "./a.out|x y|");
  EXPECT_TRUE(std::filesystem::exists(folder / "a.out.roofline.json"));
}

TEST_F(command_line, word_with_a_folder_gets_the_prefix_unless_its_second_character_is_a_slash) {
  std::filesystem::create_directory(folder / "bin");
  std::filesystem::create_directory(folder / "a");
  argument_printer("bin/a.out");
  argument_printer("a/b");
  EXPECT_THAT(run({"--phase=perfmon", "bin/a.out"}).out, StartsWith("CEILMETER: Start collection for ./bin/a.out\n"));
  EXPECT_THAT(run({"--phase=perfmon", "a/b"}).out, StartsWith("CEILMETER: Start collection for a/b\n"));
}

TEST_F(command_line, hidden_word_gets_no_prefix) {
  argument_printer(".hidden");
  const process_result result = run({"--phase=perfmon", ".hidden"});
  EXPECT_THAT(result.out, StartsWith("CEILMETER: Start collection for .hidden\n"));
  EXPECT_THAT(result.out, HasSubstr("CEILMETER: Result is captured at .hidden.roofline.json\n"));
}

TEST_F(command_line, last_of_two_outputs_counts) {
  run({"--phase=perfmon", "-o", "first.json", "-o", "second.json", "/bin/true"});
  EXPECT_FALSE(std::filesystem::exists(folder / "first.json"));
  EXPECT_TRUE(std::filesystem::exists(folder / "second.json"));
}

TEST_F(command_line, last_of_two_phases_counts) {
  const process_result result =
      run({"--phase=benchmarks", "--phase=perfmon", "-l", "info", "-o", "r.json", "/bin/true"});
  EXPECT_THAT(result.err, HasSubstr("config phase = 1\n"));
}

TEST_F(command_line, every_phase_value_and_its_complement_is_understood) {
  const std::vector<std::pair<std::string, int>> rows = {{"perfmon", 1},     {"bintracer", 2}, {"benchmarks", 4},
                                                         {"full", 7},        {"~perfmon", 6},  {"~bintracer", 5},
                                                         {"~benchmarks", 3}, {"~full", 7}};
  for (const auto& [value, phase] : rows) {
    process_options how;
    // The configuration is logged before anything runs. The test does not wait for the roofs, which take longer.
    how.seconds_allowed = 4;
    const process_result result = run({"-l", "info", "-o", "r.json", "--phase=" + value, "/bin/true"}, how);
    EXPECT_THAT(result.err, HasSubstr("config phase = " + std::to_string(phase) + "\n")) << value;
  }
}

TEST_F(command_line, complement_of_full_warns_and_stays_full) {
  const process_result result = run({"--phase=~full"});
  EXPECT_THAT(log_lines(result.err), ElementsAre("main warn Cannot revert full phase, full phase will be executed",
                                                 "CEILMETER: No binary specified!", ""));
}

TEST_F(command_line, output_path_is_made_canonical_and_its_tokens_are_expanded) {
  std::filesystem::create_directory(folder / "real");
  std::filesystem::create_symlink("real", folder / "link");
  process_options options;
  options.environment["PMIX_RANK"] = "3";
  const process_result result =
      run({"--phase=perfmon", "-o", (folder / "link/../link/./run.%r.json").string(), "/bin/true"}, options);
  const std::string expected = (folder / "real/run.3.json").string();
  EXPECT_THAT(result.out, HasSubstr("CEILMETER: Result is captured at " + expected + "\n"));
  EXPECT_TRUE(std::filesystem::exists(expected));
}

TEST_F(command_line, output_that_cannot_be_made_canonical_falls_back_to_the_default) {
  std::filesystem::create_symlink("loop", folder / "loop");
  argument_printer("a.out");
  const process_result result = run({"--phase=perfmon", "-o", (folder / "loop/x.json").string(), "./a.out"});
  EXPECT_THAT(result.err, HasSubstr("warn unable to transform file path to canonical form. Error: "
                                    "Too many levels of symbolic links\n"));
  EXPECT_TRUE(std::filesystem::exists(folder / "a.out.roofline.json"));
  EXPECT_EQ(result.status, 0);
}

TEST_F(command_line, configuration_is_logged_in_order_at_info) {
  const process_result result = run({"-l", "info", "--phase=perfmon", "-o", "r.json", "/bin/true"});
  const std::vector<std::string> lines = log_lines(result.err);
  ASSERT_GE(lines.size(), 5U);
  EXPECT_THAT(
      std::vector<std::string>(lines.begin(), lines.begin() + 5),
      ElementsAre("log info command line: " + tool_path().string() + " -l info --phase=perfmon -o r.json /bin/true",
                  "main info config mode = 1", "main info config num_threads_for_bench = 16",
                  "main info config output_file_path = r.json", "main info config phase = 1"));
}

TEST_F(command_line, log_file_takes_the_log_and_is_appended_on_request) {
  const auto run_logged = [this](std::vector<std::string> words) {
    words.insert(words.end(), {"-l", "info", "--phase=perfmon", "-o", "r.json", "--log-file=run.%r.log", "/bin/true"});
    return run(words).err;
  };
  EXPECT_EQ(run_logged({}), "");
  const std::size_t once = log_lines(content_of(folder / "run.0.log")).size();
  EXPECT_GT(once, 10U);
  EXPECT_EQ(run_logged({}), "");
  EXPECT_EQ(log_lines(content_of(folder / "run.0.log")).size(), once);
  EXPECT_EQ(run_logged({"--log-append"}), "");
  EXPECT_EQ(log_lines(content_of(folder / "run.0.log")).size(), 2 * once);
}

TEST_F(command_line, log_file_that_cannot_be_made_leaves_the_log_on_standard_error) {
  const process_result result =
      run({"--phase=perfmon", "-o", "r.json", "--log-file=missing/run.log", "/bin/sh", "-c", "exit 3"});
  EXPECT_THAT(log_lines(without_silent_metrics(result.err)),
              ElementsAre("log warn failed to create log file missing/run.log: No such file or directory",
                          "run_application warn Application exit status is 3!", ""));
  EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace ceilmeter::test
