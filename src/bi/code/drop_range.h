// Drops the fragments of a thread that were translated from a range of source addresses; the rest of its cache stays.
//
//   a block                 becomes one that is not scanned yet, in its place: what leads to it gets to the dispatcher,
//                           which has it scanned anew. The entry table and the links to it stay as they are.
//   a trace with a          its head block becomes such a block; the table leads there, and the word behind the trace's
//   fragment of the range   entry becomes a branch there, for those who are linked to the trace
//   a trampoline that has   branches to the block, without the copied words
//   copied their words
//
//   a trace that is dropped    ldp x0, x1, [sp], #16
//                              b   head block + 4        noted as a link, so that the block's next trace is led here
//                              ...                       dead until the next flush
//
// Only in the engine, outside a scan, and where the thread goes on by a source address: the code that it has left may
// be among what is dropped.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Returns whether there was anything; flush_seen is set then. May flush the cache, if there are no records left for
// links.
bool drop_fragments(thread_data* thread, std::uint64_t start, std::uint64_t end);

// Makes the fragment known to drop_fragments, when its record is complete. `id` may be known already.
void note_fragment(thread_data* thread, std::int32_t id);

// For the trace whose fragments and trampolines begin at index `head`, up to trace_id. Notes them.
void note_trace(thread_data* thread, std::int32_t head, std::int32_t head_block);

// Whether a trace begins with the index, and whether it does and the trace has been dropped.
bool is_trace_head(const thread_data* thread, std::int32_t id);
bool is_dropped_head(const thread_data* thread, std::int32_t id);

// A flush has emptied the cache. Before next_block and trace_id begin anew.
void forget_noted_fragments(thread_data* thread);

}  // namespace ceilmeter
