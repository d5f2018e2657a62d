// Runs a function in a child process and keeps what it leaves, since a bad file ends the process that loads it.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace ceilmeter::test {

// Statuses beyond those of the child's own: 128 and the number of the signal that ended it.
struct child_outcome {
  int status = 0;
  std::string out;
  std::string err;

  bool operator==(const child_outcome&) const = default;
};

void PrintTo(const child_outcome& outcome, std::ostream* stream);

// A child that returns from `work` ends with status 0. A child that takes longer than `seconds` ends by SIGALRM.
child_outcome run_in_child(const std::function<void()>& work, unsigned seconds = 60);

// Runs the program `words[0]` natively, by way of the emulator that the build's tests run in if there is one.
child_outcome run_natively(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                           unsigned seconds = 60);

// The path of a file of the build, from the test's own folder, wherever the build is mounted.
std::string beside_the_test(const std::string& name);

// The addresses of the strings and a null, as argv and envp have them. `strings` must outlive the result.
std::vector<char*> pointers_to(const std::vector<std::string>& strings);

}  // namespace ceilmeter::test
