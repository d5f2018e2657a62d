// What is wrong with an earlier result file, found out before anybody reads it as a result. The region interface does
// this inside the application, and the tool at the end of a long run: neither may end there.
#pragma once

#include <optional>
#include <string>

namespace ceilmeter {

// The reason, in words, why the file at `path` can't be read back as a result. Nothing if it can be, is empty, is no
// regular file, or is not there. A result is damaged if it is no JSON, if it has a block without a module, if it has
// roofs of something other than a number of threads, or if it is nested deeper than a reader's stack bears.
std::optional<std::string> find_result_damage(const std::string& path);

// The same for the damage that `read` (report_handler.h) does not survive. It reads everything else as far as it goes.
std::optional<std::string> find_fatal_result_damage(const std::string& path);

// Where the data go if the file at `path` is damaged.
inline std::string path_beside(const std::string& path) { return path + ".regions.json"; }

}  // namespace ceilmeter
