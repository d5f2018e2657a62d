// Defines every symbol of the log that the counter code uses, so that the linker leaves the real one out.
#include "fake_log.h"

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "common/log.h"

namespace ceilmeter {

namespace log_state {
int log_level = LEVEL_WARN;
int engine_log_level = LEVEL_WARN;
bool engine_levels_differ = false;
void (*before_engine_fatal)() = nullptr;
}  // namespace log_state

namespace {
std::mutex lines_mutex;
std::vector<test::logged_line> lines;
}  // namespace

bool mora_log_is_wanted(const char*, int) { return true; }

int mora_log_get_level() { return log_state::log_level; }

[[gnu::format(printf, 5, 0)]] void mora_log_message(const char* file, unsigned, const char* function, int level,
                                                    const char* format, std::va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  {
    const std::lock_guard guard(lines_mutex);
    lines.push_back({file, function, level, text});
  }
  errno = EXDEV;  // A real line ends in a system call, which is free to leave an error of its own behind.
}

namespace test {

void reset_log(int level) {
  const std::lock_guard guard(lines_mutex);
  log_state::log_level = level;
  lines.clear();
}

std::vector<logged_line> logged_lines() {
  const std::lock_guard guard(lines_mutex);
  return lines;
}

std::vector<std::string> logged_texts(int level) {
  std::vector<std::string> texts;
  for (const logged_line& line : logged_lines()) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

}  // namespace test
}  // namespace ceilmeter
