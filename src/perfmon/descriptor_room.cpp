// The soft limit of descriptors, and the numbers beyond what it was.
#include "perfmon/descriptor_room.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

namespace ceilmeter {

namespace {

// A limit above this is no shortage. The room does not begin higher, because the kernel's table of descriptors grows
// with the highest number.
constexpr rlim_t highest_begin = 4096;
constexpr rlim_t step = 1024;
// A counter is opened under the lowest free number and moved then, so a few low numbers have to be free.
constexpr rlim_t spare = 64;

std::mutex room_mutex;  // Guards what follows.
rlim_t room_begin = 0;  // The first number of the room; 0 before the first call.
rlim_t room_taken = 0;

int duplicate_from(int fd, rlim_t first) { return fcntl(fd, F_DUPFD_CLOEXEC, static_cast<int>(first)); }

}  // namespace

void reserve_descriptor_room(int count) {
  const std::lock_guard guard(room_mutex);
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  if (room_begin == 0) room_begin = std::min(limit.rlim_cur, highest_begin);
  room_taken += static_cast<rlim_t>(count);
  const rlim_t wanted = room_begin + (room_taken + spare + step - 1) / step * step;
  if (limit.rlim_cur >= wanted) return;
  limit.rlim_cur = std::min(wanted, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::int32_t move_to_descriptor_room(std::int32_t fd) {
  rlim_t first = 0;
  {
    const std::lock_guard guard(room_mutex);
    first = room_begin;
  }
  int moved = duplicate_from(fd, first);
  if (moved < 0) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) moved = duplicate_from(fd, limit.rlim_cur - limit.rlim_cur / 4);
  }
  if (moved < 0) return fd;
  close(fd);
  return moved;
}

}  // namespace ceilmeter
