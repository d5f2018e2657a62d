// The names that several modules must spell alike: regions, metrics, and the environment between tool and application.
#pragma once

#include <string>
#include <vector>

namespace ceilmeter {

// The one region of a run over the whole application.
inline const std::string total_region_name = "total";

// The metrics of a region in the order in which they are computed and read back. "time" is in nanoseconds, the others
// in bytes.
inline const std::vector<std::string> roofline_metric_names = {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"};

// Set for the application in region mode, read by the region interface.
inline const std::string ROOFLINE_REPORT_FILE = "ROOFLINE_REPORT_FILE";
inline const std::string ROOFLINE_LOG_LEVEL = "ROOFLINE_LOG_LEVEL";
inline const std::string ROOFLINE_LOG_FILE = "ROOFLINE_LOG_FILE";

}  // namespace ceilmeter
