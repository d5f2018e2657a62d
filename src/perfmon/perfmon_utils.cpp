// Fills a perf_event_attr in one of two fixed shapes and hands it to the kernel.
#include "perfmon/perfmon_utils.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/perfmon_utils"};

// The structure's size is part of the call. A kernel refuses a larger structure than it knows, unless the rest is zero.
// Both shapes need nothing newer than this size, so it is passed whatever the size in the header is.
constexpr std::uint32_t ATTR_SIZE = PERF_ATTR_SIZE_VER5;
static_assert(ATTR_SIZE == 112 && sizeof(perf_event_attr) >= ATTR_SIZE);

// What the two shapes have in common: a counter that is created stopped and never samples.
perf_event_attr make_attr(const perfmon_event_desc& event) {
  perf_event_attr attr;
  std::memset(&attr, 0, sizeof attr);
  attr.type = event.type;
  attr.size = ATTR_SIZE;
  attr.config = event.config;
  attr.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
  attr.disabled = 1;
  attr.inherit = event.inherit & 1;
  return attr;
}

// What a counter of the user-mode work of a task adds.
void make_core_shape(perf_event_attr& attr) {
  attr.read_format |= PERF_FORMAT_ID | PERF_FORMAT_GROUP;
  attr.exclude_kernel = 1;
  attr.exclude_hv = 1;
  attr.exclude_callchain_kernel = 1;
}

// The C library has no wrapper for this call. Descriptors and errors fit in 32 bits, and only these are looked at.
std::int32_t perf_event_open(const perf_event_attr& attr, std::int32_t pid, std::int32_t cpu, std::int32_t group_fd,
                             std::uint64_t flags) {
  return static_cast<std::int32_t>(syscall(SYS_perf_event_open, &attr, static_cast<long>(pid), static_cast<long>(cpu),
                                           static_cast<long>(group_fd), static_cast<unsigned long>(flags)));
}

constexpr char DESCRIPTOR_LIMIT_HINT[] =
    "Hit the upper limit of files it's allowed to open, usually 1,024. Please temporarily increase the limit to, "
    "for example, 2,048 files, with the command \"ulimit -n 2048\"";

}  // namespace

std::int32_t perfmon_utils_event_open_core(const perfmon_event_desc* event, std::int32_t pid, std::int32_t cpu,
                                           std::int32_t group_fd, std::uint64_t flags, bool repeated) {
  perf_event_attr attr = make_attr(*event);
  make_core_shape(attr);

  const std::int32_t fd = perf_event_open(attr, pid, cpu, group_fd, flags);
  const int cause = errno;  // Writing the next log line may change it.
  log(LEVEL_DEBUG, "perf_event_open: type %d, config %lx, inherit: %u, cpu %d, group_fd %d, flags %lu, ret %d",
      static_cast<int>(event->type), event->config, event->inherit, cpu, group_fd, flags, fd);
  if (fd != -1) return fd;

  const int level = repeated ? LEVEL_DEBUG : LEVEL_WARN;
  log(level, "perf_event_open failed with %s", std::strerror(cause));
  if (cause == EMFILE) log(level, "%s", DESCRIPTOR_LIMIT_HINT);
  return -1;
}

int perfmon_utils_counter_width() {
  constexpr std::size_t most_counters = 31;  // That the architecture allows.
  constexpr std::uint64_t any_event = 0x4;   // Any code but that of cycles, which have a counter of their own.
  perf_event_attr attr = make_attr({.type = PERF_TYPE_RAW, .config = any_event});
  make_core_shape(attr);
  attr.disabled = 0;

  std::array<std::int32_t, most_counters + 1> fds;
  std::size_t opened = 0;
  int cause = 0;
  while (opened < fds.size()) {
    const std::int32_t fd = perf_event_open(attr, 0, -1, opened == 0 ? -1 : fds[0], PERF_FLAG_FD_CLOEXEC);
    if (fd == -1) {
      cause = errno;
      break;
    }
    fds[opened++] = fd;
  }
  // Close the members before their leader. Otherwise they would be groups of their own for a moment.
  for (std::size_t index = opened; index-- > 0;) close(fds[index]);
  const int width = cause == EINVAL ? static_cast<int>(opened) : 0;
  log(LEVEL_DEBUG, "the counter unit has %d counters, %lu opened", width, opened);
  return width;
}

std::int32_t perfmon_utils_event_open_uncore(const perfmon_event_desc* event, std::int32_t cpu, std::int32_t group_fd,
                                             std::uint64_t flags) {
  const perf_event_attr attr = make_attr(*event);

  const std::int32_t fd = perf_event_open(attr, -1, cpu, group_fd, flags);
  const int cause = errno;
  log(LEVEL_DEBUG,
      "perfmon_utils_event_open_uncore: type %d, config %lx, inherit: %u, cpu %d, group_fd %d, flags %lu, ret %d",
      static_cast<int>(event->type), event->config, event->inherit, cpu, group_fd, flags, fd);
  if (fd != -1) return fd;

  log(LEVEL_WARN, "perfmon_utils_event_open_uncore failed with %s", std::strerror(cause));
  if (cause == EMFILE) log(LEVEL_WARN, "%s", DESCRIPTOR_LIMIT_HINT);
  return -1;
}

std::string perfmon_utils_get_env(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  return value == nullptr ? std::string() : std::string(value);
}

int perfmon_utils_set_env(const std::string& name, const std::string& value) {
  const int result = setenv(name.c_str(), value.c_str(), 1);
  if (result != 0) {
    log(LEVEL_WARN, "setenv %s=%s failed with error:\n%s", name.c_str(), value.c_str(), std::strerror(errno));
  }
  return result;
}

}  // namespace ceilmeter
