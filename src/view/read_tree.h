// From a parsed document to the records of the viewer. A part of read_result, apart from it for its size.
#pragma once

#include <string>

#include "json/json.h"
#include "view/model.h"

namespace ceilmeter::view {

// Fills everything of `result` but path and label. The result is empty, or the reason why `root` is no result file.
std::string read_tree(const json_token* root, result_file& result);

}  // namespace ceilmeter::view
