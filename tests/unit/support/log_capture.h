// The log of a part of a test, line by line. While such an object lives, the tool's level is the requested one.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "captured_log.h"
#include "common/log.h"

namespace ceilmeter {

class log_capture {
 public:
  explicit log_capture(int level = LEVEL_TRACE_DATA) : level_(mora_log_get_level()) { mora_log_set_level(level); }
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;
  ~log_capture() { mora_log_set_level(level_); }

  // Each line from its level on: "warn No data in basic block". A line without the log's header is given whole.
  std::vector<std::string> messages() const { return log_.lines(); }

  std::vector<std::string> lines() const {
    std::istringstream stream(log_.text());
    std::vector<std::string> found;
    for (std::string line; std::getline(stream, line);) found.push_back(line);
    return found;
  }

 private:
  test::captured_log log_;
  int level_;
};

}  // namespace ceilmeter
