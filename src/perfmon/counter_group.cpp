// Reading a group of counters.
#include "perfmon/counter_group.h"

#include <unistd.h>

#include <algorithm>
#include <array>

namespace ceilmeter {

namespace {

constexpr std::uint64_t longest_wait = 20'000'000;  // Nanoseconds.
// Ends the wait if the enabled time does not grow either.
constexpr int most_reads = 200'000;

}  // namespace

group_reading decode_group_reading(std::span<const std::uint64_t> words) {
  constexpr std::size_t header_words = 3;
  if (words.size() < header_words) return {};
  const std::span<const std::uint64_t> delivered = words.subspan(header_words);
  const std::size_t pair_count = std::min<std::uint64_t>(words[0], delivered.size() / 2);
  return {words[1], words[2], delivered.first(2 * pair_count)};
}

group_start wait_for_group(std::int32_t group_fd) {
  std::array<std::uint64_t, group_reading_bytes / sizeof(std::uint64_t)> buffer;
  group_reading earlier;
  std::uint64_t missing_before = 0;
  int steps_kept_up = 0;
  for (int reads = 0; reads < most_reads; ++reads) {
    const ssize_t bytes = read(group_fd, buffer.data(), sizeof buffer);
    constexpr ssize_t header_bytes = 3 * sizeof(std::uint64_t);
    if (bytes < header_bytes) return {};
    const group_reading now =
        decode_group_reading(std::span(buffer).first(static_cast<std::size_t>(bytes) / sizeof(std::uint64_t)));
    const std::uint64_t missing = now.time_enabled - now.time_running;
    if (missing == 0 && now.time_running != 0) return {};

    // If a group is looked at for the second time, its times contain the first wait.
    if (reads == 0) missing_before = missing;
    const std::uint64_t ran = now.time_running - earlier.time_running;
    const bool kept_up = reads != 0 && ran != 0 && ran == now.time_enabled - earlier.time_enabled;
    steps_kept_up = kept_up ? steps_kept_up + 1 : 0;
    if (steps_kept_up == 2) return {true, missing};
    if (missing - missing_before >= longest_wait) return {false, missing};
    earlier = now;
  }
  return {false, earlier.time_enabled - earlier.time_running};
}

}  // namespace ceilmeter
