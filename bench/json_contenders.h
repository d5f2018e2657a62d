// The JSON libraries under comparison behind one interface. A tree is handed about as an opaque pointer and is never
// freed: each task has a process of its own.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace ceilmeter::bench {

struct json_contender {
  const char* name;
  // The tree of a NUL-terminated text; null on failure.
  void* (*parse)(const std::string& text);
  // The tree as indented text in memory; the length of the text, 0 on failure.
  std::size_t (*print)(void* tree);
  // The tree as indented text in a file, in the way that the library offers; false on failure.
  bool (*save)(void* tree, const char* path);
  // Elements of "regions" / each / "bbs".
  std::uint64_t (*count_blocks)(void* tree);
};

extern const std::array<json_contender, 3> json_contenders;

}  // namespace ceilmeter::bench
