// Catches what the code under test writes to a descriptor, by a file of its own in the descriptor's place.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ceilmeter::test {

// The whole content of a file.
inline std::string content_of_descriptor(int fd) {
  std::string content;
  char buffer[4096];
  off_t offset = 0;
  for (ssize_t got; (got = pread(fd, buffer, sizeof buffer, offset)) > 0; offset += got) {
    content.append(buffer, static_cast<std::size_t>(got));
  }
  return content;
}

// One element per line of a log: "level message", such as "warn setenv failed"; lines of a message behind its first one
// stand by themselves.
inline std::vector<std::string> log_lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    const std::size_t mark = line.find(" MORA ");
    result.push_back(mark == std::string::npos ? line : line.substr(mark + 6));
  }
  return result;
}

// While it lives, writes to `fd` go into a memory file. One thread at a time may make and destroy one per descriptor.
class captured_descriptor {
 public:
  explicit captured_descriptor(int fd) : m_fd(fd), m_saved(dup(fd)), m_file(memfd_create("captured", MFD_CLOEXEC)) {
    // Appending, because a memory file, unlike a regular one, does not keep two threads from writing at one position.
    if (m_saved < 0 || m_file < 0 || fcntl(m_file, F_SETFL, O_APPEND) != 0 || dup2(m_file, fd) < 0) {
      throw std::runtime_error("cannot capture a descriptor");
    }
  }
  ~captured_descriptor() {
    dup2(m_saved, m_fd);
    close(m_saved);
    close(m_file);
  }
  captured_descriptor(const captured_descriptor&) = delete;
  captured_descriptor& operator=(const captured_descriptor&) = delete;

  // All that has been written so far.
  std::string text() const { return content_of_descriptor(m_file); }

 private:
  int m_fd;
  int m_saved;
  int m_file;
};

// The log of a test: what goes to standard error, where the log stands unless something moved it.
class captured_log : public captured_descriptor {
 public:
  captured_log() : captured_descriptor(STDERR_FILENO) {}

  std::vector<std::string> lines() const { return log_lines(text()); }
};

}  // namespace ceilmeter::test
