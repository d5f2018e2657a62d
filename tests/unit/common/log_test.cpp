// The log's line, thresholds and destinations. The log is process-wide state, so each test restores what it has
// changed.
#include "common/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/captured_log.h"
#include "../support/child_status.h"
#include "../support/scratch_folder.h"

namespace ceilmeter {
namespace {

using test::captured_descriptor;
using test::captured_log;
using test::status_of_child;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr tool_log log{"src/tests/some_module"};
constexpr engine_log log_of_engine{"src/bi/some_engine"};

class log_test : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"PMIX_RANK", "OMPI_COMM_WORLD_RANK", "MORA_BI_LOG_LEVEL", "MORA_BI_LOG_MODULES"})
      unsetenv(name);
  }
  void TearDown() override {
    log_state::engine_levels_differ = false;
    mora_log_set_file("stderr");
    mora_log_set_append(0);
    log_state::log_level = LEVEL_WARN;
    log_state::engine_log_level = LEVEL_WARN;
  }

  static option_entry entry_with(const char* argument) {
    return {0, "option", ARGUMENT_REQUIRED, 0, argument, nullptr, nullptr};
  }
  static std::string content_of(const std::filesystem::path& path) {
    std::ifstream stream(path);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  const test::scratch_folder folder;
};

// The first test, because a process reads the rank once.
TEST_F(log_test, log_file_option_expands_its_argument) {
  EXPECT_EQ(status_of_child([] {
              setenv("PMIX_RANK", "3", 1);
              option_entry entry = entry_with("run.%r.%p.log");
              mora_log_file_option(entry);
              return mora_log_get_file() == "run.3." + std::to_string(getpid()) + ".log" ? 0 : 1;
            }),
            0);
}

TEST_F(log_test, line_has_time_thread_file_line_and_level) {
  const captured_log captured;
  const unsigned here = __LINE__ + 1;
  log(LEVEL_WARN, "value %d of %s", 7, "x");
  const std::string expected = "some_module:" + std::to_string(here);
  EXPECT_THAT(captured.text(),
              MatchesRegex("\\[[0-9]+\\.[0-9][0-9][0-9][0-9][0-9][0-9]:[0-9]+\\]        some_module:[0-9]+ *MORA warn "
                           "value 7 of x\n"));
  EXPECT_THAT(captured.text(), HasSubstr(expected));
  EXPECT_THAT(captured.text(), HasSubstr(":" + std::to_string(gettid()) + "] "));
}

TEST_F(log_test, call_above_the_threshold_writes_nothing) {
  const captured_log captured;
  log(LEVEL_INFO, "silent");
  EXPECT_EQ(captured.text(), "");
  mora_log_set_level(LEVEL_INFO);
  log(LEVEL_INFO, "heard");
  log(LEVEL_DEBUG, "silent");
  EXPECT_THAT(captured.lines(), ElementsAre("info heard"));
}

TEST_F(log_test, engine_sources_follow_their_own_threshold) {
  const captured_log captured;
  log_state::engine_log_level = LEVEL_DEBUG;
  log(LEVEL_DEBUG, "of the tool");
  log_of_engine(LEVEL_DEBUG, "of the engine");
  log_state::engine_log_level = LEVEL_FATAL;
  mora_log_set_level(LEVEL_WARN);
  log(LEVEL_WARN, "of the tool");
  log_of_engine(LEVEL_WARN, "of the engine");
  EXPECT_THAT(captured.lines(), ElementsAre("debug of the engine", "warn of the tool"));
}

// Writes a line into a pipe that nobody reads.
void log_in_vain() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) std::abort();
  close(ends[0]);
  dup2(ends[1], STDERR_FILENO);
  errno = EBADF;
  log(LEVEL_WARN, "%s", "lost");
}

bool is_sigpipe_pending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

TEST_F(log_test, a_pipe_without_a_reader_loses_the_line_and_not_the_run) {
  EXPECT_EQ(status_of_child([] {
              log_in_vain();
              sigset_t blocked;
              pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
              return errno == EBADF && !is_sigpipe_pending() && sigismember(&blocked, SIGPIPE) == 0 ? 7 : 1;
            }),
            7);
}

TEST_F(log_test, a_sigpipe_of_the_applications_stays_pending) {
  EXPECT_EQ(status_of_child([] {
              sigset_t pipe_signal;
              sigemptyset(&pipe_signal);
              sigaddset(&pipe_signal, SIGPIPE);
              pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
              raise(SIGPIPE);
              log_in_vain();
              return is_sigpipe_pending() ? 7 : 1;
            }),
            7);
}

