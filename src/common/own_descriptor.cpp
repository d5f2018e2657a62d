#include "common/own_descriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace ceilmeter {

namespace {

// The standard streams' numbers are not the tool's either where they are free.
constexpr int LOWEST = STDERR_FILENO + 1;

// Half of what there is, so that the application has low numbers enough. Not above what select() takes, because the
// kernel's table of descriptors grows with the highest one, and each fork copies it.
int find_first_number() {
  constexpr rlim_t most = 1024;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return LOWEST;
  return std::max(static_cast<int>(std::min(limit.rlim_cur / 2, most)), LOWEST);
}

}  // namespace

int duplicate_out_of_the_way(int fd) {
  static const int first = find_first_number();  // As the tool was started: the application may change its limit.
  const int duplicate = fcntl(fd, F_DUPFD_CLOEXEC, first);
  return duplicate >= 0 ? duplicate : fcntl(fd, F_DUPFD_CLOEXEC, LOWEST);
}

int move_out_of_the_way(int fd) {
  if (fd < 0) return fd;
  const int moved = duplicate_out_of_the_way(fd);
  if (moved < 0) return fd;
  close(fd);
  return moved;
}

}  // namespace ceilmeter
