// What happens to a run when somebody stops it. While its application runs as a child, the application ends, its
// counters up to then are written, and then the tool ends by the same signal. A traced application is this process: it
// ends by any signal, what was counted up to then is written, and the process ends by the signal. A second request ends
// the tool at once.
#pragma once

#include <sys/types.h>

#include <csignal>

namespace ceilmeter {

// While one lives, SIGINT, SIGTERM and SIGHUP are noted instead of ending the process, but for those that were ignored
// already, and a child can be waited for even if the caller ignores SIGCHLD. Make it before fork, one at a time, in a
// process of one thread.
//
// A signal from a terminal goes to the whole group of processes, the child among them. One that was sent, by `kill` or
// by a batch system, is passed on, because it may have been sent to the tool alone.
class interruption_guard {
 public:
  interruption_guard();   // The signals wait until one of the two calls that follow.
  ~interruption_guard();  // Puts everything back.
  interruption_guard(const interruption_guard&) = delete;
  interruption_guard& operator=(const interruption_guard&) = delete;

  // In the child, before it executes a program: signals are again as the caller has left them.
  void leave_in_child() const;

  // In the parent.
  void begin_wait(pid_t child);

  // waitpid without an interruption: the child's wait status is in `status`. Passes nothing on afterwards.
  pid_t wait_for_end(pid_t child, int& status);

 private:
  void restore_actions() const;

  struct sigaction m_child_action {};
  struct sigaction m_actions[3]{};
  sigset_t m_blocked{};
};

// A traced application has ended by the signal. From now on a second request ends the process at once, by its own
// number, and a fault or an abort of the tool's ends it by the application's signal, which its parent waits for. The
// handlers are kept by restore_process_state.
void note_end_by_signal(int signum);

// Whether that has given the signal a handler.
bool has_handler_at_end(int signum);

// The signal that has interrupted the run; 0: none.
int interrupting_signal();

// Ends the process by the signal that has interrupted the run. Returns if none has.
void end_as_interrupted();

}  // namespace ceilmeter
