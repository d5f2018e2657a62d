#include "perf_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <utility>

namespace ceilmeter {

namespace {

struct closes_stream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using stream_owner = std::unique_ptr<std::FILE, closes_stream>;

// Null if the file is not there or not the user's own. The descriptor is looked at, not the path, which may come to
// mean another file in between. Without waiting: the path may be that of a FIFO.
stream_owner open_own_file(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat status {};
  const bool is_own = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid();
  std::FILE* stream = is_own ? fdopen(fd, "r") : nullptr;
  if (stream == nullptr) close(fd);
  return stream_owner(stream);
}

struct frees {
  void operator()(char* text) const { std::free(text); }
};

// The result file has its texts as they are, without escapes. A quote, a backslash or a control character would break
// it, and bytes beyond ASCII might be no text.
bool breaks_text(unsigned char one) { return one < ' ' || one > '~' || one == '"' || one == '\\'; }

std::string clean_name(const char* text) {
  constexpr std::size_t longest = 512;
  std::string name(text);
  while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
  if (name.size() > longest) name.resize(longest);
  std::replace_if(name.begin(), name.end(), breaks_text, '?');
  return name;
}

}  // namespace

std::string perf_map::path_of(int process) { return "/tmp/perf-" + std::to_string(process) + ".map"; }

perf_map perf_map::read(const std::string& path) {
  perf_map names;
  const stream_owner stream = open_own_file(path);
  if (stream == nullptr) return names;
  char* buffer = nullptr;
  std::size_t room = 0;
  while (getline(&buffer, &room, stream.get()) > 0) {
    char* rest = nullptr;
    const std::uint64_t start = std::strtoull(buffer, &rest, 16);
    if (rest == buffer || *rest != ' ') continue;
    char* size_text = rest + 1;
    const std::uint64_t size = std::strtoull(size_text, &rest, 16);
    if (rest == size_text || *rest != ' ' || size == 0 || start + size < start) continue;
    std::string name = clean_name(rest + 1);
    if (!name.empty()) names.add(start, start + size, std::move(name));
  }
  const std::unique_ptr<char, frees> line(buffer);
  return names;
}

void perf_map::add(std::uint64_t start, std::uint64_t end, std::string name) {
  auto it = functions.upper_bound(start);
  if (it != functions.begin() && std::prev(it)->second.end > start) --it;
  while (it != functions.end() && it->first < end) it = functions.erase(it);
  functions.emplace_hint(it, start, function{end, std::move(name)});
}

std::string perf_map::name_at(std::uint64_t address) const {
  const auto it = functions.upper_bound(address);
  if (it == functions.begin()) return {};
  const function& found = std::prev(it)->second;
  return address < found.end ? found.name : std::string();
}

}  // namespace ceilmeter
