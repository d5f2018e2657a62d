// Reads the instruction words of a block from its module's file when the application has ended. It takes the code to be
// what the file holds. Code that was made at run time has no file and never comes here.
//
// Blocks that run after each other mostly lie near each other. So a file is read in windows of a page and a little
// more, and the latest windows are kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

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

  // The words between two offsets of the file `module`, as far as they are whole, under the same conditions. Null,
  // after the same warnings, where there are none to be had. They hold until the next call. `file` is what the caller
  // tells files apart by, for words_at_hand.
  const std::uint32_t* find_words(const std::string& module, std::uint64_t start_off, std::uint64_t end_off,
                                  const void* file = nullptr);

  // The same words, however many, if the last call of find_words was for the same `file`, not null, and has read them
  // by the way. Null otherwise, without a warning.
  const std::uint32_t* words_at_hand(const void* file, std::uint64_t start_off, std::uint64_t end_off) const {
    const std::uint64_t from = start_off - hand.offset;
    const std::uint64_t to = end_off - hand.offset;
    return file != nullptr && file == hand.file && from <= to && to <= hand.size
               ? hand.words + from / sizeof(std::uint32_t)
               : nullptr;
  }

  // The stream of the file `module`, no matter by which name it was opened first. Null, after a warning, if it can't be
  // opened. A failure is not remembered: the next call tries again.
  std::FILE* open_file_impl(const std::string& module);

 private:
  struct resolved_name {
    std::string canonical;
    std::FILE* stream;
  };

  static constexpr std::size_t window_step = 4096;
  static constexpr std::size_t window_count = 64;
  struct window {
    std::FILE* stream = nullptr;
    std::uint64_t offset = 0;  // In the file, a multiple of window_step.
    std::size_t size = 0;      // Bytes that the file has had there.
    bool has_failed = false;   // Reading has ended with an error, not with the end of the file.
    // Has room for the longest block that begins at the end of the step.
    alignas(8) char bytes[window_step + max_basic_block_size * sizeof(std::uint32_t)];
  };

  // What of its last window find_words has at hand. Empty: nothing.
  struct window_at_hand {
    const void* file = nullptr;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    const std::uint32_t* words = nullptr;
  };

  // The window with the file's content from `offset` on, of at least `size` bytes if the file has them.
  const window* read_window(std::FILE* stream, std::uint64_t offset, std::size_t size);

  flat_table<std::string, std::FILE*> open_files;  // By canonical path.
  // Resolved paths, by the names that led to them. Resolving a path takes a system call for each of its folders, and
  // the same few names are asked for tens of thousands of times.
  flat_table<std::string, resolved_name> resolved_names;
  std::string last_module;           // The one of the latest call that has found its stream,
  std::FILE* last_stream = nullptr;  // which is this one.
  window_at_hand hand;
  std::vector<std::unique_ptr<window>> windows{window_count};  // By stream and offset; made when first needed.
};

}  // namespace ceilmeter
