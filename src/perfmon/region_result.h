// The result file as the region interface meets it: other processes of the same run may be about to write it, and what
// an earlier run left in it may be damaged. Neither may end the application, which is where all this happens.
#pragma once

#include <optional>
#include <string>

namespace ceilmeter {

// Keeps other processes of the region interface from the result file at `path` while it is read, merged and written.
// The lock is one on the file's folder, so that the file need not exist; where the file system has none for folders,
// one on the file, which is then created empty. Waits for up to ten minutes, then goes on without, after a warning. A
// file system without any locks is a debug line.
class result_lock {
 public:
  explicit result_lock(const std::string& path);
  ~result_lock();
  result_lock(const result_lock&) = delete;
  result_lock& operator=(const result_lock&) = delete;

 private:
  int m_fd = -1;
};

// What keeps the file at `path` from being read back as a result, in words; nothing if it can be, is empty, or is not
// there. A result is damaged if it is no JSON, has a block without a module, or roofs of something other than a number
// of threads.
std::optional<std::string> find_result_damage(const std::string& path);

// Where the counters go if the file at `path` is damaged.
inline std::string path_beside(const std::string& path) { return path + ".regions.json"; }

}  // namespace ceilmeter
