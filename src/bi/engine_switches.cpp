#include "bi/engine_switches.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bi/code/fragment_dump.h"
#include "bi/code/traces.h"
#include "common/log.h"

namespace ceilmeter {

debug_switches debug_options;

namespace {

constexpr engine_log log{"src/bi/engine_switches"};

// Each counted by all threads, and by itself: no other data depends on it.
std::uint64_t traces_begun;
std::uint64_t exits_linked;

std::uint64_t next_number(std::uint64_t& counter) {
  return std::atomic_ref(counter).fetch_add(1, std::memory_order_relaxed) + 1;
}

void warn_of_value(const char* name, const char* text) {
  log(LEVEL_WARN, "Incorrect value of %s variable: %s", name, text);
}

void read_traces() {
  constexpr char name[] = "MORA_BI_TRACES";
  const char* text = std::getenv(name);
  if (text == nullptr) return;
  if (std::strcmp(text, "off") == 0) {
    trace_options.off = true;
  } else if (std::strcmp(text, "checked") == 0) {
    trace_options.check = TRACE_CHECK_CHANGES;
  } else if (std::strcmp(text, "checked-whole") == 0) {
    trace_options.check = TRACE_CHECK_WHOLE;
  } else {
    warn_of_value(name, text);
  }
}

// False, with *value as it was, if the variable is not set or is no number from `least` to `most`.
bool read_number(const char* name, std::uint64_t least, std::uint64_t most, std::uint64_t* value) {
  const char* text = std::getenv(name);
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  const std::uint64_t number = std::strtoull(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number < least || number > most) {
    warn_of_value(name, text);
    return false;
  }
  *value = number;
  return true;
}

}  // namespace

void read_engine_switches() {
  read_traces();
  std::uint64_t hot = 0;
  if (read_number("MORA_BI_HOT", 1, 255, &hot)) trace_options.hot_mark = static_cast<std::uint8_t>(hot);
  read_number("MORA_BI_MAX_TRACES", 0, NO_LIMIT, &debug_options.max_traces);
  read_number("MORA_BI_MAX_LINKS", 0, NO_LIMIT, &debug_options.max_links);
  read_number("MORA_BI_DUMP_TRACE", 1, NO_LIMIT, &debug_options.dump_trace);
  read_number("MORA_BI_DUMP_LINK", 1, NO_LIMIT, &debug_options.dump_link);
}

bool may_begin_trace(thread_data* thread) {
  thread->trace_number = next_number(traces_begun);
  return thread->trace_number <= debug_options.max_traces;
}

void note_installed_trace(thread_data* thread, std::int32_t first) {
  if (debug_options.trace_installed != nullptr) debug_options.trace_installed(thread, first, thread->trace_number);
  if (debug_options.dump_trace != thread->trace_number) return;
  for (std::int32_t id = first; id < thread->trace_id; ++id) log_fragment(thread, id);
}

bool may_link_numbered(std::uint64_t* number) {
  *number = next_number(exits_linked);
  return *number <= debug_options.max_links;
}

void note_link(thread_data* thread, std::int32_t bb_id, std::uint64_t number) {
  if (debug_options.exit_linked != nullptr) debug_options.exit_linked(thread, bb_id, number);
  if (debug_options.dump_link == number) log_fragment(thread, bb_id);
}

}  // namespace ceilmeter
