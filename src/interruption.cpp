// The handlers run on any thread; they use only what a handler may use.
#include "interruption.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace ceilmeter {

namespace {

constexpr std::array<int, 3> interruptions = {SIGINT, SIGTERM, SIGHUP};

constexpr std::array<int, 7> failures = {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS};

// Somebody who sends a signal to a process and to its group, as `timeout` does, means one request.
constexpr std::int64_t one_request_ns = 500'000'000;

std::atomic<int> first_signal{0};
std::atomic<std::int64_t> first_time{0};
std::atomic<pid_t> waited_child{0};

std::int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void end_by(int signum) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(signum, &action, nullptr);
  sigset_t alone;
  sigemptyset(&alone);
  sigaddset(&alone, signum);
  raise(signum);
  sigprocmask(SIG_UNBLOCK, &alone, nullptr);
}

void note_interruption(int signum, siginfo_t* info, void*) {
  const int saved_errno = errno;
  const bool was_sent = info->si_code <= 0;
  const pid_t child = waited_child.load();
  const bool is_first = first_signal.load() == 0;
  const bool is_same_request = !is_first && was_sent && monotonic_ns() - first_time.load() < one_request_ns;
  if (is_first) {
    first_time = monotonic_ns();
    first_signal = signum;
  }
  if (was_sent && !is_same_request && child > 0) kill(child, signum);
  if (!is_first && !is_same_request) end_by(signum);
  errno = saved_errno;
}

// The step that writes what was counted has failed.
void end_by_first_signal(int) { end_by(first_signal.load()); }

sigset_t interruption_mask() {
  sigset_t mask;
  sigemptyset(&mask);
  for (const int signum : interruptions) sigaddset(&mask, signum);
  return mask;
}

}  // namespace

interruption_guard::interruption_guard() {
  const sigset_t mask = interruption_mask();
  sigprocmask(SIG_BLOCK, &mask, &m_blocked);

  struct sigaction waits {};
  waits.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &waits, &m_child_action);

  struct sigaction notes {};
  notes.sa_sigaction = note_interruption;
  notes.sa_flags = SA_SIGINFO | SA_RESTART;
  notes.sa_mask = mask;
  for (std::size_t row = 0; row < interruptions.size(); ++row) {
    sigaction(interruptions[row], nullptr, &m_actions[row]);
    if (m_actions[row].sa_handler != SIG_IGN) sigaction(interruptions[row], &notes, nullptr);
  }
}

interruption_guard::~interruption_guard() {
  const sigset_t mask = interruption_mask();
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  waited_child = 0;
  restore_actions();
  sigprocmask(SIG_SETMASK, &m_blocked, nullptr);
}

void interruption_guard::restore_actions() const {
  sigaction(SIGCHLD, &m_child_action, nullptr);
  for (std::size_t row = 0; row < interruptions.size(); ++row) {
    sigaction(interruptions[row], &m_actions[row], nullptr);
  }
}

void interruption_guard::leave_in_child() const {
  restore_actions();
  sigprocmask(SIG_SETMASK, &m_blocked, nullptr);
}

void interruption_guard::begin_wait(pid_t child) {
  waited_child = child;
  sigprocmask(SIG_SETMASK, &m_blocked, nullptr);
}

pid_t interruption_guard::wait_for_end(pid_t child, int& status) {
  // The child keeps its number until it is waited for, so that no other process gets its signals.
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  waited_child = 0;
  pid_t waited = -1;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited;
}

bool has_handler_at_end(int signum) {
  if (first_signal == 0) return false;
  return signum == SIGQUIT || std::find(interruptions.begin(), interruptions.end(), signum) != interruptions.end() ||
         std::find(failures.begin(), failures.end(), signum) != failures.end();
}

void note_end_by_signal(int signum) {
  first_time = monotonic_ns();
  first_signal = signum;
  waited_child = 0;
  struct sigaction action {};
  action.sa_handler = end_by_first_signal;
  for (const int failure : failures) sigaction(failure, &action, nullptr);
  action.sa_sigaction = note_interruption;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  action.sa_mask = interruption_mask();
  for (const int request : interruptions) sigaction(request, &action, nullptr);
  sigaction(SIGQUIT, &action, nullptr);
}

int interrupting_signal() { return first_signal; }

void end_as_interrupted() {
  if (const int signum = first_signal) end_by(signum);
}

}  // namespace ceilmeter
