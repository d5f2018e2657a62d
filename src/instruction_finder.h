// Reads the instruction words of a block from its module's file when the application has ended. It takes the code to be
// what the file holds. Code that was made at run time has no file and never comes here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "flat_table.h"

namespace ceilmeter {

// How many instructions one read gives at most; the caller's buffer holds as many.
inline constexpr std::size_t max_basic_block_size = 64;

// One thread at a time. Keeps every file open that it has read from.
class instruction_finder {
 public:
  instruction_finder() = default;
  instruction_finder(const instruction_finder&) = delete;
  instruction_finder& operator=(const instruction_finder&) = delete;
  ~instruction_finder();

  // Reads the words between two offsets of the file `module` into `buffer`, which has room for max_basic_block_size
  // words. Bytes behind the last whole word are left out. False, after a warning, if there are too many words, if the
  // file can't be opened, or if it does not have all of them.
  bool get_basic_block_instruction_code(std::uint32_t* buffer, const std::string& module, std::uint64_t start_off,
                                        std::uint64_t end_off);

  // The stream of the file `module`, no matter by which name it was opened first. Null, after a warning, if it can't be
  // opened. A failure is not remembered: the next call tries again.
  std::FILE* open_file_impl(const std::string& module);

 private:
  struct resolved_name {
    std::string canonical;
    std::FILE* stream;
  };

  flat_table<std::string, std::FILE*> open_files;  // By canonical path.
  // Resolved paths, by the names that led to them. Resolving a path takes a system call for each of its folders, and
  // the same few names are asked for tens of thousands of times.
  flat_table<std::string, resolved_name> resolved_names;
};

}  // namespace ceilmeter
