// The result file as the region interface meets it: other processes of the same run may be about to write the file.
#pragma once

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

}  // namespace ceilmeter
