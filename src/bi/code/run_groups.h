// How the runs of blocks in traces are counted for a plug-in. Nearly every pass goes through several fragments of a
// trace, so these are put together in groups, and a group has one counter.
//
//   a group of three fragments        what is counted
//   leader   adds 1 to its passes     as every block does, in 6 instructions, but into a word of the engine's
//            b.ne trampoline 1        a trampoline adds 1 to its own passes: the group was left here
//   member   nothing
//            cbz  trampoline 2        the same
//   member   nothing
//            b.lt trampoline 3        counts nothing: no member follows
//
// The runs of a member are the leader's passes less those of the trampolines before it. `settle_runs` adds them to the
// plug-in's words and makes all passes 0. It may come whenever the thread is in the engine, since a thread that stands
// between two fragments of a group leaves no other way than by their exits, or by `left_trace`:
//
// - A fragment that may be left in its middle for the engine is the last one of its group: one with a system call, an
//   IC IVAU, or other code of a plug-in's. What such a fragment counts behind a system call it counts by itself.
// - A trampoline may touch no memory between a load-exclusive and its store-exclusive, so the exit of a fragment there
//   counts nothing, and the next fragment is a leader.
// - A signal that traps an exit, a fault, and the thread's end in the middle of a group take the members back that the
//   thread does not come to: left_trace.
// - While a trace is built, its newest fragment is entered by its snippet, once, or never if a signal comes first. So
//   the snippet of a member counts the run in the plug-in's word, and the run that the leader's pass stands for is
//   taken back when the member joins.
//
// Records stay until their indices are used again: after a flush, code that is still running goes on counting in them,
// up to the next visit to the dispatcher. All words are one thread's, and arithmetic is modulo 2^64.
#pragma once

#include <cstdint>

#include "bi/code/scan_state.h"
#include "bi/mora.h"

namespace ceilmeter {

// Whether the count of the trace's fragment that is being scanned is left to a group. Then it writes the leader's code,
// or nothing, at *write, and notes the plug-in's word. Called where the word is to be counted.
bool count_by_group(scan_state& state, std::uint32_t** write, std::uint64_t* counter);

// Behind the code of a fragment's start: whether another plug-in, or another piece of it, has written code.
void note_code_behind_count(scan_state& state);

// At the end of the fragment's scan: whether its group may go on behind it.
void look_for_group_end(scan_state& state);

// A trace begins: its first fragment will be a leader. Settles what the records from its first index on still hold, of
// a trace that was given up or from before a flush, and clears them.
void begin_groups(thread_data* thread);

// The fragment belongs to the trace from now on. What follows it may join its group.
void join_group(thread_data* thread, std::int32_t id);

// Whether the fragment counts nothing by itself.
bool is_member(const thread_data* thread, std::int32_t id);

// The plug-in's word of a member, for its snippet.
std::uint64_t* counter_of_member(const thread_data* thread, std::int32_t id);

// The index becomes that of a trampoline that counts, in the word that is returned.
const std::uint64_t* add_trampoline(thread_data* thread, std::int32_t id);

void settle_runs(thread_data* thread);

// The thread runs no more code of the application's, and the plug-in's words go.
void forget_runs(thread_data* thread);

// The thread stands at the cache address and does not go on there. What its group has counted in advance is taken back.
// Nothing is done for an address outside of traces.
void left_trace(thread_data* thread, std::uint64_t place);

// Whether the record is that of a trampoline that counts.
inline bool is_counting_trampoline(const bb_meta& meta) {
  return meta.exit_kind == EXIT_TRACE && (meta.link_state & LINK_COUNTS) != 0;
}

// From now on the thread's code calls functions of plug-ins, which may look at their words. It makes no groups any
// more. True if it has made some: what they hold has to be settled before each call.
bool stop_grouping(thread_data* thread);

}  // namespace ceilmeter
