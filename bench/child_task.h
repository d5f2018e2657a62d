// One measured piece of work in a process of its own. The peak of memory is then that of this work alone, and each
// repetition starts on a fresh heap. The parent must stay small, because a child starts with the parent's pages.
#pragma once

#include <cstdint>
#include <functional>

namespace ceilmeter::bench {

struct task_cost {
  double seconds = 0;               // Processor time of what stood between start() and stop().
  std::int64_t peak_kilobytes = 0;  // The child's largest resident set, from its start to its end.
  std::uint64_t seen = 0;           // What the task returned.
};

// The clock of a task. It counts processor time, not wall-clock time, because the machine may have other work.
class stopwatch {
 public:
  void start();
  void stop();
  double seconds() const { return seconds_; }

 private:
  double started_ = 0;
  double seconds_ = 0;
};

// Runs `task` in a forked child and gives what it cost. Ends the program, with a message, if the child fails.
task_cost run_in_child(const std::function<std::uint64_t(stopwatch&)>& task);

}  // namespace ceilmeter::bench
