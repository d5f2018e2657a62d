// The log line, its destination and the names of its levels. Everything a line needs is on the stack: a line may be
// written from a signal-heavy application's thread under the engine, where an allocation could deadlock.
#include "common/log.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/file_pattern.h"
#include "common/open_file.h"

namespace ceilmeter {

namespace log_state {
int log_level = LEVEL_WARN;
int engine_log_level = LEVEL_WARN;
bool engine_levels_differ = false;
void (*before_engine_fatal)() = nullptr;
}  // namespace log_state

namespace {

constexpr tool_log log{"src/common/log"};
constexpr engine_log log_for_engine{"src/common/log"};

constexpr std::size_t line_size = 1024;
constexpr std::size_t pattern_size = 4096;
constexpr char engine_level_variable[] = "MORA_BI_LOG_LEVEL";
constexpr char module_levels_variable[] = "MORA_BI_LOG_MODULES";

int log_fd = STDERR_FILENO;
int log_append = 0;
char* log_file_path = nullptr;  // Owned; null: one of the standard streams.

struct level_name {
  const char* name;
  int level;
};

// "none" is a synonym of "fatal" on purpose: no level silences fatal messages. Of two rows with one level the first
// is the printed name.
constexpr std::array<level_name, 7> level_names = {{{"fatal", LEVEL_FATAL},
                                                    {"none", LEVEL_FATAL},
                                                    {"warn", LEVEL_WARN},
                                                    {"info", LEVEL_INFO},
                                                    {"debug", LEVEL_DEBUG},
                                                    {"trace", LEVEL_TRACE},
                                                    {"trace-data", LEVEL_TRACE_DATA}}};

const char* name_of_level(int level) {
  const auto* row = std::find_if(level_names.begin(), level_names.end(),
                                 [level](const level_name& candidate) { return candidate.level == level; });
  return row != level_names.end() ? row->name : "unknown";
}

bool find_level(const char* name, int& level) {
  const auto* row = std::find_if(level_names.begin(), level_names.end(),
                                 [name](const level_name& candidate) { return strcasecmp(candidate.name, name) == 0; });
  if (row == level_names.end()) return false;
  level = row->level;
  return true;
}

// A source of the engine's with a level of its own.
struct module_level {
  std::array<char, 32> name;  // A copy: the application may write over its environment, where the variable stands.
  int level;
};

std::array<module_level, 16> module_levels;
std::size_t module_count = 0;
int other_modules_level = LEVEL_WARN;  // Of the engine's sources that are not among them.

const char* base_name_of(const char* file) {
  const char* slash = std::strrchr(file, '/');
  return slash != nullptr ? slash + 1 : file;
}

void warn_of_engine_value(const char* variable, const char* value) {
  log_for_engine(LEVEL_WARN, "Incorrect value of %s variable: %s", variable, value);
}

// Enters the level of a part "NAME=LEVEL". Returns false if the part has another form, or if there is no room for it.
bool add_module_level(const char* part, std::size_t length) {
  std::array<char, 64> text{};
  if (length >= text.size() || module_count == module_levels.size()) return false;
  std::memcpy(text.data(), part, length);
  char* sign = std::strchr(text.data(), '=');
  module_level& added = module_levels[module_count];
  if (sign == nullptr || sign == text.data()) return false;
  *sign = '\0';
  if (std::strlen(text.data()) >= added.name.size() || !find_level(sign + 1, added.level)) return false;
  std::strcpy(added.name.data(), text.data());
  ++module_count;
  return true;
}

void read_engine_level() {
  const char* name = std::getenv(engine_level_variable);
  if (name == nullptr) return;
  int level = 0;
  if (find_level(name, level)) {
    log_state::engine_log_level = level;
  } else {
    warn_of_engine_value(engine_level_variable, name);
  }
}

void read_module_levels() {
  module_count = 0;
  log_state::engine_levels_differ = false;
  const char* text = std::getenv(module_levels_variable);
  if (text == nullptr) return;
  other_modules_level = log_state::engine_log_level;
  int highest = other_modules_level;
  for (const char* part = text; *part != '\0';) {
    const std::size_t length = std::strcspn(part, ",");
    if (add_module_level(part, length)) {
      highest = std::max(highest, module_levels[module_count - 1].level);
    } else {
      warn_of_engine_value(module_levels_variable, part);
    }
    part += length;
    if (*part == ',') ++part;
  }
  log_state::engine_log_level = highest;
  log_state::engine_levels_differ = module_count != 0;
}

// A failed or short write is ignored: there is nowhere left to report it. If nobody reads the log's pipe any more, the
// kernel sends SIGPIPE to the writing thread. That would end a run for a line of its log, so the signal is taken back.
void write_ignoring_result(int fd, const char* text, std::size_t length) {
  sigset_t pipe_signal;
  sigset_t pending;
  sigset_t blocked;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &blocked);
  sigpending(&pending);
  const bool is_the_applications = sigismember(&pending, SIGPIPE) == 1;
  const ssize_t written = ::write(fd, text, length);
  const timespec at_once{};
  if (written < 0 && errno == EPIPE && !is_the_applications) sigtimedwait(&pipe_signal, nullptr, &at_once);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
}

// Moves a descriptor away from the small numbers. The application shares them: a script that opens its descriptor 3
// would have the log's lines in its file from then on, and one whose standard output is closed would print into the
// log.
int out_of_the_applications_way(int fd) {
  if (fd < 0) return fd;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  // Near the end of what there may be, and where that is little at least beyond the standard streams.
  constexpr int usual_limit = 1024;
  const int numbers = limit.rlim_cur < usual_limit ? static_cast<int>(limit.rlim_cur) : usual_limit;
  const int first = std::max(numbers - 24, STDERR_FILENO + 1);
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, first);
  if (moved < 0) return fd;
  close(fd);
  return moved;
}

}  // namespace

