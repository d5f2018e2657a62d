// A line on the terminal that tells how far the long work of a run is. It stands on standard error, overwrites itself
// and is gone at the end; where standard error is no terminal nothing is written.
#pragma once

#include <cstdint>
#include <string>

namespace ceilmeter {

class terminal_progress {
 public:
  terminal_progress();   // Looks at what standard error is now: a traced application may have changed it.
  ~terminal_progress();  // Clears the line.
  terminal_progress(const terminal_progress&) = delete;
  terminal_progress& operator=(const terminal_progress&) = delete;

  // Shows "CEILMETER: " and `text`, cut to the terminal's width. The cursor stays at the line's start, so that a line
  // of the log overwrites it.
  void show(const std::string& text);
  void clear();

 private:
  bool m_is_terminal;
  bool m_is_shown = false;
};

// The time for `left` steps by what `done` steps took, in seconds, rounded up; a second for each while none is done.
std::uint64_t remaining_seconds(std::uint64_t done, std::uint64_t left, double elapsed);

}  // namespace ceilmeter
