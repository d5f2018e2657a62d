// The names that a process gives its generated code. Runtimes that compile at run time can write them to a file, the
// "perf map": a line for each function, with its start and its size in hexadecimal and its name.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace ceilmeter {

class perf_map {
 public:
  // Where the process with this id writes its names.
  static std::string path_of(int process);

  // Reads the file as far as it goes. The folder is everybody's, so the file is only read if it is a plain file of the
  // user's own and the path is no link; what another user has put there gives no names.
  static perf_map read(const std::string& path);

  // Empty if the code there has no name. Of functions that were written over each other the last one counts.
  std::string name_at(std::uint64_t address) const;

 private:
  struct function {
    std::uint64_t end;
    std::string name;
  };

  void add(std::uint64_t start, std::uint64_t end, std::string name);

  std::map<std::uint64_t, function> functions;  // By start; they do not overlap.
};

}  // namespace ceilmeter
