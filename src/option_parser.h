// A table-driven command line parser over getopt_long. It knows nothing of the options themselves.
#pragma once

#include "common/option_entry.h"

namespace ceilmeter {

// Reads the options before the first word that is none, so that an application's own options are never touched. Marks
// each row of `table` (closed by a row without names) that occurs, stores its argument and calls its handler.
// Returns the index of the first word that is no option; or the first negative result of a handler, at once; or -1 on
// an option that getopt_long rejects, after its own complaint on standard error.
int parse_options(int argc, char** argv, option_entry* table);

}  // namespace ceilmeter
