// A fragment in words that a developer reads: its record, its rewritten code beside the source words that it stands
// for, and its links. It goes to the log, a line at a time, whatever the log's level is. Nothing is allocated or
// locked, and source code that is not mapped any more is left out: it may be called in a signal handler, and on a
// damaged cache.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Logs the fragment `id` of the thread: a block, a part of a trace, or a trampoline.
void log_fragment(const thread_data* thread, std::int32_t id);

}  // namespace ceilmeter

// The same of the calling thread, for a debugger: `call dump_fragment(55000)`.
extern "C" void dump_fragment(int id);
