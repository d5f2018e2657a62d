// The one table of what is counted: each event's code, name, the metric it adds to and the bytes that one count stands
// for. What is opened, how a metric is computed and what a warning names all come from here; a test holds the table in
// README.md against it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "flat_table.h"

namespace ceilmeter {

struct roofline_event_row {
  std::int32_t code;  // Raw event code of the processor's counter unit.
  const char* name;
  std::string_view metric;  // Of `roofline_metric_names`; empty for an event that no metric uses.
  std::uint64_t bytes_per_count;
};

// An L1 access is taken as one of 16 bytes, all else as a line of 64, whatever the machine's line length.
inline constexpr std::uint64_t bytes_per_l1_access = 16;
inline constexpr std::uint64_t bytes_per_line = 64;

// Always counted, by rising code. The first one that opens leads the group. The set is the same on every processor. The
// kernel accepts a code that the processor does not have: the counter opens and stays at 0.
inline constexpr std::array<roofline_event_row, 6> roofline_event_codes = {{
    {0x4, "L1D_CACHE", "l1_bytes", bytes_per_l1_access},
    {0x32, "LL_CACHE", "l3_bytes", bytes_per_line},
    {0x33, "LL_CACHE_MISS", "ddr_bytes", bytes_per_line},
    {0x52, "L2D_CACHE_REFILL_LD", "l2_bytes", bytes_per_line},
    {0x53, "L2D_CACHE_REFILL_ST", "l2_bytes", bytes_per_line},
    {0x600B, "LSU_HIT_L2", "l2_bytes", bytes_per_line},
}};

// Counted as well while the log is talkative, for its lines alone.
inline constexpr std::array<roofline_event_row, 4> roofline_extra_event_codes = {{
    {0x72, "LDST_SPEC", "", 0},
    {0x74, "ASE_SPEC", "", 0},
    {0x75, "VFP_SPEC", "", 0},
    {0x5023, "STREAM_OUT", "", 0},
}};

// The pseudo-counter of a region's active time in nanoseconds, of which the metric "time" is made. No kernel counter
// feeds it.
inline constexpr char DURATION_TIME[] = "duration_time";

// Counter name to the sum of its values.
using counter_table = flat_table<std::string, std::uint64_t>;

// A metric of `roofline_metric_names` from a region's counters. A missing counter counts as 0, and so does an unknown
// metric. Unsigned 64-bit arithmetic that wraps.
std::uint64_t roofline_metric(const std::string& metric, const counter_table& counters);

}  // namespace ceilmeter
