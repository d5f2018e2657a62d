// Traces: the hot paths of a thread. A block that has run often becomes the head of a trace. The trace holds the head's
// code and the code of the blocks that really follow it, one behind the other in the trace area. So the path runs
// without a taken branch up to its end. A trace is built while it runs for the first time: each pass through the
// dispatcher adds a fragment. Nothing else leads to it before it is installed, because its exits have no targets yet.
//
// All of it belongs to one thread, as its code cache does.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Called by the dispatcher for an exit of a trace's fragment. If the fragment is the last one of the trace under
// construction, adds the next one to the trace. Otherwise only finds the block for `target`. *next_addr receives the
// cache address to go on at.
void trace_dispatcher(std::uint64_t target, std::uint64_t* next_addr, std::int32_t source_index, thread_data* thread);

// Counts of the traces of this process, over all threads. Each thread adds to each number by itself, so a reader may
// find numbers that do not fit each other.
struct trace_statistics {
  std::uint64_t started;
  std::uint64_t installed;
  std::uint64_t fragments;  // Of installed traces, as the next three.
  std::uint64_t exits;
  std::uint64_t trampolines;
  std::uint64_t most_fragments;  // Of one trace.
  std::uint64_t most_exits;
  std::uint64_t ends_in_head;  // How traces have ended.
  std::uint64_t ends_in_trace;
  std::uint64_t ends_in_block;  // At the limit of the fragments' number, or of length.
  std::uint64_t ends_in_register_branch;
  std::uint64_t too_long;           // Of those that end in a block: for the reach of an exit, or for the area.
  std::uint64_t abandoned;          // Another head became hot first.
  std::uint64_t flushed;            // A flush came while it was being built.
  std::uint64_t area_full;          // Flushes for want of room.
  std::uint64_t moved_branches;     // Links led to a new trace: unconditional ones, ...
  std::uint64_t moved_exits;        // ... exits of other traces that reach it, ...
  std::uint64_t moved_trampolines;  // ... and those that do not.
  std::uint64_t moved_under_trap;   // Of all these, those that a trap stood in place of.
  std::uint64_t stale_links;        // Records of links that are no longer there.
  std::uint64_t checks;             // Caches looked through after an installation.
};

extern trace_statistics trace_counts;

void count_trace_event(std::uint64_t& number, std::uint64_t by = 1);
void raise_trace_record(std::uint64_t& number, std::uint64_t value);

enum trace_check : std::uint32_t {
  TRACE_CHECK_NONE = 0,
  TRACE_CHECK_CHANGES = 1,  // After each installation what it has changed, and often enough everything (trace_check.h).
  TRACE_CHECK_WHOLE = 2,    // Everything each time.
};

// For tests, measurements and developers (engine_switches.h). Set before the application starts. A debug build begins
// with TRACE_CHECK_CHANGES.
struct trace_switches {
  bool off = false;  // No traces: a hot block stays as it is, and its counter goes on counting.
  trace_check check = TRACE_CHECK_NONE;
  std::uint8_t hot_mark = 0;  // Executions that make a block hot; 0: 256, to which the counter wraps.
};

extern trace_switches trace_options;

}  // namespace ceilmeter
