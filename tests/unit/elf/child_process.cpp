// Both output streams are pipes that the parent drains together, so that a long output blocks nobody.
#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace ceilmeter::test {

namespace {

using steady = std::chrono::steady_clock;

// Reads until both ends are closed. False if that took longer than until `deadline`.
bool drain(std::array<pollfd, 2>& ends, std::array<std::string*, 2> texts, steady::time_point deadline) {
  std::array<char, 65536> buffer;
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now()).count();
    if (left <= 0) return false;
    if (poll(ends.data(), ends.size(), static_cast<int>(left)) <= 0) continue;
    for (std::size_t index = 0; index < ends.size(); ++index) {
      if (ends[index].fd < 0 || ends[index].revents == 0) continue;
      const ssize_t count = read(ends[index].fd, buffer.data(), buffer.size());
      if (count > 0) {
        texts[index]->append(buffer.data(), static_cast<std::size_t>(count));
      } else {
        close(ends[index].fd);
        ends[index].fd = -1;
      }
    }
  }
  return true;
}

// Empty if there is none.
std::string found_in_path(const std::string& program) {
  const char* variable = std::getenv("PATH");
  std::istringstream path(variable != nullptr ? variable : "");
  for (std::string folder; std::getline(path, folder, ':');) {
    const std::string candidate = folder + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace

child_outcome run_in_child(const std::function<void()>& work, unsigned seconds) {
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe(out.data()) != 0 || pipe(err.data()) != 0) throw std::runtime_error("no pipe");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("no child");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    for (const int fd : {out[0], out[1], err[0], err[1]}) close(fd);
    // A program with random headers may send signals and fault. It must not signal its parents, leave a core file, or
    // outlive them.
    const rlimit no_core{0, 0};
    const rlimit processor{seconds, seconds};
    if (setpgid(0, 0) != 0 || setrlimit(RLIMIT_CORE, &no_core) != 0 || setrlimit(RLIMIT_CPU, &processor) != 0 ||
        prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
      _exit(98);
    }
    work();
    _exit(0);
  }
  close(out[1]);
  close(err[1]);
  child_outcome outcome;
  std::array<pollfd, 2> ends{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  if (!drain(ends, {&outcome.out, &outcome.err}, steady::now() + std::chrono::seconds(10 * seconds))) {
    outcome.timed_out = true;
    kill(-pid, SIGKILL);  // Not an alarm of its own: an emulator within a system call doesn't look.
    for (const pollfd& end : ends) {
      if (end.fd >= 0) close(end.fd);
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  outcome.timed_out = outcome.timed_out || outcome.status == 128 + SIGKILL || outcome.status == 128 + SIGXCPU;
  return outcome;
}

child_outcome run_natively(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                           unsigned seconds) {
  std::vector<std::string> command = {found_in_path("prlimit"), "--as=" + std::to_string(address_space_allowed)};
  std::istringstream emulator(CEILMETER_TEST_EMULATOR);
  std::string word;
  // If the machine has no such emulator, the build was made on another machine and needs none here.
  if (emulator >> word && !found_in_path(word).empty()) command.push_back(found_in_path(word));
  while (command.size() > 2 && emulator >> word) command.push_back(word);
  command.insert(command.end(), words.begin(), words.end());
  std::vector<char*> argv = pointers_to(command);
  std::vector<char*> envp = pointers_to(environment);
  return run_in_child(
      [&] {
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
      },
      seconds);
}

std::string beside_the_test(const std::string& name) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).lexically_normal();
}

std::vector<char*> pointers_to(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (const std::string& string : strings) pointers.push_back(const_cast<char*>(string.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

void PrintTo(const child_outcome& outcome, std::ostream* stream) {
  *stream << "status " << outcome.status << (outcome.timed_out ? ", timed out" : "") << "\n--- standard output\n"
          << outcome.out << "--- standard error\n"
          << outcome.err << "---";
}

}  // namespace ceilmeter::test
