// Runs a program to its end, or to a bound that only a hang reaches, and keeps what it wrote.
#pragma once

#include <string>
#include <vector>

namespace ceilmeter {

struct outcome {
  bool started = false;
  bool timed_out = false;
  int status = 0;  // As wait gives it.
  std::string output = {};
  std::string messages = {};  // Standard error, its first few kilobytes.

  bool operator==(const outcome& other) const {
    return timed_out == other.timed_out && status == other.status && output == other.output;
  }
};

// `input` becomes standard input's content. After `seconds` the program and its children are killed.
outcome run_process(const std::vector<std::string>& command, const std::string& input, unsigned seconds);

// "exit status 3", "killed by signal 11", ...
std::string describe_end(const outcome& what);

}  // namespace ceilmeter
