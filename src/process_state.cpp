// Raw system calls where the C library has no wrapper or a narrower one. A call that this kernel does not know leaves
// its part of the record unset, and nothing is restored from it.
#include "process_state.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cfenv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/log.h"
#include "interruption.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/process_state"};

constexpr int signal_count = 65;
constexpr unsigned long policy_nodes = 1024;

// Processors and memory nodes as the kernel has them, a bit each.
using processor_set = std::array<std::uint64_t, 128>;
using node_set = std::array<std::uint64_t, policy_nodes / 64>;

struct process_state {
  bool is_saved = false;
  std::array<rlimit, RLIM_NLIMITS> limits{};
  std::array<bool, signal_count> is_ignored{};
  sigset_t blocked{};
  mode_t file_mask = 0;
  std::fenv_t arithmetic{};
  int scheduling_class = -1;
  sched_param scheduling{};
  int nice_value = 0;
  processor_set processors{};
  long processors_size = -1;
  int memory_policy = -1;
  node_set memory_nodes{};
  int huge_pages_off = -1;
  std::string folder;
  std::string temporary_folder;
};

process_state& at_start() {
  static process_state state;
  return state;
}

struct named_limit {
  int resource;
  const char* name;
};

// Those that a roof or the result file may meet.
constexpr std::array<named_limit, 7> limits_that_matter = {{{RLIMIT_FSIZE, "the size of files"},
                                                            {RLIMIT_AS, "memory"},
                                                            {RLIMIT_DATA, "data"},
                                                            {RLIMIT_CPU, "processor time"},
                                                            {RLIMIT_NPROC, "processes"},
                                                            {RLIMIT_STACK, "stacks"},
                                                            {RLIMIT_MEMLOCK, "locked memory"}}};

void warn_of_limit(int resource, rlim_t left) {
  for (const named_limit& limit : limits_that_matter) {
    if (limit.resource != resource) continue;
    log(LEVEL_WARN, "The application has lowered the limit on %s to %llu for good", limit.name,
        static_cast<unsigned long long>(left));
  }
}

void warn_of(const char* what) {
  log(LEVEL_WARN, "The application has changed the %s for good: the roofs are measured with it", what);
}

// Under privileges the hard limit comes back too; else the soft one as far as the hard one lets it.
void restore_limits(const process_state& state) {
  for (int resource = 0; resource < static_cast<int>(state.limits.size()); ++resource) {
    rlimit wanted = state.limits[static_cast<std::size_t>(resource)];
    const auto kind = static_cast<__rlimit_resource>(resource);
    if (resource == RLIMIT_NOFILE) wanted.rlim_cur = wanted.rlim_max;
    if (setrlimit(kind, &wanted) == 0) continue;
    rlimit now{};
    if (getrlimit(kind, &now) != 0) continue;
    now.rlim_cur = std::min(wanted.rlim_cur, now.rlim_max);
    const bool is_lower = now.rlim_cur < wanted.rlim_cur;
    if (setrlimit(kind, &now) != 0 || is_lower) warn_of_limit(resource, now.rlim_cur);
  }
}

// The application may have used up all descriptors that the hard limit allows. The report opens the files of its code,
// so some of the application's are closed, which its end would do anyway. The engine's are among them, of files that it
// has loaded and needs no more; the log's stays.
void free_descriptors(const process_state& state) {
  constexpr int enough = 16;
  int freed = 0;
  const auto numbers = static_cast<int>(std::min<rlim_t>(state.limits[RLIMIT_NOFILE].rlim_max, 1 << 20));
  for (int fd = STDERR_FILENO + 1; fd < numbers && freed < enough; ++fd) {
    if (fd != mora_log_get_descriptor() && close(fd) == 0) ++freed;
  }
}

bool are_descriptors_used_up() {
  const int fd = dup(STDERR_FILENO);
  if (fd >= 0) close(fd);
  return fd < 0 && errno == EMFILE;
}

bool ends_a_process_by_a_user(int signum) {
  return signum == SIGINT || signum == SIGTERM || signum == SIGHUP || signum == SIGQUIT;
}

bool is_fault_or_fatal(int signum) {
  return signum == SIGILL || signum == SIGTRAP || signum == SIGABRT || signum == SIGBUS || signum == SIGFPE ||
         signum == SIGSEGV || signum == SIGSYS;
}

// The kernel does nothing, or stops the process, where the default action is taken.
bool is_harmless(int signum) {
  return signum == SIGCHLD || signum == SIGCONT || signum == SIGURG || signum == SIGWINCH || signum == SIGTSTP ||
         signum == SIGTTIN || signum == SIGTTOU;
}

void set_action(int signum, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigaction(signum, &action, nullptr);
}

