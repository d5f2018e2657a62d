// The executable: command line to configuration record, the log up, then the collector. With the bintracer phase
// start_collect never comes back; on_collection_finished is all that runs then.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

#include "build_configuration.h"
#include "collector.h"
#include "collector_config.h"
#include "common/file_pattern.h"
#include "common/log.h"
#include "common/open_file.h"
#include "interruption.h"
#include "option_parser.h"
#include "privileges.h"
#include "process_state.h"
#include "progress.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/main"};

constexpr std::size_t output_path_size = 4096;

// What print_usage and print_version return, and so parse_options: an end that is no error.
constexpr std::int32_t stop_after_information = -ENOENT;

std::int32_t print_usage(option_entry& entry) {
  std::printf("usage: %s <OPTIONS> [--] command-line [args]\n", static_cast<const char*>(entry.user_data));
  std::fputs(
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
      "    -v|--version                           - print version info and exit\n",
      stdout);
  return stop_after_information;
}

std::int32_t print_version(option_entry&) {
  std::printf("ceilmeter tool version %s\n", CEILMETER_VERSION);
  std::printf("build configuration: %s\n", CEILMETER_BUILD_CONFIGURATION);
  return stop_after_information;
}

std::int32_t read_mode_option(option_entry& entry) {
  const std::string_view mode = entry.argument;
  if (mode == "region") {
    process_config().mode = MODE_REGION;
  } else if (mode == "total") {
    process_config().mode = MODE_TOTAL;
  } else {
    std::fputs("CEILMETER: ERROR: Wrong mode option\n", stderr);
    return -1;
  }
  return 0;
}

// A leading "~" asks for the complement. The complement and "full" are not in the usage text on purpose: they are
// for scripts that know the phases.
std::int32_t read_phase_option(option_entry& entry) {
  std::string_view name = entry.argument;
  const bool complement = name.starts_with('~');
  if (complement) name.remove_prefix(1);
  std::uint32_t phase = 0;
  if (name == "perfmon") {
    phase = PHASE_PERFMON;
  } else if (name == "bintracer") {
    phase = PHASE_BINTRACER;
  } else if (name == "benchmarks") {
    phase = PHASE_BENCHMARKS;
  } else if (name == "full") {
    phase = PHASE_FULL;
  } else {
    std::fputs("CEILMETER: ERROR: Wrong phase option\n", stderr);
    return -1;
  }
  if (complement) {
    if (phase == PHASE_FULL) {
      log(LEVEL_WARN, "Cannot revert full phase, full phase will be executed");
    } else {
      phase = PHASE_FULL & ~phase;
    }
  }
  process_config().phase = phase;
  return 0;
}

// No digits or a value out of range raise the library's exception, which ends the process: nothing is measured for a
// thread count that was not understood.
std::int32_t read_num_threads_option(option_entry& entry) {
  process_config().num_threads_for_bench = std::stoul(entry.argument);
  return 0;
}

// The processes of a parallel run have the same command line; what keeps their results apart is the name's pattern.
bool result_is_of_one_process = false;

void warn_of_shared_result() {
  if (result_is_of_one_process || !mora_environment_shows_rank()) return;
  log(LEVEL_WARN, "the environment shows a rank, but all ranks write %s: put %%r or %%p into the name given with -o",
      process_config().output_file_path.c_str());
}

std::int32_t read_output_option(option_entry& entry) {
  const std::string_view pattern = entry.argument;
  result_is_of_one_process = pattern.find("%r") != pattern.npos || pattern.find("%p") != pattern.npos;
  std::string path(output_path_size, '\0');
  process_config().output_file_path = mora_expand_file_pattern(entry.argument, path.data(), path.size());
  // Where the link leads would be all that is left of it below.
  if (is_foreign_link(process_config().output_file_path)) {
    std::fputs("CEILMETER: ERROR: Output file is a link of another user in a shared folder\n", stderr);
    return -1;
  }
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(process_config().output_file_path, error);
  if (error) {
    log(LEVEL_WARN, "unable to transform file path to canonical form. Error: %s", error.message().c_str());
    // An empty path makes parse_command_line fall back to the default beside the application.
    process_config().output_file_path.clear();
    return 0;
  }
  process_config().output_file_path = canonical.string();
  return 0;
}

