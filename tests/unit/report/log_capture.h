// The log of a stretch of test, line by line. While one of these lives, standard error, where the log goes by default,
// is a file in memory and the tool's level is the one asked for.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/log.h"

namespace ceilmeter {

class log_capture {
 public:
  explicit log_capture(int level = LEVEL_TRACE_DATA)
      : file_(memfd_create("log", MFD_CLOEXEC)), stderr_(dup(STDERR_FILENO)), level_(mora_log_get_level()) {
    if (file_ < 0 || stderr_ < 0 || dup2(file_, STDERR_FILENO) < 0) throw std::runtime_error("cannot capture the log");
    mora_log_set_level(level);
  }
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;
  ~log_capture() {
    mora_log_set_level(level_);
    dup2(stderr_, STDERR_FILENO);
    close(stderr_);
    close(file_);
  }

  // Each line from its level on: "warn No data in basic block". A line without the log's header is given whole.
  std::vector<std::string> messages() const {
    static const std::string mark = " MORA ";
    std::vector<std::string> found;
    for (const std::string& line : lines()) {
      const auto place = line.find(mark);
      found.push_back(place == std::string::npos ? line : line.substr(place + mark.size()));
    }
    return found;
  }

  std::vector<std::string> lines() const {
    std::string text;
    char chunk[4096];
    off_t position = 0;
    for (ssize_t count; (count = pread(file_, chunk, sizeof chunk, position)) > 0; position += count) {
      text.append(chunk, static_cast<std::size_t>(count));
    }
    std::istringstream stream(text);
    std::vector<std::string> found;
    for (std::string line; std::getline(stream, line);) found.push_back(line);
    return found;
  }

 private:
  int file_;
  int stderr_;
  int level_;
};

}  // namespace ceilmeter
