// What the frame asks of the operating system, under a test's control: the processors, pinning, sleep, the clock, and
// the making of threads. The linker redirects the calls (--wrap), or the executable's own definition takes precedence
// over the C library's. Every call goes to the real function until a test says otherwise, and again after the test.
#pragma once

#include <sched.h>
#include <time.h>

#include <functional>
#include <optional>
#include <vector>

struct affinity_call {
  int pid;
  std::size_t bytes;
  cpu_set_t set;
  int result;
};

struct frame_seams {
  std::optional<int> processors;                         // What the machine is said to have.
  std::optional<int> pinning_error;                      // Every pinning fails with this errno.
  std::optional<int> threads_to_allow;                   // The creation of a thread beyond these fails.
  std::function<int(const timespec&, timespec*)> sleep;  // Instead of nanosleep: a result, errno set if it is -1.
  std::function<void()> before_clock;                    // Called before each reading of the clock.
  std::function<void()> after_clock;                     // Called behind each reading of the clock.

  static frame_seams& get();
  static std::vector<affinity_call> affinity_calls();  // So far, in any order.
  static void reset();
  static int real_sleep(const timespec& wanted, timespec* left);  // nanosleep itself.
};

// Restores the real functions, before and after a test.
struct frame_seams_guard {
  frame_seams_guard() { frame_seams::reset(); }
  ~frame_seams_guard() { frame_seams::reset(); }
};
