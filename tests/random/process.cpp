// Standard input and error are files in memory, standard output is a pipe that is read as it comes.
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

extern char** environ;

namespace ceilmeter {

namespace {

constexpr std::size_t MOST_MESSAGES = 4096;

class descriptor {
 public:
  explicit descriptor(int number) : number_(number) {}
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  ~descriptor() { shut(); }
  int get() const { return number_; }
  void shut() {
    if (number_ >= 0) close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

bool put_all(int file, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write(file, bytes.data() + done, bytes.size() - done);
    if (written <= 0) return false;
    done += static_cast<std::size_t>(written);
  }
  return lseek(file, 0, SEEK_SET) == 0;
}

// The process's id, or -1.
pid_t start(const std::vector<std::string>& command, int input, int output, int messages) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, 0);
  posix_spawn_file_actions_adddup2(&actions, output, 1);
  posix_spawn_file_actions_adddup2(&actions, messages, 2);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  errno = error;
  return error == 0 ? pid : -1;
}

}  // namespace

outcome run_process(const std::vector<std::string>& command, const std::string& input, unsigned seconds) {
  outcome result;
  descriptor stdin_file(memfd_create("input", MFD_CLOEXEC));
  descriptor stderr_file(memfd_create("messages", MFD_CLOEXEC));
  int ends[2];
  if (stdin_file.get() < 0 || stderr_file.get() < 0 || !put_all(stdin_file.get(), input) ||
      pipe2(ends, O_CLOEXEC) != 0) {
    return result;
  }
  descriptor reader(ends[0]);
  descriptor writer(ends[1]);
  const pid_t pid = start(command, stdin_file.get(), writer.get(), stderr_file.get());
  if (pid < 0) return result;
  result.started = true;
  writer.shut();

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  char buffer[65536];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd ready = {reader.get(), POLLIN, 0};
    const int count = left.count() <= 0 ? 0 : poll(&ready, 1, static_cast<int>(left.count()));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      result.timed_out = true;
      kill(-pid, SIGKILL);
      break;
    }
    const ssize_t got = read(reader.get(), buffer, sizeof buffer);
    if (got <= 0) break;
    result.output.append(buffer, static_cast<std::size_t>(got));
  }
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  result.messages.resize(MOST_MESSAGES);
  const ssize_t got = pread(stderr_file.get(), result.messages.data(), MOST_MESSAGES, 0);
  result.messages.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return result;
}

std::string describe_end(const outcome& what) {
  if (!what.started) return "not started";
  if (what.timed_out) return "no end within the bound on time";
  if (WIFSIGNALED(what.status)) return "killed by signal " + std::to_string(WTERMSIG(what.status));
  return "exit status " + std::to_string(WEXITSTATUS(what.status));
}

}  // namespace ceilmeter
