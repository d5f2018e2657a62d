// The child takes the environment of this process as it stands, with the variables of region mode in it. Of the wait
// status only the exit status is looked at: a program that a signal ended counts as 0, and its counters are as good.
#include "run_application.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "interruption.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/run_application"};

[[noreturn]] void child_func(const interruption_guard& guard, const std::string& path, int argc, char** argv) {
  guard.leave_in_child();
  mora_log_command_line(argc, argv);
  log(LEVEL_INFO, "Call execvp for %s", path.c_str());
  execvp(path.c_str(), argv);
  const char* reason = std::strerror(errno);
  if (std::fprintf(stderr, "Error: Failed to start %s\n%s\n", path.c_str(), reason) < 0) {
    std::printf("Error: Failed to start %s\n", path.c_str());
  }
  mora_log_exit(1, "%s", "");
}

}  // namespace

std::int32_t run_application(const std::string& path, int argc, char** argv) {
  log(LEVEL_INFO, "Call fork for %s", path.c_str());
  interruption_guard guard;
  const pid_t pid = fork();
  log(LEVEL_INFO, "Fork result: %d", pid);
  if (pid < 0) {
    log(LEVEL_WARN, "Fork error, cant run %s", path.c_str());
    return -1;
  }
  if (pid == 0) child_func(guard, path, argc, argv);

  guard.begin_wait(pid);
  int status = 0;
  const pid_t waited = guard.wait_for_end(pid, status);
  const int exit_status = (status >> 8) & 0xff;
  log(LEVEL_INFO, "End wait, wait_status=%d, wait_return %d and app_exit_status=%d", status, waited, exit_status);
  if (exit_status != 0) log(LEVEL_WARN, "Application exit status is %d!\n", exit_status);
  return exit_status;
}

}  // namespace ceilmeter
