// Keeps what a run has measured: in the result file or, where that cannot be written, in a copy elsewhere, whose place
// the log tells. What was measured before a step that may end the process is kept before the step begins.
#pragma once

#include <string>
#include <vector>

#include "json/json.h"
#include "report.h"

namespace ceilmeter {

class result_keeper {
 public:
  // The result file's path, and the folders for a copy in the order in which they are tried.
  result_keeper(std::string path, std::vector<std::string> copy_folders);

  // Keeps what there is so far. Says nothing unless it takes a copy.
  void keep(const collector_report& report);

  // Writes the result file and removes the copy that `keep` has made. False, with the cause in errno, if the result
  // file cannot be written: a copy is then kept, if any folder takes one.
  bool finish(const collector_report& report);

 private:
  void keep_copy(const json_token& root);

  std::string m_path;
  std::vector<std::string> m_copy_folders;
  std::string m_copy;  // Path of the copy; empty: there is none.
};

}  // namespace ceilmeter
