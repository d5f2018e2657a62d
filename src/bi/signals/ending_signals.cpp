// Raw system calls throughout: some of this runs in a signal handler, and the C library refuses the signals that it
// keeps for itself.
#include "bi/signals/ending_signals.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "bi/mora.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

constexpr std::int64_t ONE_REQUEST_NS = 500'000'000;

constexpr pid_t SPARED_PROCESS = 1;

// 32 and 33 are the C libraries' own, see kernel/threads.cpp.
constexpr int FIRST_PROGRAM_SIGNAL = 34;

std::int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Whether a process without a handler ends by the signal, and a handler can be had.
bool ends_by_default(int signum) {
  switch (signum) {
    case SIGKILL:
    case SIGSTOP:
    case SIGTSTP:
    case SIGTTIN:
    case SIGTTOU:
    case SIGCHLD:
    case SIGCONT:
    case SIGURG:
    case SIGWINCH: return false;
    default: return signum < 32 || (signum >= FIRST_PROGRAM_SIGNAL && signum < SIGNAL_COUNT);
  }
}

bool is_user_request(int signum) {
  return signum == SIGINT || signum == SIGTERM || signum == SIGHUP || signum == SIGQUIT;
}

void give_default_action(int signum) {
  // The kernel's struct sigaction: all words 0 are the default action.
  const std::uint64_t default_action[4] = {};
  raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), address_of(default_action), 0, KERNEL_SIGSET_SIZE);
}

bool has_default_action(int signum) {
  return std::atomic_ref(application_handlers()[signum]).load(std::memory_order_relaxed) == 0;
}

}  // namespace

void catch_ending_signals() {
  engine.process = getpid() != SPARED_PROCESS ? getpid() : 0;
  if (engine.process == 0) return;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (signum != SIGILL && ends_by_default(signum)) catch_default_action(signum);
  }
}

void spare_first_process(const thread_data* thread) {
  if (thread->process != SPARED_PROCESS || engine.process == 0) return;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (is_caught_default(signum)) give_default_action(signum);
  }
  engine.process = 0;
}

bool is_ending_signal(int signum) { return ends_by_default(signum) && engine.process == getpid(); }

bool is_caught_default(int signum) {
  return signum != SIGILL && engine.process != 0 && ends_by_default(signum) && has_default_action(signum);
}

bool ends_child(int signum) { return is_caught_default(signum) && engine.process != getpid(); }

bool is_second_request(const siginfo_t& info) {
  if (!is_user_request(info.si_signo) || !has_default_action(info.si_signo)) return false;
  if (engine.ending_signal == 0) return true;
  const bool was_sent = info.si_code <= 0;
  return !was_sent || monotonic_ns() - engine.ending_time >= ONE_REQUEST_NS;
}

void raise_default(int signum) {
  give_default_action(signum);
  raw_syscall(SYS_tgkill, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(gettid()),
              static_cast<std::uint64_t>(signum));
}

void note_ending_signal(int signum) {
  engine.ending_signal = signum;
  engine.ending_time = monotonic_ns();
}

void note_application_core(application_core& core) {
  rlimit limit{};
  getrlimit(RLIMIT_CORE, &limit);
  core = {{limit.rlim_cur, limit.rlim_max}, open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)};
}

void end_by_signal(int signum, const application_core& core) {
  std::fflush(nullptr);
  const rlimit limit = {core.core_limit[0], core.core_limit[1]};
  setrlimit(RLIMIT_CORE, &limit);
  if (core.folder >= 0) [[maybe_unused]]
    const int result = fchdir(core.folder);
  raise_default(signum);
  const std::uint64_t alone = signal_bit(signum);
  raw_syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, address_of(&alone), 0, KERNEL_SIGSET_SIZE);
  constexpr int by_signal = 128;  // As a shell tells it.
  _exit(by_signal + signum);
}

}  // namespace ceilmeter
