#include "view/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace ceilmeter::view {

namespace {

constexpr mode_t permission_bits = 07777;

std::string reason() { return std::strerror(errno); }

bool status_of(const std::string& path, int standard, struct stat& status) {
  return path == "-" ? fstat(standard, &status) == 0 : stat(path.c_str(), &status) == 0;
}

bool write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// The mode of a file that is made anew. The mask can only be read by setting it.
mode_t new_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

std::string write_in_place(const std::string& path, std::string_view text) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) return reason();
  const bool good = write_all(descriptor, text);
  std::string error = good ? "" : reason();
  if (close(descriptor) != 0 && good) error = reason();
  return error;
}

// `path` does not exist or is a regular file.
std::string replace_file(const std::string& path, std::string_view text, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) return reason();
  bool good = write_all(descriptor, text) && fchmod(descriptor, mode) == 0;
  int error = errno;
  // Some file systems tell only here that there was no room.
  if (close(descriptor) != 0 && good) {
    good = false;
    error = errno;
  }
  if (good && rename(temporary.c_str(), path.c_str()) != 0) {
    good = false;
    error = errno;
  }
  if (good) return {};
  unlink(temporary.c_str());
  errno = error;
  return reason();
}

}  // namespace

std::string input_that_is_output(const std::string& output, const std::vector<std::string>& inputs) {
  struct stat written {};
  if (!status_of(output, STDOUT_FILENO, written) || !S_ISREG(written.st_mode)) return {};
  for (const std::string& input : inputs) {
    struct stat read {};
    if (!status_of(input, STDIN_FILENO, read)) continue;
    if (read.st_dev == written.st_dev && read.st_ino == written.st_ino) return input;
  }
  return {};
}

std::string write_output(const std::string& path, std::string_view text) {
  if (path == "-") return write_all(STDOUT_FILENO, text) ? "" : reason();
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    // A link to nothing is replaced by the file: where its target would be made cannot be told for sure.
    if (errno != ENOENT) return reason();
    return replace_file(path, text, new_file_mode());
  }
  if (S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
  if (!S_ISREG(status.st_mode)) return write_in_place(path, text);
  if (access(path.c_str(), W_OK) != 0) return reason();
  const std::unique_ptr<char, void (*)(void*)> target(realpath(path.c_str(), nullptr), std::free);
  if (target == nullptr) return reason();
  return replace_file(target.get(), text, status.st_mode & permission_bits);
}

}  // namespace ceilmeter::view
