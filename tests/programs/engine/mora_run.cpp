// Runs a program under the bare engine, without plug-ins and without the rest of the tool:
//   mora_run PROGRAM [ARGUMENT]...
// Linked as the tool is, so that it has the tool's place in memory. The status is the program's; the engine's messages
// go to standard error, at the level of MORA_BI_LOG_LEVEL.
//
// Of its own environment, for tests and measurements:
//   MORA_RUN_TRACES      off: no traces; checked: after each installation of a trace the checker looks at what has
//                        changed, and at the whole cache from time to time; checked-whole: at the whole cache each time
//   MORA_RUN_HOT         how many executions make a block hot, up to 255, for programs that run their code a few times
//                        only
//   MORA_RUN_TRACE_STATS a file to which each process that ends adds a line: its traces in numbers, "name=number ..."
//   MORA_RUN_BREAK_TRACE the number of a trace that is spoilt when it has been installed, as an error of the engine
//                        would spoil it: a BRK in the place of its first source word. For the tests of tools/bisect
//   MORA_RUN_BREAK_LINK  the same with the exit of a block that has been linked: a BRK in the place of its first word
// The engine's own switches (bi/engine_switches.h) hold above the first two.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/code/code_words.h"
#include "bi/code/traces.h"
#include "bi/engine_switches.h"
#include "bi/mora.h"
#include "common/log.h"

namespace {

using ceilmeter::trace_counts;

const char* statistics_file;
std::uint64_t broken_trace;
std::uint64_t broken_link;

struct named_number {
  const char* name;
  const std::uint64_t* number;
};

constexpr named_number numbers[] = {
    {"started", &trace_counts.started},
    {"installed", &trace_counts.installed},
    {"fragments", &trace_counts.fragments},
    {"exits", &trace_counts.exits},
    {"trampolines", &trace_counts.trampolines},
    {"most_fragments", &trace_counts.most_fragments},
    {"most_exits", &trace_counts.most_exits},
    {"ends_in_head", &trace_counts.ends_in_head},
    {"ends_in_trace", &trace_counts.ends_in_trace},
    {"ends_in_block", &trace_counts.ends_in_block},
    {"ends_in_register_branch", &trace_counts.ends_in_register_branch},
    {"too_long", &trace_counts.too_long},
    {"abandoned", &trace_counts.abandoned},
    {"flushed", &trace_counts.flushed},
    {"area_full", &trace_counts.area_full},
    {"moved_branches", &trace_counts.moved_branches},
    {"moved_exits", &trace_counts.moved_exits},
    {"moved_trampolines", &trace_counts.moved_trampolines},
    {"moved_under_trap", &trace_counts.moved_under_trap},
    {"stale_links", &trace_counts.stale_links},
    {"checks", &trace_counts.checks},
};

// In one write, so that lines of several processes do not mix.
void write_statistics() {
  char line[1024];
  int length = 0;
  for (const named_number& entry : numbers) {
    length += std::snprintf(line + length, sizeof line - static_cast<std::size_t>(length), "%s=%lu ", entry.name,
                            static_cast<unsigned long>(*entry.number));
  }
  line[length - 1] = '\n';
  const int fd = open(statistics_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0 || write(fd, line, static_cast<std::size_t>(length)) != length) std::perror(statistics_file);
}

void put_trap(std::uint32_t* word) {
  ceilmeter::a64_brk(word, 0);
  ceilmeter::clear_instruction_cache(word, word + 1);
}

void break_trace(ceilmeter::thread_data* thread, std::int32_t first, std::uint64_t number) {
  if (number != broken_trace) return;
  put_trap(reinterpret_cast<std::uint32_t*>(thread->metas[first].cache_entry + ceilmeter::ENTRY_WORD_SIZE));
}

void break_link(ceilmeter::thread_data* thread, std::int32_t bb_id, std::uint64_t number) {
  if (number == broken_link) put_trap(thread->metas[bb_id].exit_code_addr);
}

// The number in a variable; 0 if it is not set.
std::uint64_t number_in(const char* name) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
}

}  // namespace

int main(int argc, char** argv, char** envp) {
  ceilmeter::mora_log_init();
  const char* traces = std::getenv("MORA_RUN_TRACES");
  if (traces != nullptr) {
    ceilmeter::trace_options.off = std::strcmp(traces, "off") == 0;
    if (std::strcmp(traces, "checked") == 0) ceilmeter::trace_options.check = ceilmeter::TRACE_CHECK_CHANGES;
    if (std::strcmp(traces, "checked-whole") == 0) ceilmeter::trace_options.check = ceilmeter::TRACE_CHECK_WHOLE;
  }
  const char* hot = std::getenv("MORA_RUN_HOT");
  if (hot != nullptr) ceilmeter::trace_options.hot_mark = static_cast<std::uint8_t>(std::atoi(hot));
  statistics_file = std::getenv("MORA_RUN_TRACE_STATS");
  if (statistics_file != nullptr) std::atexit(write_statistics);
  broken_trace = number_in("MORA_RUN_BREAK_TRACE");
  if (broken_trace != 0) ceilmeter::debug_options.trace_installed = break_trace;
  broken_link = number_in("MORA_RUN_BREAK_LINK");
  if (broken_link != 0) ceilmeter::debug_options.exit_linked = break_link;
  return ceilmeter::mora_run(argc - 1, argv + 1, envp);
}
