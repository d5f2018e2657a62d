// The one log of the process, shared by the tool's modules and the instrumentation engine. A line is built on the
// caller's stack and leaves in a single write, so that any thread may log without a lock. There are two thresholds:
// --log-level sets the one of the tool's sources, MORA_BI_LOG_LEVEL the one of the engine's; neither moves the other.
// MORA_BI_LOG_MODULES gives single units of the engine a level of their own: "scanner=trace,dispatcher=debug".
//
// A source file logs through a file-local object:
//
//   namespace { constexpr tool_log log{"src/collector"}; }
//   ...
//   log(LEVEL_INFO, "Fork result: %d", pid);
//
// The line number and the bare function name of the call come with the level. A call that the threshold suppresses
// costs a load and a comparison and formats nothing.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "common/option_entry.h"

namespace ceilmeter {

// Level 0 is fatal: the line is written whatever the threshold, and the process aborts.
enum log_level_value : int {
  LEVEL_FATAL = 0,
  LEVEL_WARN = 1,
  LEVEL_INFO = 2,
  LEVEL_DEBUG = 3,
  LEVEL_TRACE = 4,
  LEVEL_TRACE_DATA = 5,
};

namespace log_state {
// Plain words: they are set while the process has one thread and only read afterwards.
extern int log_level;         // Threshold of all sources but the engine's.
extern int engine_log_level;  // Threshold of src/bi and src/elf.
// Whether MORA_BI_LOG_MODULES gives some sources a level of their own. engine_log_level is then the highest of all.
extern bool engine_levels_differ;
// Called before a fatal line of the engine's is written; null: nothing more is told than the line.
extern void (*before_engine_fatal)();
}  // namespace log_state

// For what every block passes: a call that the threshold suppresses still has its arguments put together, so the caller
// asks first.
inline bool engine_logs_traces() { return __builtin_expect(log_state::engine_log_level >= LEVEL_TRACE, 0) != 0; }

// Where a log call stands. Made implicitly from the level at the call, so that line and function are the caller's.
struct log_site {
  int level;
  unsigned line;
  const char* function;

  // NOLINTNEXTLINE(google-explicit-constructor): the conversion is what picks up the caller's place.
  constexpr log_site(int call_level, unsigned call_line = __builtin_LINE(),
                     const char* call_function = __builtin_FUNCTION())
      : level(call_level), line(call_line), function(call_function) {
#ifdef __clang_analyzer__
    // Static analysis does not follow the call to where a fatal one ends; without this it goes on behind it.
    if (call_level == LEVEL_FATAL) __builtin_abort();
#endif
  }
};

// Writes one line whatever the thresholds say. `file` is shortened to what follows its last slash. A line is at most
// 1024 bytes, header and newline included. Aborts the process if `level` is 0; reports no failure. Any thread.
[[gnu::format(printf, 5, 0)]] void mora_log_message(const char* file, unsigned line, const char* function, int level,
                                                    const char* format, std::va_list arguments);

// Whether a line of that level of the engine's source is written, where the levels of the engine's sources differ.
// `file` is shortened as above.
bool mora_log_is_wanted(const char* file, int level);

// The log of one source file of the tool. `file` is the source's path without its extension; of a source that belongs
// to a module of another name, such as run_benchmarks to the collector, the module's: its lines go by that.
struct tool_log {
  const char* file;

  [[gnu::format(printf, 3, 4)]] void operator()(log_site site, const char* format, ...) const {
    if (site.level > log_state::log_level) return;
    std::va_list arguments;
    va_start(arguments, format);
    mora_log_message(file, site.line, site.function, site.level, format, arguments);
    va_end(arguments);
  }
};

// For what every block passes: a call that the threshold suppresses still has its arguments put together, so the caller
// asks first.
inline bool tool_logs_traces() { return __builtin_expect(log_state::log_level >= LEVEL_TRACE, 0) != 0; }

// The same for one source file of the engine, under the engine's threshold.
struct engine_log {
  const char* file;

  [[gnu::format(printf, 3, 4)]] void operator()(log_site site, const char* format, ...) const {
    if (site.level > log_state::engine_log_level) return;
    if (log_state::engine_levels_differ && !mora_log_is_wanted(file, site.level)) return;
    if (site.level == LEVEL_FATAL && log_state::before_engine_fatal != nullptr) log_state::before_engine_fatal();
    std::va_list arguments;
    va_start(arguments, format);
    mora_log_message(file, site.line, site.function, site.level, format, arguments);
    va_end(arguments);
  }
};

// Writes the formatted text and a newline, without a header and without a level test, and calls exit(status). The
// text is cut at 1024 bytes.
[[noreturn, gnu::format(printf, 2, 3)]] void mora_log_exit(int status, const char* format, ...);

// Opens the log file, if one was named, and reads the engine's levels from MORA_BI_LOG_LEVEL and MORA_BI_LOG_MODULES. A
// part of the latter that is not understood is left out, with a warning. A file that cannot be
// opened leaves the log where it was, with one warning. Returns 1. Call once, before other threads exist.
int mora_log_init();

// Closes the log file and sets the destination back to standard error. Returns 1. A second call only does the latter.
// Closes the destination even when the file could not be opened: standard error is then closed.
int mora_log_fini();

// Sets the tool's level by name; an unknown name is ignored.
void mora_log_set_level_name(const char* name);

void mora_log_set_level(int level);
int mora_log_get_level();

// The descriptor that the lines go to.
int mora_log_get_descriptor();

// The printed name of the tool's level: "fatal" also when it was set through "none".
const char* mora_log_get_level_name();

// Chooses the destination: "stdout" and "stderr" in any case take effect at once, any other name is copied and opened
// by mora_log_init. Does nothing if `name` is the very pointer that mora_log_get_file returned.
void mora_log_set_file(const char* name);

// The log file's name, or "stdout" or "stderr". Owned by the log. Null, with a warning, if the destination is none.
const char* mora_log_get_file();

void mora_log_set_append(int append);
int mora_log_get_append();

// Logs the arguments, joined by blanks, at level info.
void mora_log_command_line(int argc, const char* const* argv);

// Handlers of --log-level, --log-file and --log-append. The first returns -1 on an unknown level, after a warning;
// the others return 0.
std::int32_t mora_log_parse_level(option_entry& entry);
std::int32_t mora_log_file_option(option_entry& entry);
std::int32_t mora_log_append_option(option_entry& entry);

}  // namespace ceilmeter
