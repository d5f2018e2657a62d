// Runs what must not happen in the test's own process.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace ceilmeter::test {

// Runs `body` in a child, where the environment and the log are its own; returns what the child exits with.
template <typename body_type>
int status_of_child(const body_type& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace ceilmeter::test
