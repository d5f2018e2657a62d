// The lines that tell a user on standard output how a collection gets on.
#pragma once

#include <cstdio>
#include <string>

namespace ceilmeter {

// Prints "CEILMETER: ", `text` and a newline, and flushes: an application that shares the stream must not find the
// line in its own copy of the buffer after a fork.
inline void print_progress(const std::string& text) {
  std::printf("CEILMETER: %s\n", text.c_str());
  std::fflush(stdout);
}

}  // namespace ceilmeter
