// The instruction words of a block, read from its module's file when the application has ended. The code is taken to be
// what the file holds; code that was made at run time has no file and never comes here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "flat_table.h"

namespace ceilmeter {

// Instructions of one read; the caller's buffer holds as many.
inline constexpr std::size_t max_basic_block_size = 64;

// One thread at a time. Keeps every file open that it has read from.
class instruction_finder {
 public:
  instruction_finder() = default;
  instruction_finder(const instruction_finder&) = delete;
  instruction_finder& operator=(const instruction_finder&) = delete;
  ~instruction_finder();

  // Reads the words between two offsets of the file `module` into `buffer`, which has room for max_basic_block_size of
  // them; bytes behind the last whole word are left out. False, after a warning, if there are too many words, the file
  // can't be opened, or it has not all of them.
  bool get_basic_block_instruction_code(std::uint32_t* buffer, const std::string& module, std::uint64_t start_off,
                                        std::uint64_t end_off);

  // The stream of the file `module`, by whatever name it was opened first. Null, after a warning, if it can't be
  // opened; a failure is not remembered, and the next call tries again.
  std::FILE* open_file_impl(const std::string& module);

 private:
  struct resolved_name {
    std::string canonical;
    std::FILE* stream;
  };

  flat_table<std::string, std::FILE*> open_files;  // By canonical path.
  // By the names that led to them: to resolve a path takes a system call for each of its folders, and modules are asked
  // for by the same few names tens of thousands of times.
  flat_table<std::string, resolved_name> resolved_names;
};

}  // namespace ceilmeter
