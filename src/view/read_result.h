// The viewer's own reader of result files. It walks the JSON tree itself: the report reader of the collector takes a
// missing figure as 0, and a viewer has to tell the two apart.
#pragma once

#include <string>

#include "view/model.h"

namespace ceilmeter::view {

// Deepest nesting of arrays and objects that is read. A result file has four; the parser recurses, and this bounds its
// stack.
inline constexpr std::size_t max_nesting = 64;

struct read_outcome {
  bool ok = false;
  std::string error;   // without the program's name: "FILE:LINE: reason" or "FILE: reason"
  result_file result;  // filled if ok
};

// Reads the file at `path`; "-" is standard input.
read_outcome read_result(const std::string& path);

// Reads `bytes`, which may hold NUL bytes; `path` is for messages and labels.
read_outcome parse_result(const std::string& path, const std::string& bytes);

}  // namespace ceilmeter::view
