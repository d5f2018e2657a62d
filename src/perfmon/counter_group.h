// What an open group of kernel counters says about itself when it is read: its values, and whether it counts at all.
//
// The kernel opens a group without looking at how many counters the unit has. A group that is larger than the unit
// never runs. Its enabled time grows. Its running time stays near 0; each attempt of the kernel to start the group
// leaves some hundred nanoseconds there. While such a group is enabled, the kernel also refuses a fork that would
// inherit it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace ceilmeter {

// What one read of a group leader delivered.
struct group_reading {
  std::uint64_t time_enabled = 0;
  std::uint64_t time_running = 0;        // Less than `time_enabled` if the group had to share the counter unit.
  std::span<const std::uint64_t> pairs;  // Value and id by turns, as many as were really delivered.
};

// Room for the reading of every group: the header and 254 pairs.
constexpr std::size_t group_reading_bytes = 4096;

// Takes a group reading apart. `words` is what was read, without a partial last word; the result points into it. If
// there are too few words for the header, the reading has no pairs. A count of pairs beyond `words` is cut.
group_reading decode_group_reading(std::span<const std::uint64_t> words);

// What is known of a group that has just been enabled on the calling thread.
struct group_start {
  bool runs = true;
  std::uint64_t waited = 0;  // Nanoseconds for which it was enabled and did not run.
};

// Reads the group until it runs, or until it has been enabled for 20 ms of the thread's time without running. That is
// five times the interval after which the kernel lets groups that share the counter unit change places. A group runs if
// both times are the same; one read shows this if all is well. It also runs if its running time has kept up with the
// enabled time over two reads. A group that cannot be read counts as running: the last reading will say what is wrong.
group_start wait_for_group(std::int32_t group_fd);

}  // namespace ceilmeter
