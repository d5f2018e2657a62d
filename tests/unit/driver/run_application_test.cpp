// Starting programs: statuses, messages, and what the child gets.
#include "run_application.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "../support/captured_log.h"
#include "common/log.h"
#include "interruption.h"

namespace ceilmeter {
namespace {

using test::captured_descriptor;
using test::captured_log;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

std::int32_t run(const std::string& path, std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  return run_application(path, static_cast<int>(words.size()), arguments.data());
}

class application_run : public ::testing::Test {
 protected:
  void TearDown() override { mora_log_set_level(LEVEL_WARN); }
};

TEST_F(application_run, status_0_says_nothing) {
  const captured_log captured;
  EXPECT_EQ(run("/bin/true", {"true"}), 0);
  EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(application_run, other_status_is_returned_with_one_warning) {
  const captured_log captured;
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "exit 3"}), 3);
  // The message ends in a newline of its own.
  EXPECT_THAT(captured.lines(), ElementsAre("warn Application exit status is 3!", ""));
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "exit 255"}), 255);
}

TEST_F(application_run, end_by_a_signal_counts_as_status_0_without_a_warning) {
  const captured_log captured;
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "kill -9 $$"}), 0);
  EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(application_run, path_is_run_under_the_name_as_typed) {
  const captured_descriptor out(STDOUT_FILENO);
  EXPECT_EQ(run("/bin/sh", {"typed", "-c", "echo $0-$1", "name", "x y"}), 0);
  EXPECT_EQ(out.text(), "name-x y\n");
}

TEST_F(application_run, environment_is_the_processs_own) {
  const captured_descriptor out(STDOUT_FILENO);
  setenv("CEILMETER_TEST_VALUE", "set late", 1);
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "echo $CEILMETER_TEST_VALUE"}), 0);
  EXPECT_EQ(out.text(), "set late\n");
}

TEST_F(application_run, file_that_cannot_be_executed_is_reported_with_the_systems_words) {
  const captured_log captured;
  EXPECT_EQ(run("/dev/null", {"null"}), 1);
  EXPECT_THAT(captured.lines(), ElementsAre("Error: Failed to start /dev/null", "Permission denied", "",
                                            "warn Application exit status is 1!", ""));
}

TEST_F(application_run, failed_report_on_standard_error_goes_to_standard_output) {
  const captured_descriptor out(STDOUT_FILENO);
  const pid_t pid = fork();
  if (pid == 0) {
    // An unbuffered stream on a closed descriptor: the print fails.
    close(STDERR_FILENO);
    _exit(run("/dev/null", {"null"}));
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(out.text(), "Error: Failed to start /dev/null\n");
}

TEST_F(application_run, steps_are_logged_at_info_on_both_sides) {
  const captured_log captured;
  mora_log_set_level(LEVEL_INFO);
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "exit 2"}), 2);
  // Parent and child write at once; each keeps its own order.
  std::vector<std::string> parent;
  std::vector<std::string> child;
  for (const std::string& line : captured.lines()) {
    const bool of_child =
        line.starts_with("info command line") || line.starts_with("info Call execvp") || line == "info Fork result: 0";
    (of_child ? child : parent).push_back(line);
  }
  EXPECT_THAT(child,
              ElementsAre("info Fork result: 0", "info command line: sh -c exit 2", "info Call execvp for /bin/sh"));
  EXPECT_THAT(parent,
              ElementsAre("info Call fork for /bin/sh", MatchesRegex("info Fork result: [1-9][0-9]*"),
                          MatchesRegex("info End wait, wait_status=512, wait_return [1-9][0-9]* and app_exit_status=2"),
                          "warn Application exit status is 2!", ""));
}

TEST_F(application_run, status_is_known_to_a_caller_that_ignores_its_children_and_the_program_ignores_them_too) {
  const captured_log captured;
  const captured_descriptor out(STDOUT_FILENO);
  std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(run("/bin/sh", {"sh", "-c", "exit 3"}), 3);
  EXPECT_EQ(run("/bin/grep", {"grep", "SigIgn", "/proc/self/status"}), 0);
  struct sigaction after {};
  sigaction(SIGCHLD, nullptr, &after);
  std::signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
  const std::uint64_t ignored = std::stoull(out.text().substr(out.text().find(':') + 1), nullptr, 16);
  EXPECT_NE(ignored & (1U << (SIGCHLD - 1)), 0U);
  EXPECT_THAT(captured.lines(), ElementsAre("warn Application exit status is 3!", ""));
}

// In a process of its own, because a run can be interrupted once.
void expect_in_child(int expected, const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), expected);
}

TEST_F(application_run, signal_that_is_sent_reaches_the_application_and_is_noted) {
  expect_in_child(0, [] {
    // The program ends by the signal that is passed on, long before its time.
    const int status = run("/bin/sh", {"sh", "-c", "kill -TERM $PPID; exec sleep 600"});
    return status == 0 && interrupting_signal() == SIGTERM ? 0 : 1;
  });
}

TEST_F(application_run, signal_that_is_sent_twice_at_once_is_one_request) {
  expect_in_child(0, [] {
    const int status = run("/bin/sh", {"sh", "-c", "trap '' TERM; kill -TERM $PPID; kill -TERM $PPID; exit 3"});
    return status == 3 && interrupting_signal() == SIGTERM ? 0 : 1;
  });
}

TEST_F(application_run, second_request_ends_the_tool_at_once) {
  expect_in_child(-SIGINT, [] {
    run("/bin/sh", {"sh", "-c", "trap '' INT; kill -INT $PPID; sleep 1; kill -INT $PPID; exec sleep 2"});
    return 0;
  });
}

TEST_F(application_run, interrupted_run_ends_by_its_signal) {
  expect_in_child(-SIGINT, [] {
    run("/bin/sh", {"sh", "-c", "trap '' INT; kill -INT $PPID; exit 0"});
    end_as_interrupted();
    return 0;
  });
}

TEST_F(application_run, signal_that_the_caller_ignores_stays_ignored_in_tool_and_application) {
  expect_in_child(0, [] {
    std::signal(SIGINT, SIG_IGN);
    const int status = run("/bin/sh", {"sh", "-c", "kill -INT $PPID; kill -INT $$; exit 4"});
    return status == 4 && interrupting_signal() == 0 ? 0 : 1;
  });
}

TEST_F(application_run, actions_of_the_caller_are_back_afterwards) {
  expect_in_child(-SIGINT, [] {
    run("/bin/true", {"true"});
    std::raise(SIGINT);
    return 0;
  });
}

TEST_F(application_run, process_that_cannot_be_made_gives_minus_one_and_a_warning) {
  const captured_log captured;
  const pid_t pid = fork();
  if (pid == 0) {
    // An ordinary user who may have no further process; root is bound by no such limit.
    const rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (getuid() == 0 && setuid(4711) != 0)) _exit(100);
    _exit(run("/bin/true", {"true"}) == -1 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_THAT(captured.lines(), ElementsAre("warn Fork error, cant run /bin/true"));
}

}  // namespace
}  // namespace ceilmeter
