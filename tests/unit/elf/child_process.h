// Runs a function in a child process and keeps what it leaves, since a bad file ends the process that loads it.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace ceilmeter::test {

struct child_outcome {
  int status = 0;  // The exit status; 128 and the signal's number for a child that a signal ended.
  std::string out;
  std::string err;
  bool timed_out = false;

  bool operator==(const child_outcome&) const = default;
};

void PrintTo(const child_outcome& outcome, std::ostream* stream);

// A child that returns from `work` ends with status 0. One that computes for longer than `seconds`, or is not at its
// end after ten times as long, is killed: on a busy machine only the processor's time tells a hang from waiting for its
// turn.
child_outcome run_in_child(const std::function<void()>& work, unsigned seconds = 20);

// The address space that run_natively allows: more than any program here wants. An emulator, which keeps a record of
// every page, would else fill the machine's memory for a program that reserves much.
inline constexpr unsigned long long address_space_allowed = 16ULL << 30;

// Runs the program `words[0]` natively, by way of the emulator that the build's tests run in if there is one.
child_outcome run_natively(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                           unsigned seconds = 20);

// The path of a file of the build, from the test's own folder, wherever the build is mounted.
std::string beside_the_test(const std::string& name);

// The addresses of the strings and a null, as argv and envp have them. `strings` must outlive the result.
std::vector<char*> pointers_to(const std::vector<std::string>& strings);

}  // namespace ceilmeter::test
