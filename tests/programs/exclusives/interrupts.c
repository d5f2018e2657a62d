// Keeps a processor busy with interrupts, and nothing else: interrupts MICROSECONDS COMMAND... runs the command while a
// timer that nobody reads fires at that period.
#include <stdint.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../syscalls/check.h"

int main(int count, char** arguments) {
  CHECK(count > 2);
  const long period = strtol(arguments[1], NULL, 10) * 1000;
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  CHECK(timer >= 0);
  const struct itimerspec setting = {.it_interval.tv_nsec = period, .it_value.tv_nsec = period};
  CHECK(timerfd_settime(timer, 0, &setting, NULL) == 0);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    execvp(arguments[2], arguments + 2);
    _exit(127);
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  uint64_t fired = 0;
  CHECK(read(timer, &fired, sizeof fired) == sizeof fired && fired > 100);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
