// The lock around the result file.
#include "perfmon/region_result.h"

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/region_result"};

constexpr long poll_milliseconds = 10;
constexpr long longest_wait_milliseconds = 600'000;

// 0, or the reason why there is no lock. EWOULDBLOCK: somebody else has held it all the time.
int wait_for_lock(int fd) {
  for (long waited = 0;; waited += poll_milliseconds) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
    if (errno != EINTR && (errno != EWOULDBLOCK || waited >= longest_wait_milliseconds)) return errno;
    const timespec pause{0, poll_milliseconds * 1'000'000};
    nanosleep(&pause, nullptr);
  }
}

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

result_lock::result_lock(const std::string& path) {
  int reason = 0;
  m_fd = open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_fd >= 0) {
    reason = wait_for_lock(m_fd);
    if (reason != 0) close(m_fd);
  }
  if ((m_fd < 0 || reason != 0) && reason != EWOULDBLOCK) {
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    reason = m_fd >= 0 ? wait_for_lock(m_fd) : errno;
    if (m_fd >= 0 && reason != 0) close(m_fd);
  }
  if (reason == 0) return;
  m_fd = -1;
  log(reason == EWOULDBLOCK ? LEVEL_WARN : LEVEL_DEBUG, "%s is read and written without a lock: %s", path.c_str(),
      std::strerror(reason));
}

result_lock::~result_lock() {
  if (m_fd >= 0) close(m_fd);
}

}  // namespace ceilmeter
