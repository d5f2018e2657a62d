// Where ceilview writes to, and how: a file is complete or it is as it was before.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ceilmeter::view {

// The first of `inputs` that is the same file as `output` by device and inode, whatever the paths are; empty if none
// is. "-" is standard output, and standard input among the inputs.
std::string input_that_is_output(const std::string& output, const std::vector<std::string>& inputs);

// Writes `text` to the file `path`, or to standard output for "-". A regular file is replaced by a finished one that
// was written beside it and takes over its mode; a link's target is replaced, not the link. What is no regular file, a
// pipe or a device, is written to as it is. Returns why it failed, or an empty text.
std::string write_output(const std::string& path, std::string_view text);

}  // namespace ceilmeter::view