[[noreturn]] void refuse(const char* reason, option_entry& help) {
  std::fputs(reason, stderr);
  print_usage(help);
  mora_log_exit(EXIT_FAILURE, "%s", "");
}

// execvp would search PATH for a bare name, but the file whose existence was tested is the one in this folder.
std::string prefixed_application(const std::string& word) {
  const bool is_path = word.starts_with('.') || word.starts_with('/') || (word.size() > 1 && word[1] == '/');
  return is_path ? word : "./" + word;
}

// Fills the configuration record. Returns only if the run is to go on; everything else ends the process here, before
// any file has been opened, so that an earlier result is never touched by a run that cannot start.
void parse_command_line(int argc, char** argv, char** envp) {
  option_entry table[] = {
      {U'h', "help", ARGUMENT_NONE, 0, nullptr, print_usage, argv[0]},
      {U'v', "version", ARGUMENT_NONE, 0, nullptr, print_version, nullptr},
      {U'o', "output", ARGUMENT_REQUIRED, 0, nullptr, read_output_option, nullptr},
      {0, "mode", ARGUMENT_REQUIRED, 0, nullptr, read_mode_option, nullptr},
      {0, "phase", ARGUMENT_REQUIRED, 0, nullptr, read_phase_option, nullptr},
      {0, "benchmarks_num_threads", ARGUMENT_REQUIRED, 0, nullptr, read_num_threads_option, nullptr},
      {U'l', "log-level", ARGUMENT_REQUIRED, 0, nullptr, mora_log_parse_level, nullptr},
      {0, "log-file", ARGUMENT_REQUIRED, 0, nullptr, mora_log_file_option, nullptr},
      {0, "log-append", ARGUMENT_NONE, 0, nullptr, mora_log_append_option, nullptr},
      {0, nullptr, ARGUMENT_NONE, 0, nullptr, nullptr, nullptr},
  };
  option_entry& help = table[0];
  const int first_word = parse_options(argc, argv, table);

  collector_config& config = process_config();
  const bool needs_application = (config.phase & ~std::uint32_t{PHASE_BENCHMARKS}) != 0;
  if (needs_application) {
    if (argc <= first_word) refuse("CEILMETER: No binary specified!\n", help);
    // A file whose status cannot be had at all, behind a folder that may not be searched for instance, could not be
    // run either.
    std::error_code error;
    if (first_word >= 0 && !std::filesystem::exists(argv[first_word], error)) {
      refuse("CEILMETER: Specified binary file does not exist!\n", help);
    }
  }
  if (first_word == -1) refuse("", help);
  if (first_word == stop_after_information) mora_log_exit(EXIT_SUCCESS, "%s", "");

  if (needs_application) {
    config.argc = argc - first_word;
    config.argv = argv + first_word;
    config.envp = envp;
    config.application = prefixed_application(argv[first_word]);
  } else {
    config.application = "ceilmeter_benchmarks";
  }
  if (config.output_file_path.empty()) config.output_file_path = config.application + ".roofline.json";
}

void log_config_state() {
  const collector_config& config = process_config();
  log(LEVEL_INFO, "config mode = %d", static_cast<int>(config.mode));
  log(LEVEL_INFO, "config num_threads_for_bench = %lu", config.num_threads_for_bench);
  log(LEVEL_INFO, "config output_file_path = %s", config.output_file_path.c_str());
  log(LEVEL_INFO, "config phase = %d", static_cast<int>(config.phase));
}

std::uint64_t on_collection_finished(std::uint64_t, std::uint64_t) {
  finish_collect(process_config());
  mora_log_fini();
  return 0;
}

}  // namespace

}  // namespace ceilmeter

int main(int argc, char** argv, char** envp) {
  using namespace ceilmeter;
  save_process_state();
  if (!keep_counting_privilege_alone()) {
    std::fputs("CEILMETER: ERROR: Cannot give up the rights that the tool's file lends\n", stderr);
    return EXIT_FAILURE;
  }
  parse_command_line(argc, argv, envp);
  mora_log_init();
  mora_log_command_line(argc, argv);
  log_config_state();
  warn_of_shared_result();
  print_progress("Start collection for " + process_config().application);
  start_collect(process_config(), on_collection_finished);
  mora_log_fini();
  end_as_interrupted();
  return 0;
}