// A timer or a descriptor of the application's may still send its signal, to which the application has had a handler.
void restore_signals(const process_state& state) {
  for (int signum = 1; signum < signal_count; ++signum) {
    if (signum == SIGKILL || signum == SIGSTOP) continue;
    const bool takes_default = ends_a_process_by_a_user(signum) || is_fault_or_fatal(signum) || is_harmless(signum);
    const bool was_ignored = state.is_ignored[static_cast<std::size_t>(signum)];
    if (!was_ignored && has_handler_at_end(signum)) continue;
    const bool ignored = was_ignored || !takes_default;
    set_action(signum, ignored ? SIG_IGN : SIG_DFL);
  }
  pthread_sigmask(SIG_SETMASK, &state.blocked, nullptr);
}

void stop_timers() {
  const itimerval none{};
  for (const __itimer_which timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) setitimer(timer, &none, nullptr);
}

void save_scheduling(process_state& state) {
  state.scheduling_class = sched_getscheduler(0);
  sched_getparam(0, &state.scheduling);
  errno = 0;
  state.nice_value = getpriority(PRIO_PROCESS, 0);
  state.processors_size = syscall(SYS_sched_getaffinity, 0, sizeof state.processors, state.processors.data());
}

void restore_scheduling(const process_state& state) {
  if (state.scheduling_class >= 0 && sched_setscheduler(0, state.scheduling_class, &state.scheduling) != 0) {
    warn_of("scheduling class");
  }
  if (getpriority(PRIO_PROCESS, 0) != state.nice_value && setpriority(PRIO_PROCESS, 0, state.nice_value) != 0) {
    warn_of("priority");
  }
  if (state.processors_size > 0) {
    syscall(SYS_sched_setaffinity, 0, static_cast<std::size_t>(state.processors_size), state.processors.data());
  }
}

void save_memory_policy(process_state& state) {
  int policy = 0;
  // The kernel takes the number of bits to be one more than it is.
  if (syscall(SYS_get_mempolicy, &policy, state.memory_nodes.data(), policy_nodes + 1, nullptr, 0) == 0) {
    state.memory_policy = policy;
  }
  state.huge_pages_off = prctl(PR_GET_THP_DISABLE, 0, 0, 0, 0);
}

void restore_memory(const process_state& state) {
  munlockall();  // No process is started with locked memory.
  if (state.memory_policy >= 0) {
    const bool has_nodes =
        std::any_of(state.memory_nodes.begin(), state.memory_nodes.end(), [](std::uint64_t bits) { return bits != 0; });
    syscall(SYS_set_mempolicy, state.memory_policy, has_nodes ? state.memory_nodes.data() : nullptr,
            has_nodes ? policy_nodes + 1 : 0);
  }
  if (state.huge_pages_off >= 0) prctl(PR_SET_THP_DISABLE, state.huge_pages_off, 0, 0, 0);
}

}  // namespace

void save_process_state() {
  process_state& state = at_start();
  for (int resource = 0; resource < static_cast<int>(state.limits.size()); ++resource) {
    getrlimit(static_cast<__rlimit_resource>(resource), &state.limits[static_cast<std::size_t>(resource)]);
  }
  for (int signum = 1; signum < signal_count; ++signum) {
    struct sigaction action {};
    const bool is_known = sigaction(signum, nullptr, &action) == 0;
    state.is_ignored[static_cast<std::size_t>(signum)] = is_known && action.sa_handler == SIG_IGN;
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &state.blocked);
  // It can only be read by setting it.
  state.file_mask = umask(077);
  umask(state.file_mask);
  std::fegetenv(&state.arithmetic);
  save_scheduling(state);
  save_memory_policy(state);
  std::error_code error;
  state.folder = std::filesystem::current_path(error).string();
  const char* temporary_folder = std::getenv("TMPDIR");
  state.temporary_folder = temporary_folder != nullptr ? temporary_folder : "";
  state.is_saved = true;
}

void restore_process_state() {
  const process_state& state = at_start();
  if (!state.is_saved) return;
  // First what every other step needs: no signal, and room for memory and descriptors.
  restore_signals(state);
  stop_timers();
  restore_limits(state);
  if (are_descriptors_used_up()) free_descriptors(state);
  std::fesetenv(&state.arithmetic);
  umask(state.file_mask);
  restore_memory(state);
  restore_scheduling(state);
}

void ignore_write_signals() {
  set_action(SIGPIPE, SIG_IGN);
  set_action(SIGXFSZ, SIG_IGN);
}

const std::string& start_folder() { return at_start().folder; }

const std::string& start_temporary_folder() { return at_start().temporary_folder; }

}  // namespace ceilmeter
