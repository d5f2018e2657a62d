// The child leads a process group of its own, so that everything that it has started can be ended with it.
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace ceilmeter::test {

namespace {

using clock = std::chrono::steady_clock;

[[noreturn]] void become(const std::vector<std::string>& words, const process_options& options, int out, int err) {
  // A group of its own: when the time is up, everything that the program has started ends with it.
  setpgid(0, 0);
  const int null = open("/dev/null", O_RDONLY);
  dup2(null, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  close_range(3, ~0U, 0);
  if (!options.folder.empty() && chdir(options.folder.c_str()) != 0) _exit(126);
  for (const auto& [name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
  if (options.descriptor_limit != 0) {
    const rlimit limit = {options.descriptor_limit, options.descriptor_limit};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(126);
  }
  if (options.user != 0 && (setgid(options.user) != 0 || setuid(options.user) != 0)) _exit(126);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

// Reads both pipes to their ends. False if the time was up first.
bool drain(std::array<pollfd, 2>& pipes, std::array<std::string*, 2> texts, clock::time_point deadline) {
  std::array<char, 65536> buffer;
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
    if (left <= 0) return false;
    if (poll(pipes.data(), pipes.size(), static_cast<int>(left)) <= 0) continue;
    for (std::size_t index = 0; index < pipes.size(); ++index) {
      if (pipes[index].fd < 0 || pipes[index].revents == 0) continue;
      const ssize_t got = read(pipes[index].fd, buffer.data(), buffer.size());
      if (got > 0) {
        texts[index]->append(buffer.data(), static_cast<std::size_t>(got));
      } else {
        close(pipes[index].fd);
        pipes[index].fd = -1;
      }
    }
  }
  return true;
}

std::filesystem::path build_folder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../.."; }

}  // namespace

process_result run_process(const std::vector<std::string>& words, const process_options& options) {
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  const clock::time_point start = clock::now();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) become(words, options, out[1], err[1]);
  close(out[1]);
  close(err[1]);

  process_result result;
  std::array<pollfd, 2> pipes = {{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  if (!drain(pipes, {&result.out, &result.err}, start + std::chrono::seconds(options.seconds_allowed))) {
    kill(-pid, SIGKILL);
    result.err += "\n[killed by the test: time is up]\n";
  }
  int status = 0;
  waitpid(pid, &status, 0);
  for (const pollfd& pipe : pipes) {
    if (pipe.fd >= 0) close(pipe.fd);
  }
  result.seconds = std::chrono::duration<double>(clock::now() - start).count();
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::filesystem::path tool_path() { return (build_folder() / "ceilmeter").lexically_normal(); }

std::filesystem::path program_path(const std::string& name) {
  return (build_folder() / "tests/programs" / name).lexically_normal();
}

std::string content_of(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

void write_file(const std::filesystem::path& path, const std::string& content) {
  std::ofstream stream(path, std::ios::binary);
  stream << content;
  if (!stream.flush()) throw std::runtime_error("cannot write " + path.string());
}

temporary_folder::temporary_folder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ceilmeter_test.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  m_path = pattern;
  chmod(m_path.c_str(), 0777);
}

temporary_folder::~temporary_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> log_lines(const std::string& text) {
  static const std::regex header(R"(^\[[0-9]+\.[0-9]{6}:[0-9]+\] +([a-z_0-9]+):[0-9]+ +MORA ([a-z-]+) (.*)$)");
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    std::smatch parts;
    if (std::regex_match(line, parts, header)) {
      lines.push_back(parts[1].str() + " " + parts[2].str() + " " + parts[3].str());
    } else {
      lines.push_back(line);
    }
  }
  return lines;
}

std::vector<std::string> log_lines_of_level(const std::string& text, const std::string& level) {
  std::vector<std::string> lines;
  for (const std::string& line : log_lines(text)) {
    const std::size_t blank = line.find(' ');
    if (blank != std::string::npos && line.compare(blank + 1, level.size() + 1, level + " ") == 0)
      lines.push_back(line);
  }
  return lines;
}

std::string without_silent_metrics(const std::string& err) {
  std::string kept;
  for (std::size_t begin = 0; begin < err.size();) {
    const std::size_t end = std::min(err.find('\n', begin), err.size() - 1) + 1;
    const std::string line = err.substr(begin, end - begin);
    if (line.find(" is 0 in all regions: ") == std::string::npos) kept += line;
    begin = end;
  }
  return kept;
}

}  // namespace ceilmeter::test