void mora_log_message(const char* file, unsigned line, const char* function, int level, const char* format,
                      std::va_list arguments) {
  // Callers look at errno after a log call.
  const int saved_errno = errno;
  (void)function;  // Part of every call for whoever reads the sources or a debugger; the line has no room for it.

  timeval now{};
  gettimeofday(&now, nullptr);

  std::array<char, line_size> buffer;
  std::size_t length = 0;
  // What snprintf reports may exceed what it was allowed to write: the position never passes the terminator's place.
  const auto advance = [&length](int printed) {
    if (printed > 0) length = std::min(length + static_cast<std::size_t>(printed), line_size - 1);
  };
  advance(std::snprintf(buffer.data(), line_size, "[%lu.%06lu:%d] %18s:%-4u MORA %s ",
                        static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_usec),
                        static_cast<int>(gettid()), base_name_of(file), line, name_of_level(level)));
  advance(std::vsnprintf(buffer.data() + length, line_size - length, format, arguments));
  buffer[length++] = '\n';
  write_ignoring_result(log_fd, buffer.data(), length);
  if (level == LEVEL_FATAL) std::abort();
  errno = saved_errno;
}

bool mora_log_is_wanted(const char* file, int level) {
  const char* name = base_name_of(file);
  for (std::size_t index = 0; index < module_count; ++index) {
    const module_level& module = module_levels[index];
    if (std::strcmp(module.name.data(), name) == 0) return level <= module.level;
  }
  return level <= other_modules_level;
}

void mora_log_exit(int status, const char* format, ...) {
  std::array<char, line_size> buffer;
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vsnprintf(buffer.data(), line_size, format, arguments);
  va_end(arguments);
  std::size_t length = printed > 0 ? std::min(static_cast<std::size_t>(printed), line_size - 1) : 0;
  buffer[length++] = '\n';
  write_ignoring_result(log_fd, buffer.data(), length);
  std::exit(status);
}

int mora_log_init() {
  if (log_file_path != nullptr) {
    // Synchronous, so that each line has reached the file when the call returns: the process may end as abruptly as
    // the application that runs inside it.
    // Every line goes to the end, also of a file that was cut: the application's process writes to the same file
    // through a descriptor of its own.
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_SYNC | O_APPEND | (log_append != 0 ? 0 : O_TRUNC);
    const int fd = out_of_the_applications_way(open_unless_foreign_link(log_file_path, flags, 0600));
    if (fd >= 0) {
      log_fd = fd;
    } else {
      log(LEVEL_WARN, "failed to create log file %s: %s", log_file_path, std::strerror(errno));
    }
  }
  read_engine_level();
  read_module_levels();
  return 1;
}

int mora_log_get_descriptor() { return log_fd; }

int mora_log_fini() {
  if (log_file_path != nullptr) {
    std::free(log_file_path);
    log_file_path = nullptr;
    // Not tested whether the file was ever opened: after a failed open this closes standard error, as documented.
    close(log_fd);
  }
  log_fd = STDERR_FILENO;
  return 1;
}

void mora_log_set_level_name(const char* name) {
  int level = 0;
  if (find_level(name, level)) log_state::log_level = level;
}

void mora_log_set_level(int level) { log_state::log_level = level; }

int mora_log_get_level() { return log_state::log_level; }

const char* mora_log_get_level_name() { return name_of_level(log_state::log_level); }

void mora_log_set_file(const char* name) {
  if (name == log_file_path) return;
  std::free(log_file_path);
  log_file_path = nullptr;
  if (strcasecmp(name, "stdout") == 0) {
    log_fd = STDOUT_FILENO;
  } else if (strcasecmp(name, "stderr") == 0) {
    log_fd = STDERR_FILENO;
  } else {
    log_file_path = strdup(name);
  }
}

const char* mora_log_get_file() {
  if (log_file_path != nullptr) return log_file_path;
  if (log_fd == STDOUT_FILENO) return "stdout";
  if (log_fd == STDERR_FILENO) return "stderr";
  log(LEVEL_WARN, "incorrect log output");
  return nullptr;
}

void mora_log_set_append(int append) { log_append = append; }

int mora_log_get_append() { return log_append; }

void mora_log_command_line(int argc, const char* const* argv) {
  if (log_state::log_level < LEVEL_INFO) return;
  std::string joined;
  for (int index = 0; index < argc; ++index) {
    if (index > 0) joined += ' ';
    joined += argv[index];
  }
  log(LEVEL_INFO, "command line: %s", joined.c_str());
}

std::int32_t mora_log_parse_level(option_entry& entry) {
  int level = 0;
  if (!find_level(entry.argument, level)) {
    log(LEVEL_WARN, "Incorrect log level: %s", entry.argument);
    return -1;
  }
  log_state::log_level = level;
  return 0;
}

std::int32_t mora_log_file_option(option_entry& entry) {
  std::array<char, pattern_size> path{};
  mora_log_set_file(mora_expand_file_pattern(entry.argument, path.data(), path.size()));
  return 0;
}

std::int32_t mora_log_append_option(option_entry&) {
  mora_log_set_append(1);
  return 0;
}

}  // namespace ceilmeter
