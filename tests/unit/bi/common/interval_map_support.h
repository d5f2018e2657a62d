// A map of ranges with what its tests look at: entries, and the descriptors that the process has open.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "bi/containers/interval_map.h"

namespace ceilmeter::test {

// The descriptors that the process has open, except the one with which this function looks.
inline std::set<int> open_descriptors() {
  std::set<int> result;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) throw std::runtime_error("cannot list the open descriptors");
  while (const dirent* entry = readdir(directory)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(directory)) result.insert(fd);
  }
  closedir(directory);
  return result;
}

// Identifies the file behind a descriptor; 0 for a descriptor that is not open.
inline ino_t file_of(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// A new file without a name.
class scratch_descriptor {
 public:
  scratch_descriptor() : m_fd(memfd_create("range", MFD_CLOEXEC)) {
    if (m_fd < 0) throw std::runtime_error("cannot create a memory file");
  }
  ~scratch_descriptor() { close(m_fd); }
  scratch_descriptor(const scratch_descriptor&) = delete;
  scratch_descriptor& operator=(const scratch_descriptor&) = delete;
  int fd() const { return m_fd; }

 private:
  int m_fd;
};

using range = std::pair<std::uint64_t, std::uint64_t>;

// Frees what the map holds at its end, and closes what it left open.
class scratch_interval_map {
 public:
  explicit scratch_interval_map(std::int64_t capacity) : m_open_before(open_descriptors()) {
    if (interval_map_init(&map, capacity) != 0) throw std::runtime_error("cannot make an interval map");
  }
  ~scratch_interval_map() {
    for (const int fd : open_descriptors()) {
      if (m_open_before.count(fd) == 0) close(fd);
    }
    std::free(map.entries);
  }
  scratch_interval_map(const scratch_interval_map&) = delete;
  scratch_interval_map& operator=(const scratch_interval_map&) = delete;

  std::vector<range> ranges() const {
    std::vector<range> result;
    for (std::int64_t index = 0; index < map.count; ++index) {
      result.emplace_back(map.entries[index].start, map.entries[index].end);
    }
    return result;
  }
  // How many more descriptors are open than when the map was made.
  int opened() const { return static_cast<int>(open_descriptors().size()) - static_cast<int>(m_open_before.size()); }

  interval_map map{};

 private:
  std::set<int> m_open_before;
};

}  // namespace ceilmeter::test
