// Runs a function in a child process and keeps its output and status, because a bad file ends the process that loads
// it.
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

// A child that returns from `work` ends with status 0. A child is killed if it computes for longer than `seconds`, or
// has not ended after ten times as long. On a busy machine only the processor's time distinguishes a hang from waiting
// for a turn.
child_outcome run_in_child(const std::function<void()>& work, unsigned seconds = 20);

// The limit of the address space in run_natively, more than any program here needs. An emulator keeps a record of every
// page, so without the limit a program that reserves much could fill the machine's memory.
inline constexpr unsigned long long address_space_allowed = 16ULL << 30;

// Runs the program `words[0]` natively. If the build's tests run in an emulator, this program does too.
child_outcome run_natively(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                           unsigned seconds = 20);

// The path of a file of the build, from the test's own folder, wherever the build is mounted.
std::string beside_the_test(const std::string& name);

// The addresses of the strings and a null, as argv and envp have them. `strings` must outlive the result.
std::vector<char*> pointers_to(const std::vector<std::string>& strings);

}  // namespace ceilmeter::test
