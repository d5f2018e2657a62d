// Where a report's text goes: in the place of an earlier one, or into a file of its own where that is impossible. The
// one rule: an earlier text is never lost to a later one that cannot be written.
#pragma once

#include <string>
#include <vector>

#include "json/json.h"

namespace ceilmeter {

// Makes `root` the content of the file `path`, which keeps its mode, owner and links. The room is reserved before
// anything is written over, and what the file held is put back if the writing fails all the same. False on failure,
// with the cause in errno; a file that was not there before is then not there either. Something that is no regular
// file, a pipe for instance, is just written to.
bool replace_content(const std::string& path, const json_token& root);

// Writes `root` into a new file of the first of `folders` that takes it. The name is not that of an existing file or
// link, and the file is readable by the user alone. Returns its path, empty if no folder takes it.
std::string save_copy(const std::vector<std::string>& folders, const json_token& root);

}  // namespace ceilmeter
