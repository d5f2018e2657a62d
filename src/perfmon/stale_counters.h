// Finds counters of an earlier run beside the operations of this one. In region mode the application writes its
// counters into the result file itself. If it never does, the counters of an earlier run stay there, and nothing in the
// file says so.
#pragma once

#include <string>

#include "report.h"

namespace ceilmeter {

// Notes the state of the result file before the application starts. Returns when a later write of the file is certain
// to change its time, after a few milliseconds at most.
void note_result_before_run(const std::string& path);

// One warning if `report`, read from the file at `path`, has counters and the file is still what was noted. Without a
// note nothing is said.
void warn_of_stale_counters(const std::string& path, const collector_report& report);

}  // namespace ceilmeter
