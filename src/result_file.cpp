// The file is written in place, because other names, an owner or a mode of it are the user's. A new file that is
// renamed would lose them.
#include "result_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/open_file.h"

namespace ceilmeter {

namespace {

constexpr unsigned new_file_mode = 0666;
constexpr unsigned copy_mode = 0600;
constexpr int copies_of_one_process = 100;

struct file_closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_owner = std::unique_ptr<std::FILE, file_closer>;

struct counted_text {
  off_t length;
  std::array<char, 4096> piece;
};

// vsnprintf formats into a buffer of some size much faster than into none.
[[gnu::format(printf, 2, 3)]] int count_piece(void* context, const char* format, ...) {
  auto* text = static_cast<counted_text*>(context);
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vsnprintf(text->piece.data(), text->piece.size(), format, arguments);
  va_end(arguments);
  if (printed > 0) text->length += printed;
  return printed;
}

struct written_text {
  std::FILE* file;
  off_t length;
  int error;  // The first errno; 0: none so far.
};

[[gnu::format(printf, 2, 3)]] int write_piece(void* context, const char* format, ...) {
  auto* text = static_cast<written_text*>(context);
  if (text->error != 0) return -1;
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vfprintf(text->file, format, arguments);
  if (printed < 0) text->error = errno;
  va_end(arguments);
  if (printed > 0) text->length += printed;
  return printed;
}

// Everything is on its way to the disk, and the file system has said that it has room. Network file systems say so only
// here. What cannot be synchronised, such as a pipe, has nothing to say.
bool is_safe(int fd) { return fsync(fd) == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP; }

// Writes the text from the descriptor's position on. The length of the text, or -1 with errno set.
off_t write_text(int fd, const json_token& root) {
  const int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) return -1;
  const file_owner file(fdopen(own, "w"));
  if (file == nullptr) {
    const int cause = errno;
    close(own);
    errno = cause;
    return -1;
  }
  written_text text{file.get(), 0, 0};
  json_print(&root, write_piece, &text);
  if (text.error == 0 && std::fflush(file.get()) != 0) text.error = errno;
  if (text.error == 0 && !is_safe(fd)) text.error = errno;
  errno = text.error;
  return text.error == 0 ? text.length : -1;
}

// What the file holds, as far as it can be read.
std::string content_of(int fd, off_t size) {
  std::string content(static_cast<std::size_t>(size), '\0');
  std::size_t filled = 0;
  while (filled < content.size()) {
    const ssize_t got = pread(fd, content.data() + filled, content.size() - filled, static_cast<off_t>(filled));
    if (got <= 0) break;
    filled += static_cast<std::size_t>(got);
  }
  content.resize(filled);
  return content;
}

// Keeps errno. There is nothing left to do where even this fails.
void put_back(int fd, const std::string& content, off_t size) {
  const int cause = errno;
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t written = pwrite(fd, content.data() + done, content.size() - done, static_cast<off_t>(done));
    if (written <= 0) break;
    done += static_cast<std::size_t>(written);
  }
  [[maybe_unused]] const int result = ftruncate(fd, size);
  errno = cause;
}

// Reserves the room for `size` bytes. The content stays as it is; after a failure so does the size.
bool reserve(int fd, off_t old_size, off_t size) {
  if (size <= old_size) return true;
  const int error = posix_fallocate(fd, 0, size);
  // A file system that cannot reserve anything still has the old content put back.
  if (error == EOPNOTSUPP || error == EINVAL) return true;
  if (error == 0 && is_safe(fd)) return true;
  if (error != 0) errno = error;
  put_back(fd, {}, old_size);
  return false;
}

bool replace_regular(int fd, off_t old_size, const json_token& root) {
  counted_text counted{0, {}};
  json_print(&root, count_piece, &counted);
  const std::string earlier = content_of(fd, old_size);
  if (!reserve(fd, old_size, counted.length)) return false;
  const off_t length = write_text(fd, root);
  if (length >= 0 && ftruncate(fd, length) == 0) return true;
  put_back(fd, earlier, old_size);
  return false;
}

bool is_link(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

}  // namespace

bool replace_content(const std::string& path, const json_token& root) {
  bool is_new = false;
  int fd = open_unless_foreign_link(path, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0 && errno == ENOENT) {
    is_new = !is_link(path);  // A link that leads nowhere as yet stays where it is.
    fd = open_unless_foreign_link(path, O_RDWR | O_CREAT | O_CLOEXEC, new_file_mode);
  }
  if (fd < 0) return false;
  struct stat status {};
  const bool is_regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  bool done = is_regular ? replace_regular(fd, status.st_size, root) : write_text(fd, root) >= 0;
  int cause = errno;
  if (close(fd) != 0 && done) {
    done = false;
    cause = errno;
  }
  if (!done && is_new) unlink(path.c_str());
  errno = cause;
  return done;
}

std::string save_copy(const std::vector<std::string>& folders, const json_token& root) {
  for (const std::string& folder : folders) {
    if (folder.empty()) continue;
    for (int number = 0; number < copies_of_one_process; ++number) {
      std::string path = folder + "/ceilmeter." + std::to_string(getpid());
      if (number != 0) path.append(".").append(std::to_string(number));
      path += ".roofline.json";
      const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, copy_mode);
      // Another process of this number, on another machine or of an earlier day.
      if (fd < 0 && errno == EEXIST) continue;
      if (fd < 0) break;
      const bool done = write_text(fd, root) >= 0;
      if (close(fd) == 0 && done) return path;
      unlink(path.c_str());
      break;
    }
  }
  return {};
}

}  // namespace ceilmeter
