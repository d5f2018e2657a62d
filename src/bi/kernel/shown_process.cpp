// The kernel takes all the places of a process's memory map at once, or none. Those that stay the tool's, code, data
// and heap, are the ones that it tells in /proc/self/stat: its heap goes on to be the one that brk moves.
#include "bi/kernel/shown_process.h"

#include <fcntl.h>
#include <linux/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "bi/code/stubs.h"
#include "bi/mora.h"

namespace ceilmeter {

namespace {

// Fields of /proc/self/stat, counted from 1. The second one is a name in parentheses, which may hold anything.
enum stat_field : int {
  SIZE = 23,
  START_CODE = 26,
  END_CODE = 27,
  START_DATA = 45,
  END_DATA = 46,
  START_BRK = 47,
  FIELDS = 52
};

struct stat_fields {
  std::uint64_t values[FIELDS + 1];
};

// False if the file cannot be read or has fewer fields.
bool read_stat(stat_fields* fields) {
  char text[2048];  // The fields are numbers, and the name has 15 characters at most.
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  if (size <= 0) return false;
  text[size] = '\0';
  const char* place = std::strrchr(text, ')');
  if (place == nullptr) return false;
  place += 3;  // Behind the third field, which is a letter.
  for (int field = 4; field <= FIELDS; ++field) {
    char* end = nullptr;
    fields->values[field] = std::strtoull(place, &end, 10);
    if (end == place) return false;
    place = end;
  }
  return true;
}

// As the kernel names a process that executes the file.
void take_name(const char* path) {
  const char* slash = std::strrchr(path, '/');
  raw_syscall(SYS_prctl, PR_SET_NAME, reinterpret_cast<std::uint64_t>(slash != nullptr ? slash + 1 : path));
}

}  // namespace

void show_application(const shown_process& shown) {
  take_name(shown.path);
  stat_fields fields{};
  if (!read_stat(&fields)) return;
  engine.first_size = fields.values[SIZE];
  prctl_mm_map map{};
  map.start_code = fields.values[START_CODE];
  map.end_code = fields.values[END_CODE];
  map.start_data = fields.values[START_DATA];
  map.end_data = fields.values[END_DATA];
  map.start_brk = fields.values[START_BRK];
  map.brk = static_cast<std::uint64_t>(raw_syscall(SYS_brk, 0));
  map.start_stack = shown.stack;
  map.arg_start = shown.arguments;
  map.arg_end = shown.environment;
  map.env_start = shown.environment;
  map.env_end = shown.environment_end;
  map.auxv = reinterpret_cast<__u64*>(shown.vector);  // The kernel copies it.
  map.auxv_size = static_cast<__u32>(shown.vector_size);
  map.exe_fd = static_cast<__u32>(-1);  // Stays: executable_path.h answers for it.
  raw_syscall(SYS_prctl, PR_SET_MM, PR_SET_MM_MAP, reinterpret_cast<std::uint64_t>(&map), sizeof map);
}

}  // namespace ceilmeter
