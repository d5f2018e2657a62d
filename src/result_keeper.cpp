// The lines that tell where the data are stand in the log whatever its level is: without them the data are lost after
// all.
#include "result_keeper.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

#include "common/log.h"
#include "report_handler.h"
#include "result_file.h"

namespace ceilmeter {

namespace {

[[gnu::format(printf, 2, 3)]] void say(unsigned line, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  mora_log_message("src/result_keeper", line, "keep_copy", LEVEL_WARN, format, arguments);
  va_end(arguments);
}

}  // namespace

result_keeper::result_keeper(std::string path, std::vector<std::string> copy_folders)
    : m_path(std::move(path)), m_copy_folders(std::move(copy_folders)) {}

void result_keeper::keep(const collector_report& report) {
  const json_token_owner root = fill_json(report.regions, report.benchmarks, report.threads, ROOFS_FOLLOW);
  if (!replace_content(m_path, *root)) keep_copy(*root);
}

bool result_keeper::finish(const collector_report& report) {
  const json_token_owner root = fill_json(report.regions, report.benchmarks, report.threads);
  if (replace_content(m_path, *root)) {
    if (!m_copy.empty()) unlink(m_copy.c_str());
    return true;
  }
  const int cause = errno;
  keep_copy(*root);
  errno = cause;
  return false;
}

void result_keeper::keep_copy(const json_token& root) {
  // The name of a copy is this process's own: no link can stand there.
  if (m_copy.empty() || !replace_content(m_copy, root)) {
    const std::string earlier = std::exchange(m_copy, save_copy(m_copy_folders, root));
    if (!m_copy.empty() && !earlier.empty()) unlink(earlier.c_str());
    if (m_copy.empty()) m_copy = earlier;
  }
  if (m_copy.empty()) {
    say(__LINE__, "Report cannot be written to %s, and no folder takes a copy", m_path.c_str());
  } else {
    say(__LINE__, "Report cannot be written to %s, a copy is saved as %s", m_path.c_str(), m_copy.c_str());
  }
}

}  // namespace ceilmeter