TEST_F(log_test, long_message_is_cut_at_1024_bytes_ending_in_a_newline) {
  const captured_log captured;
  log(LEVEL_WARN, "%s", std::string(5000, 'm').c_str());
  const std::string line = captured.text();
  EXPECT_EQ(line.size(), 1024U);
  EXPECT_EQ(line.back(), '\n');
  EXPECT_EQ(line[1022], 'm');
}

TEST_F(log_test, message_that_just_fits_is_whole) {
  std::string header;
  {
    const captured_log captured;
    log(LEVEL_WARN, "%s", "");
    header = captured.text();
  }
  const captured_log captured;
  const std::string message(1024 - header.size() - 1, 'm');
  log(LEVEL_WARN, "%s|", message.c_str());
  EXPECT_EQ(captured.text().size(), 1024U);
  EXPECT_EQ(captured.text().substr(1022), "|\n");
}

TEST_F(log_test, long_file_name_still_gives_one_bounded_line) {
  const captured_log captured;
  const std::string file = "src/" + std::string(3000, 'f');
  const tool_log long_name{file.c_str()};
  long_name(LEVEL_WARN, "message");
  EXPECT_EQ(captured.text().size(), 1024U);
  EXPECT_EQ(captured.text().back(), '\n');
}

TEST_F(log_test, errno_survives_a_line) {
  const captured_log captured;
  errno = EMFILE;
  log(LEVEL_WARN, "a line");
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(log_test, level_0_prints_its_line_and_aborts_even_at_level_none) {
  EXPECT_EQ(status_of_child([] {
              mora_log_set_level_name("none");
              return mora_log_get_level();
            }),
            0);
  EXPECT_EXIT(
      {
        mora_log_set_level_name("none");
        log(LEVEL_WARN, "not printed");
        log(LEVEL_FATAL, "last words");
      },
      ::testing::KilledBySignal(SIGABRT), "MORA fatal last words\n");
}

TEST_F(log_test, level_none_silences_a_warning) {
  const captured_log captured;
  mora_log_set_level_name("none");
  log(LEVEL_WARN, "silent");
  EXPECT_EQ(captured.text(), "");
}

TEST_F(log_test, level_names_are_known_in_any_case) {
  const std::vector<std::pair<const char*, int>> rows = {{"fatal", 0}, {"NONE", 0},  {"Warn", 1},      {"info", 2},
                                                         {"DEBUG", 3}, {"trace", 4}, {"Trace-Data", 5}};
  for (const auto& [name, level] : rows) {
    option_entry entry = entry_with(name);
    EXPECT_EQ(mora_log_parse_level(entry), 0) << name;
    EXPECT_EQ(mora_log_get_level(), level) << name;
  }
}

TEST_F(log_test, printed_level_name_of_none_is_fatal) {
  mora_log_set_level_name("none");
  EXPECT_STREQ(mora_log_get_level_name(), "fatal");
  mora_log_set_level_name("trace-data");
  EXPECT_STREQ(mora_log_get_level_name(), "trace-data");
}

TEST_F(log_test, unknown_level_option_warns_and_fails) {
  const captured_log captured;
  option_entry entry = entry_with("loud");
  EXPECT_EQ(mora_log_parse_level(entry), -1);
  EXPECT_EQ(mora_log_get_level(), LEVEL_WARN);
  EXPECT_THAT(captured.lines(), ElementsAre("warn Incorrect log level: loud"));
}

TEST_F(log_test, unknown_level_name_is_ignored_silently) {
  const captured_log captured;
  mora_log_set_level_name("loud");
  EXPECT_EQ(mora_log_get_level(), LEVEL_WARN);
  EXPECT_EQ(captured.text(), "");
}

TEST_F(log_test, nonsense_engine_level_leaves_one_warning_and_level_1) {
  const captured_log captured;
  setenv("MORA_BI_LOG_LEVEL", "nonsense", 1);
  mora_log_init();
  EXPECT_EQ(log_state::engine_log_level, LEVEL_WARN);
  EXPECT_THAT(captured.lines(), ElementsAre("warn Incorrect value of MORA_BI_LOG_LEVEL variable: nonsense"));
}

TEST_F(log_test, engine_level_comes_from_the_environment_and_leaves_the_tools_level) {
  setenv("MORA_BI_LOG_LEVEL", "Debug", 1);
  EXPECT_EQ(mora_log_init(), 1);
  EXPECT_EQ(log_state::engine_log_level, LEVEL_DEBUG);
  EXPECT_EQ(mora_log_get_level(), LEVEL_WARN);
}

TEST_F(log_test, a_source_of_the_engines_may_have_a_level_of_its_own) {
  const captured_log captured;
  setenv("MORA_BI_LOG_MODULES", "scanner=trace,dispatcher=none", 1);
  mora_log_init();
  constexpr engine_log scanner{"src/bi/scanner"};
  constexpr engine_log dispatcher{"src/bi/dispatcher"};
  scanner(LEVEL_TRACE, "written");
  scanner(LEVEL_TRACE_DATA, "above its level");
  dispatcher(LEVEL_WARN, "above its level");
  log_of_engine(LEVEL_INFO, "above the level of the others");
  log_of_engine(LEVEL_WARN, "written, too");
  log(LEVEL_INFO, "the tool's level is none of the engine's");
  EXPECT_THAT(captured.lines(), ElementsAre("trace written", "warn written, too"));
}

TEST_F(log_test, sources_without_a_level_of_their_own_follow_the_engines) {
  const captured_log captured;
  setenv("MORA_BI_LOG_LEVEL", "debug", 1);
  setenv("MORA_BI_LOG_MODULES", "scanner=warn", 1);
  mora_log_init();
  log_of_engine(LEVEL_DEBUG, "written");
  engine_log{"src/bi/scanner"}(LEVEL_INFO, "above its level");
  EXPECT_THAT(captured.lines(), ElementsAre("debug written"));
}

TEST_F(log_test, a_part_of_the_sources_levels_that_is_not_understood_is_warned_of_and_the_others_hold) {
  const captured_log captured;
  setenv("MORA_BI_LOG_MODULES", "scanner,=trace,a=nonsense,traces=info", 1);
  mora_log_init();
  engine_log{"src/bi/traces"}(LEVEL_INFO, "written");
  EXPECT_THAT(captured.lines(),
              ElementsAre(HasSubstr("MORA_BI_LOG_MODULES variable: scanner,"), HasSubstr("variable: =trace,"),
                          HasSubstr("variable: a=nonsense,"), "info written"));
}

TEST_F(log_test, standard_streams_are_chosen_in_any_case_without_a_file) {
  const captured_descriptor out(STDOUT_FILENO);
  option_entry entry = entry_with("STDOUT");
  EXPECT_EQ(mora_log_file_option(entry), 0);
  EXPECT_STREQ(mora_log_get_file(), "stdout");
  mora_log_init();
  log(LEVEL_WARN, "to standard output");
  EXPECT_THAT(out.text(), HasSubstr("to standard output\n"));
  EXPECT_FALSE(std::filesystem::exists("STDOUT"));
  mora_log_set_file("StdErr");
  EXPECT_STREQ(mora_log_get_file(), "stderr");
}

TEST_F(log_test, log_file_is_private_synchronous_and_close_on_exec) {
  const std::filesystem::path path = folder / "log";
  mora_log_set_file(path.c_str());
  EXPECT_FALSE(std::filesystem::exists(path)) << "opened before its time";
  mora_log_init();
  log(LEVEL_WARN, "in the file");
  EXPECT_THAT(content_of(path), HasSubstr("in the file\n"));
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  bool found = false;
  for (int fd = 3; fd < 1024; ++fd) {
    struct stat open_file {};
    if (fstat(fd, &open_file) != 0 || open_file.st_ino != status.st_ino) continue;
    found = true;
    EXPECT_NE(fcntl(fd, F_GETFL) & O_SYNC, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_TRUE(found);
  mora_log_fini();
}

TEST_F(log_test, log_file_never_takes_the_place_of_a_closed_standard_stream) {
  const std::string path = folder / "run.log";
  for (const rlim_t limit : {1024, 8}) {
    EXPECT_EQ(status_of_child([&] {
                const rlimit limits{limit, limit};
                setrlimit(RLIMIT_NOFILE, &limits);
                for (int fd = 0; fd <= STDERR_FILENO; ++fd) close(fd);
                mora_log_set_file(path.c_str());
                mora_log_init();
                // If its caller has closed a stream, what a program prints to it is lost. It must not get into the log.
                for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
                  if (fcntl(fd, F_GETFD) != -1) return 10 + fd;
                }
                log(LEVEL_WARN, "a line");
                return 0;
              }),
              0);
    EXPECT_THAT(content_of(path), HasSubstr("MORA warn a line\n")) << limit << " descriptors";
  }
}

TEST_F(log_test, log_file_leaves_the_small_descriptors_to_the_application) {
  const std::string path = folder / "run.log";
  for (const rlim_t limit : {1024, 256}) {
    EXPECT_EQ(status_of_child([&] {
                const rlimit limits{limit, limit};
                setrlimit(RLIMIT_NOFILE, &limits);
                mora_log_set_file(path.c_str());
                mora_log_init();
                // As in a script that opens descriptors under numbers of its choice.
                for (int fd = 3; fd < 200; ++fd) {
                  dup2(STDERR_FILENO, fd);
                  close(fd);
                }
                log(LEVEL_WARN, "a line");
                return 0;
              }),
              0);
    EXPECT_THAT(content_of(path), HasSubstr("MORA warn a line\n")) << limit << " descriptors";
  }
}

TEST_F(log_test, log_file_is_truncated_unless_appending) {
  const std::filesystem::path path = folder / "log";
  for (const bool append : {false, true}) {
    std::ofstream(path) << "earlier\n";
    mora_log_set_file(path.c_str());
    mora_log_set_append(append ? 1 : 0);
    mora_log_init();
    log(LEVEL_WARN, "later");
    mora_log_fini();
    EXPECT_EQ(content_of(path).starts_with("earlier\n"), append);
    EXPECT_THAT(content_of(path), HasSubstr("later\n"));
  }
}

TEST_F(log_test, closing_the_log_returns_to_standard_error_and_twice_is_harmless) {
  mora_log_set_file((folder / "log").c_str());
  mora_log_init();
  EXPECT_EQ(mora_log_fini(), 1);
  EXPECT_EQ(mora_log_fini(), 1);
  const captured_log captured;
  log(LEVEL_WARN, "back");
  EXPECT_THAT(captured.lines(), ElementsAre("warn back"));
}

TEST_F(log_test, log_file_in_a_missing_folder_leaves_standard_error_and_closing_then_closes_it) {
  const std::string path = folder / "missing/log";
  EXPECT_EQ(status_of_child([&path] {
              const captured_log captured;
              mora_log_set_file(path.c_str());
              mora_log_init();
              log(LEVEL_WARN, "still here");
              const std::vector<std::string> expected = {
                  "warn failed to create log file " + path + ": No such file or directory", "warn still here"};
              if (captured.lines() != expected) return 1;
              mora_log_fini();
              return fcntl(STDERR_FILENO, F_GETFD) == -1 && errno == EBADF ? 0 : 2;
            }),
            0);
}

TEST_F(log_test, append_without_a_file_has_no_effect) {
  const captured_log captured;
  option_entry entry = entry_with(nullptr);
  EXPECT_EQ(mora_log_append_option(entry), 0);
  EXPECT_EQ(mora_log_get_append(), 1);
  mora_log_init();
  log(LEVEL_WARN, "as ever");
  EXPECT_THAT(captured.lines(), ElementsAre("warn as ever"));
}

TEST_F(log_test, setting_the_held_name_again_keeps_it) {
  mora_log_set_file("some-file");
  const char* held = mora_log_get_file();
  mora_log_set_file(held);
  EXPECT_EQ(mora_log_get_file(), held);
  EXPECT_STREQ(held, "some-file");
}

TEST_F(log_test, exit_writes_a_bare_newline_and_ends_with_the_status) {
  EXPECT_EXIT(mora_log_exit(3, "%s", ""), ::testing::ExitedWithCode(3), "^\n$");
  EXPECT_EXIT(mora_log_exit(4, "bye %d", 1), ::testing::ExitedWithCode(4), "^bye 1\n$");
}

TEST_F(log_test, exit_text_is_cut_at_1024_bytes) {
  EXPECT_EXIT(mora_log_exit(5, "%s", std::string(3000, 'x').c_str()), ::testing::ExitedWithCode(5), "^x{1023}\n$");
}

TEST_F(log_test, command_line_is_joined_by_blanks_from_level_info_on) {
  const std::array<const char*, 3> arguments = {"ceilmeter", "-o", "a file"};
  const captured_log captured;
  mora_log_command_line(3, arguments.data());
  mora_log_set_level(LEVEL_INFO);
  mora_log_command_line(3, arguments.data());
  mora_log_command_line(0, nullptr);
  mora_log_command_line(-1, nullptr);
  EXPECT_THAT(captured.lines(),
              ElementsAre("info command line: ceilmeter -o a file", "info command line: ", "info command line: "));
}

TEST_F(log_test, lines_of_several_threads_do_not_mix) {
  const captured_log captured;
  constexpr int lines_each = 200;
  std::vector<std::thread> threads;
  for (char mark = 'a'; mark < 'e'; ++mark) {
    threads.emplace_back([mark] {
      const std::string message(100, mark);
      for (int count = 0; count < lines_each; ++count) log(LEVEL_WARN, "%s", message.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> lines = captured.lines();
  EXPECT_EQ(lines.size(), 4U * lines_each);
  for (const std::string& line : lines) EXPECT_EQ(line, "warn " + std::string(100, line.back()));
}

}  // namespace
}  // namespace ceilmeter
