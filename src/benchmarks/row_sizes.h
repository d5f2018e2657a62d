// The sizes that the memory rows sweep, and which cache of this machine each size reads. The sizes are constants, so
// that results of machines can be compared and an old result stays what it was. On a machine with other caches a row
// reads another level than its name says, and this file tells which.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ceilmeter {

// Bytes per thread. All are multiples of the 256 bytes of a pass.
inline constexpr std::uint64_t l1_row_bytes = 4 << 10;
inline constexpr std::uint64_t l2_row_bytes = 80 << 10;
inline constexpr std::uint64_t l3_row_bytes = 756 << 10;
inline constexpr std::uint64_t ddr_row_bytes = 4 << 20;

// One cache that holds data, as the first processor sees it.
struct data_cache {
  int level = 0;
  std::uint64_t bytes = 0;
  std::uint64_t processors = 1;  // That share it.
};

// Where the kernel describes the first processor's caches.
inline constexpr char cache_folder[] = "/sys/devices/system/cpu/cpu0/cache";

// By rising level. Empty if the kernel does not tell, as in many virtual machines; a cache of unknown size is left out.
std::vector<data_cache> read_data_caches(const std::string& folder);

// One line for each memory row that reads another level than its name says, with the thread counts for which it does
// so. L1 and L2 are measured once, with the smallest count. Nothing is said without caches.
std::vector<std::string> describe_misnamed_rows(const std::vector<data_cache>& caches,
                                                const std::set<std::uint64_t>& thread_counts);

// The same for this machine, as one warning.
void warn_of_misnamed_rows(const std::set<std::uint64_t>& thread_counts);

}  // namespace ceilmeter
