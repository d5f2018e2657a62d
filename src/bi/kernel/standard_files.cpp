// One word of state, which a child has as its parent left it.
#include "bi/kernel/standard_files.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <bit>

#include "bi/code/stubs.h"

namespace ceilmeter {

std::atomic<std::uint32_t> closed_standard_files{0};

namespace {

// The closed numbers that a call's new descriptor may take, as bits; 0 of calls that return no new descriptor.
std::uint32_t numbers_for(std::uint64_t number, const std::uint64_t* args) {
  constexpr std::uint32_t input_alone = 1;
  constexpr std::uint32_t all = 7;
  switch (number) {
    case SYS_openat:
    case SYS_openat2:
    case SYS_socket:
    case SYS_accept:
    case SYS_accept4: return input_alone;
    case SYS_dup: return all;
    case SYS_fcntl: {
      // The kernel reads both arguments as 32 bits.
      const auto command = static_cast<std::uint32_t>(args[1]);
      const auto lowest = static_cast<std::uint32_t>(args[2]);
      if ((command != F_DUPFD && command != F_DUPFD_CLOEXEC) || lowest > STDERR_FILENO) return 0;
      return all >> lowest << lowest;
    }
    default: return 0;
  }
}

// Takes the lowest closed number among `allowed`; -1 if there is none.
int take_number(std::uint32_t allowed) {
  std::uint32_t closed = closed_standard_files.load(std::memory_order_relaxed);
  for (;;) {
    const std::uint32_t candidates = closed & allowed;
    if (candidates == 0) return -1;
    const int lowest = std::countr_zero(candidates);
    if (closed_standard_files.compare_exchange_weak(closed, closed & ~(std::uint32_t{1} << lowest),
                                                    std::memory_order_relaxed)) {
      return lowest;
    }
  }
}

}  // namespace

bool note_close(std::uint32_t fd) {
  if (fd > STDERR_FILENO) return false;
  closed_standard_files.fetch_or(std::uint32_t{1} << fd, std::memory_order_relaxed);
  // The tool starts no program. What takes the number brings flags of its own.
  raw_syscall(SYS_fcntl, fd, F_SETFD, FD_CLOEXEC);
  return true;
}

void close_noted_files() {
  const std::uint32_t closed = closed_standard_files.load(std::memory_order_relaxed);
  for (std::uint32_t fd = 0; fd <= STDERR_FILENO; ++fd) {
    if ((closed >> fd & 1) != 0) raw_syscall(SYS_close, fd);
  }
}

void forget_noted_files() { closed_standard_files.store(0, std::memory_order_relaxed); }

std::int64_t settle_among_closed(std::uint64_t number, const std::uint64_t* args, std::int64_t result) {
  if (number == SYS_dup3) {
    if (result <= STDERR_FILENO) {
      closed_standard_files.fetch_and(~(std::uint32_t{1} << result), std::memory_order_relaxed);
    }
    return result;
  }
  const int number_given = take_number(numbers_for(number, args));
  if (number_given < 0) return result;
  const auto made = static_cast<std::uint64_t>(result);
  const std::int64_t descriptor_flags = raw_syscall(SYS_fcntl, made, F_GETFD);
  const std::uint64_t close_on_exec = (descriptor_flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0;
  raw_syscall(SYS_dup3, made, static_cast<std::uint64_t>(number_given), close_on_exec);
  raw_syscall(SYS_close, made);
  return number_given;
}

}  // namespace ceilmeter
