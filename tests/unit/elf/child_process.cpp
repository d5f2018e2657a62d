// Both output streams are pipes that the parent drains together, so that a long output blocks nobody.
#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace ceilmeter::test {

namespace {

void drain(std::array<pollfd, 2>& ends, std::array<std::string*, 2> texts) {
  std::array<char, 65536> buffer;
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    if (poll(ends.data(), ends.size(), -1) < 0) continue;
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
    // A program with random headers may send signals and fault at will: not to its parents, and without leaving a core.
    const rlimit no_core{0, 0};
    if (setpgid(0, 0) != 0 || setrlimit(RLIMIT_CORE, &no_core) != 0) _exit(98);
    alarm(seconds);
    work();
    _exit(0);
  }
  close(out[1]);
  close(err[1]);
  child_outcome outcome;
  std::array<pollfd, 2> ends{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  drain(ends, {&outcome.out, &outcome.err});
  int status = 0;
  waitpid(pid, &status, 0);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

child_outcome run_natively(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                           unsigned seconds) {
  std::istringstream emulator(CEILMETER_TEST_EMULATOR);
  std::vector<std::string> command;
  for (std::string word; emulator >> word;) command.push_back(word);
  const std::size_t emulator_words = command.size();
  command.insert(command.end(), words.begin(), words.end());
  std::vector<char*> argv = pointers_to(command);
  std::vector<char*> envp = pointers_to(environment);
  return run_in_child(
      [&] {
        execvpe(argv[0], argv.data(), envp.data());
        // No emulator here: a machine that needs none, for which this was built on another.
        execve(argv[emulator_words], argv.data() + emulator_words, envp.data());
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
  *stream << "status " << outcome.status << "\n--- standard output\n"
          << outcome.out << "--- standard error\n"
          << outcome.err << "---";
}

}  // namespace ceilmeter::test
