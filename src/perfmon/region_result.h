// The result file as the region interface meets it. Other processes of the same run may be about to write the file, and
// what an earlier run left in it may be damaged. All this happens inside the application, so neither may end it.
#pragma once

#include <optional>
#include <string>

namespace ceilmeter {

// Keeps other processes of the region interface from the result file at `path` while it is read, merged and written.
// The lock is on the file's folder, so that the file need not exist. If the file system has no locks for folders, it is
// on the file, which is then created empty. The lock waits for up to ten minutes and then goes on without, after a
// warning. A file system without any locks is a debug line.
class result_lock {
 public:
  explicit result_lock(const std::string& path);
  ~result_lock();
  result_lock(const result_lock&) = delete;
  result_lock& operator=(const result_lock&) = delete;

 private:
  int m_fd = -1;
};

// The reason, in words, why the file at `path` can't be read back as a result. Nothing if it can be, is empty, or is
// not there. A result is damaged if it is no JSON, if it has a block without a module, or if it has roofs of something
// other than a number of threads.
std::optional<std::string> find_result_damage(const std::string& path);

// Where the counters go if the file at `path` is damaged.
inline std::string path_beside(const std::string& path) { return path + ".regions.json"; }

}  // namespace ceilmeter
