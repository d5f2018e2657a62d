#include "bi/kernel/module_name.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace ceilmeter {

namespace {

// A longer line, of a file with a long path, is cut.
constexpr std::size_t LINE_SIZE = 512;

struct line_reader {
  int fd;
  ssize_t at;
  ssize_t end;
  char buffer[LINE_SIZE];
  char line[LINE_SIZE];
};

// False at the end of the file. A signal without SA_RESTART can interrupt no read of this file: it never waits.
bool next_byte(line_reader* reader, char* byte) {
  if (reader->at == reader->end) {
    reader->at = 0;
    reader->end = read(reader->fd, reader->buffer, sizeof reader->buffer);
    if (reader->end <= 0) return false;
  }
  *byte = reader->buffer[reader->at++];
  return true;
}

bool read_line(line_reader* reader) {
  std::size_t length = 0;
  char next = 0;
  while (next_byte(reader, &next)) {
    if (next == '\n') {
      reader->line[length] = '\0';
      return true;
    }
    if (length < LINE_SIZE - 1) reader->line[length++] = next;
  }
  return false;
}

// Reads the number, and steps over it and the character behind it. By hand: sscanf may allocate.
std::uint64_t take_hex(const char** text) {
  std::uint64_t value = 0;
  for (;; ++*text) {
    const char digit = **text;
    if (digit >= '0' && digit <= '9') {
      value = value << 4 | static_cast<std::uint64_t>(digit - '0');
    } else if (digit >= 'a' && digit <= 'f') {
      value = value << 4 | static_cast<std::uint64_t>(digit - 'a' + 10);
    } else {
      break;
    }
  }
  if (**text != '\0') ++*text;
  return value;
}

// Steps over a word and the blanks behind it.
const char* after_word(const char* text) {
  text += std::strcspn(text, " ");
  return text + std::strspn(text, " ");
}

// If `address` lies in the mapping of `line`, names it. A line of /proc/self/maps is
// "BEGIN-END PERMISSIONS OFFSET DEVICE INODE  PATH".
bool name_if_in_line(std::uint64_t address, const char* line, char* name, std::size_t size) {
  const std::uint64_t begin = take_hex(&line);
  const std::uint64_t end = take_hex(&line);
  if (address < begin || address >= end) return false;
  line = after_word(line);
  const std::uint64_t offset = take_hex(&line);
  const char* path = after_word(after_word(line));
  if (*path == '/') {
    std::snprintf(name, size, "%s+0x%lx", path, address - begin + offset);
  } else {
    std::snprintf(name, size, "%s+0x%lx", *path != '\0' ? path : "[anonymous]", address - begin);
  }
  return true;
}

}  // namespace

void name_module(std::uint64_t address, char* name, std::size_t size) {
  std::snprintf(name, size, "nowhere");
  line_reader reader;
  reader.at = 0;
  reader.end = 0;
  reader.fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (reader.fd < 0) return;
  while (read_line(&reader) && !name_if_in_line(address, reader.line, name, size)) {
  }
  close(reader.fd);
}

}  // namespace ceilmeter
