// The fake kernel and the wrappers through which the linker sends it the system calls.
#include "fake_kernel.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ceilmeter::test {

namespace {

std::atomic<fake_kernel*> current_kernel{nullptr};

[[gnu::format(printf, 1, 2)]] std::string text_of(const char* format, ...) {
  char text[200];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

}  // namespace

fake_kernel::fake_kernel(recording mode) : mode_(mode), counters_(capacity) { current_kernel = this; }

fake_kernel::~fake_kernel() { current_kernel = nullptr; }

fake_kernel* fake_kernel::current() { return current_kernel.load(std::memory_order_relaxed); }

void fake_kernel::record(std::string text) {
  if (mode_ == recording::off) return;
  const std::lock_guard guard(mutex_);
  calls_.push_back(std::move(text));
}

bool fake_kernel::owns(int fd) const {
  return fd >= first_fd && fd < first_fd + counter_count_.load(std::memory_order_relaxed);
}

fake_kernel::counter* fake_kernel::find(int fd) {
  if (!owns(fd)) return nullptr;
  counter& found = counters_[static_cast<std::size_t>(fd - first_fd)];
  return found.open.load(std::memory_order_relaxed) ? &found : nullptr;
}

const fake_kernel::counter* fake_kernel::find(int fd) const { return const_cast<fake_kernel*>(this)->find(fd); }

std::uint64_t fake_kernel::id_of(int fd) const {
  const std::uint64_t config = find(fd)->config.load(std::memory_order_relaxed);
  const auto given = ids.find(config);
  return given != ids.end() ? given->second : static_cast<std::uint64_t>(fd) * 10;
}

long fake_kernel::perf_event_open(long number, const void* attr, long pid, long cpu, long group_fd,
                                  unsigned long flags) {
  open_call call{number, {}, pid, cpu, group_fd, flags};
  std::memcpy(call.attr.data(), attr, sizeof call.attr);
  const std::uint64_t config = call.attr[1];
  if (mode_ == recording::on) {
    const std::lock_guard guard(mutex_);
    opens_.push_back(call);
  }
  record(text_of("open %lx group %ld", config, group_fd));

  if (open_result) {
    errno = EINVAL;
    return *open_result;
  }
  if (const auto error = refused.find(config); error != refused.end()) {
    errno = error->second;
    return -1;
  }
  if (counter_count_.load(std::memory_order_relaxed) >= open_limit) {
    errno = EMFILE;
    return -1;
  }
  const bool stopped = (call.attr[5] & 1) != 0;  // The flag word, bit `disabled`.
  if (width != 0 && !stopped && group_fd != -1 && open_members(static_cast<int>(group_fd)) >= width) {
    errno = EINVAL;
    return -1;
  }
  const int index = counter_count_.fetch_add(1, std::memory_order_relaxed);
  if (index >= capacity) std::abort();
  counter& opened = counters_[static_cast<std::size_t>(index)];
  const int fd = first_fd + index;
  opened.config.store(config, std::memory_order_relaxed);
  opened.leader.store(group_fd == -1 ? fd : static_cast<int>(group_fd), std::memory_order_relaxed);
  opened.open.store(true, std::memory_order_relaxed);
  return fd;
}

int fake_kernel::ioctl(int fd, unsigned long request, unsigned long argument) {
  counter* counted = find(fd);
  // The argument of the id request is an address, which a test cannot know.
  record(request == PERF_EVENT_IOC_ID ? text_of("ioctl %d %lx", fd, request)
                                      : text_of("ioctl %d %lx %lx", fd, request, argument));
  if (counted == nullptr) {
    errno = EBADF;
    return -1;
  }
  switch (request) {
    case PERF_EVENT_IOC_ENABLE:
      counted->enabled.store(true, std::memory_order_relaxed);
      counted->enables.fetch_add(1, std::memory_order_relaxed);
      return 0;
    case PERF_EVENT_IOC_DISABLE: counted->enabled.store(false, std::memory_order_relaxed); return 0;
    case PERF_EVENT_IOC_ID: {
      const std::uint64_t id = id_of(fd);
      std::memcpy(reinterpret_cast<void*>(argument), &id, sizeof id);
      return 0;
    }
    default: errno = ENOTTY; return -1;
  }
}

long fake_kernel::read(int fd, void* buffer, std::size_t size) {
  record(text_of("read %d %lu", fd, size));
  if (find(fd) == nullptr) {
    errno = EBADF;
    return -1;
  }
  if (read_error != 0) {
    errno = read_error;
    return -1;
  }
  std::vector<std::uint64_t> words;
  if (reading) {
    words = *reading;
  } else {
    words = times_of(fd);
    const int count = counter_count_.load(std::memory_order_relaxed);
    for (int index = 0; index < count; ++index) {
      const counter& member = counters_[static_cast<std::size_t>(index)];
      if (member.leader.load(std::memory_order_relaxed) != fd || !member.open.load(std::memory_order_relaxed)) continue;
      words.push_back(member.value.load(std::memory_order_relaxed));
      words.push_back(id_of(first_fd + index));
      ++words[0];
    }
  }
  const std::size_t bytes = std::min(size, read_bytes.value_or(words.size() * sizeof(std::uint64_t)));
  std::memcpy(buffer, words.data(), std::min(bytes, words.size() * sizeof(std::uint64_t)));
  return static_cast<long>(bytes);
}

int fake_kernel::open_members(int leader) const {
  return static_cast<int>(std::count_if(counters_.begin(), counters_.end(), [leader](const counter& member) {
    return member.open.load(std::memory_order_relaxed) && member.leader.load(std::memory_order_relaxed) == leader;
  }));
}

bool fake_kernel::runs(int leader) {
  if (starved_readings > 0) {
    --starved_readings;
    return false;
  }
  return width == 0 || open_members(leader) <= width;
}

// The number of pairs, 0 so far, and both times. As from the real kernel, a group that does not run still has a little
// running time. Once it runs, both times go on from there.
std::vector<std::uint64_t> fake_kernel::times_of(int leader) {
  constexpr std::uint64_t attempts = 300;
  if (!runs(leader)) {
    starved_time_ += 10'000'000;
    return {0, starved_time_ + attempts, attempts};
  }
  if (starved_time_ == 0) return {0, time_enabled, time_running};
  ran_after_ += 1000;
  return {0, starved_time_ + attempts + ran_after_, attempts + ran_after_};
}

int fake_kernel::close(int fd) {
  counter* closed = find(fd);
  record(text_of("close %d%s", fd, closed != nullptr ? "" : " fails"));
  if (closed == nullptr) {
    errno = EBADF;
    return -1;
  }
  closed->open.store(false, std::memory_order_relaxed);
  return 0;
}

std::int64_t fake_kernel::monotonic_nanoseconds() {
  const std::size_t position = clock_position_.fetch_add(1, std::memory_order_relaxed);
  record("clock");
  if (position < clock.size()) return clock[position];
  // Beyond the script every reading is one microsecond after the one before.
  const std::int64_t last = clock.empty() ? 0 : clock.back();
  return last + 1000 * (static_cast<std::int64_t>(position - clock.size()) + 1);
}

void fake_kernel::count(int leader, std::uint64_t config, std::uint64_t value) {
  for (counter& member : counters_) {
    if (member.leader.load(std::memory_order_relaxed) != leader ||
        member.config.load(std::memory_order_relaxed) != config) {
      continue;
    }
    member.value.fetch_add(value, std::memory_order_relaxed);
    return;
  }
  std::fprintf(stderr, "the fake kernel has no counter %lx in group %d\n", config, leader);
  std::abort();
}

std::vector<open_call> fake_kernel::opens() const {
  const std::lock_guard guard(mutex_);
  return opens_;
}

std::vector<std::string> fake_kernel::calls() const {
  const std::lock_guard guard(mutex_);
  return calls_;
}

std::vector<std::uint64_t> fake_kernel::opened_configs() const {
  std::vector<std::uint64_t> configs;
  for (const open_call& call : opens()) configs.push_back(call.attr[1]);
  return configs;
}

bool fake_kernel::enabled(int leader) const { return find(leader) != nullptr && find(leader)->enabled; }

int fake_kernel::enables(int leader) const { return counters_[static_cast<std::size_t>(leader - first_fd)].enables; }

int fake_kernel::open_descriptors() const {
  return static_cast<int>(
      std::count_if(counters_.begin(), counters_.end(), [](const counter& member) { return member.open.load(); }));
}

}  // namespace ceilmeter::test

