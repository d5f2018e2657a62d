// What a developer tells the engine by the environment when it goes wrong. The switches are read once, before the
// application starts; a variable that is not set changes nothing. The application finds them in its environment as it
// finds any other variable.
//
//   MORA_BI_TRACES      off: no traces. checked: the checker looks at what each installation of a trace has changed,
//                       and at the whole cache from time to time. checked-whole: at the whole cache each time
//   MORA_BI_HOT         how many executions make a block hot, 1 to 255
//   MORA_BI_MAX_TRACES  begin at most that many traces in the process; those behind them stay blocks
//   MORA_BI_MAX_LINKS   link at most that many exits of blocks in the process; those behind them go by the dispatcher
//   MORA_BI_DUMP_TRACE  log the code of the trace with this number, counted from 1, once it is installed
//   MORA_BI_DUMP_LINK   log the code of the block whose exit is the one linked with this number, counted from 1
//
// The numbers are of a process. A program of one thread that always does the same begins the same traces and links the
// same exits in each run: tools/bisect finds the first of them with which it goes wrong.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

inline constexpr std::uint64_t NO_LIMIT = ~std::uint64_t{0};

struct debug_switches {
  std::uint64_t max_traces = NO_LIMIT;
  std::uint64_t max_links = NO_LIMIT;
  std::uint64_t dump_trace = 0;  // 0: none.
  std::uint64_t dump_link = 0;
  // For tests: called after the installation of each trace, whose fragments begin with the index `first`, and after
  // each link of a block's exit.
  void (*trace_installed)(thread_data* thread, std::int32_t first, std::uint64_t number) = nullptr;
  void (*exit_linked)(thread_data* thread, std::int32_t bb_id, std::uint64_t number) = nullptr;
};

// Written before the application starts.
extern debug_switches debug_options;

// Sets debug_options and trace_options from the environment. Warns of a value that it does not know.
void read_engine_switches();

// A thread wants to begin a trace. Gives it the next number of the process; false: it may not.
bool may_begin_trace(thread_data* thread);

// The thread's trace is installed and begins with the fragment `first`.
void note_installed_trace(thread_data* thread, std::int32_t first);

// A thread wants to link an exit of the block. *number receives the next number of the process, or 0 if nobody counts;
// false: it may not.
bool may_link_numbered(std::uint64_t* number);
inline bool may_link(std::uint64_t* number) {
  *number = 0;
  const debug_switches& options = debug_options;
  if (options.max_links == NO_LIMIT && options.dump_link == 0 && options.exit_linked == nullptr) return true;
  return may_link_numbered(number);
}

// The exit with that number is linked; the block is one of the thread.
void note_link(thread_data* thread, std::int32_t bb_id, std::uint64_t number);

}  // namespace ceilmeter
