// A log that remembers what was logged and by whom. It stands in for the real one at link time, because a printed line
// does not show the function it came from.
#pragma once

#include <string>
#include <vector>

namespace ceilmeter::test {

struct logged_line {
  std::string source;
  std::string function;
  int level = 0;
  std::string text;

  bool operator==(const logged_line&) const = default;
};

// Sets the threshold and clears the log.
void reset_log(int level);

// Everything logged since, oldest first.
std::vector<logged_line> logged_lines();

// Only the texts of one level.
std::vector<std::string> logged_texts(int level);

}  // namespace ceilmeter::test