// The linker's --wrap option turns a call of NAME into one of __wrap_NAME, and __real_NAME into the real one.
using ceilmeter::test::fake_kernel;

extern "C" {

long __real_syscall(long number, ...);
int __real_ioctl(int fd, unsigned long request, ...);
ssize_t __real_read(int fd, void* buffer, std::size_t size);
int __real_close(int fd);
int __real_clock_gettime(clockid_t clock, timespec* now);

// Takes as many arguments as a call can have. Those that the call does not have are words of the caller's stack.
long __wrap_syscall(long number, ...) {
  if (number == SYS_gettid) return __real_syscall(number);
  if (number != SYS_perf_event_open || fake_kernel::current() == nullptr) {
    std::fprintf(stderr, "the fake kernel does not expect system call %ld here\n", number);
    std::abort();
  }
  std::va_list list;
  va_start(list, number);
  const void* attr = va_arg(list, const void*);
  const long pid = va_arg(list, long);
  const long cpu = va_arg(list, long);
  const long group_fd = va_arg(list, long);
  const unsigned long flags = va_arg(list, unsigned long);
  va_end(list);
  return fake_kernel::current()->perf_event_open(number, attr, pid, cpu, group_fd, flags);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  std::va_list list;
  va_start(list, request);
  const unsigned long argument = va_arg(list, unsigned long);
  va_end(list);
  fake_kernel* kernel = fake_kernel::current();
  // A number below 0 is never a valid descriptor: the request is recorded, and fails.
  if (kernel != nullptr && (fd < 0 || kernel->owns(fd))) return kernel->ioctl(fd, request, argument);
  return __real_ioctl(fd, request, argument);
}

ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  fake_kernel* kernel = fake_kernel::current();
  return kernel != nullptr && kernel->owns(fd) ? kernel->read(fd, buffer, size) : __real_read(fd, buffer, size);
}

int __wrap_close(int fd) {
  fake_kernel* kernel = fake_kernel::current();
  return kernel != nullptr && (fd < 0 || kernel->owns(fd)) ? kernel->close(fd) : __real_close(fd);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  fake_kernel* kernel = fake_kernel::current();
  if (kernel == nullptr || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
  const std::int64_t nanoseconds = kernel->monotonic_nanoseconds();
  now->tv_sec = nanoseconds / 1'000'000'000;
  now->tv_nsec = nanoseconds % 1'000'000'000;
  return 0;
}

}  // extern "C"
