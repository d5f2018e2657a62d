#include "common/own_descriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace ceilmeter {

namespace {

// Half of what there is, so that the application has low numbers enough. Not above what select() takes, because the
// kernel's table of descriptors grows with the highest one, and each fork copies it.
int find_first_number() {
  constexpr rlim_t most = 1024;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return static_cast<int>(std::min(limit.rlim_cur / 2, most));
}

}  // namespace

int duplicate_out_of_the_way(int fd) {
  static const int first = find_first_number();  // As the tool was started: the application may change its limit.
  const int duplicate = fcntl(fd, F_DUPFD_CLOEXEC, first);
  return duplicate >= 0 ? duplicate : fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

int move_out_of_the_way(int fd) {
  const int moved = duplicate_out_of_the_way(fd);
  if (moved < 0) return fd;
  close(fd);
  return moved;
}

}  // namespace ceilmeter
