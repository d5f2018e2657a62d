// A path of the application's is copied before it is looked at: its memory may end anywhere, and another thread may
// change it.
#include "bi/kernel/executable_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "bi/code/readable_pages.h"
#include "bi/kernel/checked_copy.h"
#include "bi/kernel/memory_probe.h"
#include "bi/kernel/pages.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// Younger than some C libraries' headers.

// Written while the process has one thread, see remember_application_path.
char application_path[PATH_MAX];

// Long enough for the longest name of the executable.
constexpr std::size_t NAME_SIZE = 64;

bool resolve_application_path(char* resolved) { return realpath(engine.argv[0], resolved) != nullptr; }

// Copies a path of the application's. False if it is longer than any name of the executable or cannot be read.
bool copy_path(std::uint64_t address, char (&name)[NAME_SIZE]) {
  if (address == 0 || !is_page_readable(address)) return false;
  for (std::size_t index = 0; index < NAME_SIZE; ++index) {
    const std::uint64_t place = address + index;
    if (page_down(place, page_size()) == place && !is_page_readable(place)) return false;
    name[index] = *reinterpret_cast<const char*>(place);
    if (name[index] == '\0') return true;
  }
  return false;
}

// Takes `component` and the slashes behind it off the front of `*path`. A component ends at a slash or at the path's
// end.
bool take_component(const char** path, const char* component) {
  const std::size_t length = std::strlen(component);
  if (std::strncmp(*path, component, length) != 0) return false;
  const char* rest = *path + length;
  if (*rest != '/' && *rest != '\0') return false;
  while (*rest == '/') ++rest;
  *path = rest;
  return true;
}

// Whether the process is this one's parent and runs under the engine as well: a child runs its parent's application
// until it executes another program.
bool is_parent_under_engine(std::uint64_t id) {
  if (id != static_cast<std::uint64_t>(getppid())) return false;
  char name[NAME_SIZE];
  std::snprintf(name, sizeof name, "/proc/%lu/exe", static_cast<unsigned long>(id));
  struct stat own {};
  struct stat other {};
  return stat("/proc/self/exe", &own) == 0 && stat(name, &other) == 0 && own.st_dev == other.st_dev &&
         own.st_ino == other.st_ino;
}

// Takes a component that is the id of a thread of this process, or of its parent if that is the same application. The
// process's own id is that of its first thread.
bool take_thread_id(const char** path) {
  const char* rest = *path;
  std::uint64_t id = 0;
  constexpr std::uint64_t longest_id = 0x7fffffff;
  while (*rest >= '0' && *rest <= '9' && id <= longest_id) id = id * 10 + static_cast<std::uint64_t>(*rest++ - '0');
  if (rest == *path || id > longest_id || (*rest != '/' && *rest != '\0')) return false;
  const auto process = static_cast<std::uint64_t>(getpid());
  constexpr std::uint64_t no_signal = 0;
  const bool is_own = id == process || raw_syscall(SYS_tgkill, process, id, no_signal) == 0;
  if (!is_own && !is_parent_under_engine(id)) return false;
  while (*rest == '/') ++rest;
  *path = rest;
  return true;
}

// /proc/self/exe, with thread-self or an id of the process for self, and the same below task/ID.
bool is_executable_name(const char* path) {
  if (*path != '/') return false;
  while (*path == '/') ++path;
  if (!take_component(&path, "proc")) return false;
  if (!take_component(&path, "self") && !take_component(&path, "thread-self") && !take_thread_id(&path)) return false;
  if (take_component(&path, "task") && !take_thread_id(&path)) return false;
  return std::strcmp(path, "exe") == 0;
}

bool names_executable(std::uint64_t path) {
  char name[NAME_SIZE];
  return copy_path(path, name) && is_executable_name(name);
}

// openat2 has its flags in a record: the flags of an open, the mode, and how the path is to be resolved. A call that
// restricts the resolution is the kernel's to judge.
bool opens_plainly(std::uint64_t record) {
  constexpr std::uint64_t resolve_offset = 16;
  std::uint64_t flags = 0;
  std::uint64_t resolve = 0;
  return read_word(record, &flags) && read_word(record + resolve_offset, &resolve) && resolve == 0 &&
         (flags & O_NOFOLLOW) == 0;
}

}  // namespace

void remember_application_path() {
  if (application_path[0] == '\0' && !resolve_application_path(application_path)) application_path[0] = '\0';
}

std::int64_t readlink_handler(const char* path, char* buffer, std::uint64_t size) {
  // A size that the kernel refuses is left to it.
  if (static_cast<std::int32_t>(size) <= 0 || !names_executable(address_of(path))) return -1;
  char resolved[PATH_MAX];
  const char* application = application_path;
  if (application[0] == '\0') {
    if (!resolve_application_path(resolved)) return -1;
    application = resolved;
  }
  const auto length = std::min<std::uint64_t>(std::strlen(application), static_cast<std::uint32_t>(size));
  // Like the kernel, this writes no terminator and nothing behind the path. The kernel reports memory that
  // cannot be written. checked_copy replaces the action of SIGSEGV for its time; the lock keeps a fork from copying
  // that.
  owned_lock_take(&engine.signal_handlers_lock);
  const int failure = checked_copy(buffer, application, length);
  owned_lock_leave(&engine.signal_handlers_lock);
  return failure == 0 ? static_cast<std::int64_t>(length) : -1;
}

void replace_executable_path(thread_data* thread, std::uint64_t number, std::uint64_t* args) {
  const auto* place = std::find_if(std::begin(path_places), std::end(path_places),
                                   [number](const path_place& candidate) { return candidate.number == number; });
  if (place == std::end(path_places) || application_path[0] == '\0') return;
  if (place->flags != NO_FLAGS && (args[place->flags] & place->means_link) != 0) return;
  if (!names_executable(args[place->path]) || (number == SYS_OPENAT2 && !opens_plainly(args[2]))) return;
  thread->replaced_original = args[place->path];
  thread->replaced_argument = place->path + 1;
  args[place->path] = address_of(application_path);
}

}  // namespace ceilmeter
