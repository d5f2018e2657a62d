// A child sends its time and its result through a pipe. The kernel tells its peak of memory when it ends.
#include "child_task.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace ceilmeter::bench {

namespace {

double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

struct message {
  double seconds;
  std::uint64_t seen;
};

}  // namespace

void stopwatch::start() { started_ = processor_seconds(); }

void stopwatch::stop() { seconds_ += processor_seconds() - started_; }

task_cost run_in_child(const std::function<std::uint64_t(stopwatch&)>& task) {
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    close(ends[0]);
    stopwatch watch;
    message result{};
    result.seen = task(watch);
    result.seconds = watch.seconds();
    const bool sent = write(ends[1], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
    // The work is over: end without destructors and exit handlers.
    _exit(sent ? 0 : 1);
  }
  close(ends[1]);
  message result{};
  const bool received = read(ends[0], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
  close(ends[0]);
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child) fail("wait4");
  if (!received || status != 0) {
    std::fprintf(stderr, "a task failed: wait status %#x\n", static_cast<unsigned>(status));
    std::exit(1);
  }
  return {result.seconds, usage.ru_maxrss, result.seen};
}

}  // namespace ceilmeter::bench
