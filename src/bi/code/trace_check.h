// The trace checker. After the installation of a trace it proves that the words of the thread's cache are what the
// records say. It looks at every word of the trace area and at every link of a block, so it is for tests and debug
// builds.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Fatal, with what was found where, unless
// - the words of each trace lie without a gap from one fragment to the next, and each branch among them lands on a word
//   that is run: of a fragment, of a trampoline, or of a stub;
// - each way out leads to the source address that it stands for, through its trampoline if it has one;
// - the table finds each trace, and no block that a trace has replaced: the second word of such a block is the trap;
// - no link of any block leads to such a block.
// `first` is the first fragment of the trace that has just been installed. trace_options.check says how much is
// checked.
void check_trace_cache(thread_data* thread, std::int32_t first);

}  // namespace ceilmeter
