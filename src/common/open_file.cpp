// The folder is held by a descriptor, so that test and open mean the same one.
#include "common/open_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ceilmeter {

namespace {

// A folder, and the name of the file in it.
struct place {
  int folder;  // -1: it cannot be opened.
  std::string name;
  struct stat status;

  explicit place(const std::string& path) : folder(-1), status{} {
    const std::size_t slash = path.rfind('/');
    const std::string folder_path = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    folder = open(folder_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0 && fstat(folder, &status) != 0) status = {};
  }
  ~place() {
    if (folder >= 0) close(folder);
  }
  place(const place&) = delete;
  place& operator=(const place&) = delete;

  // Everybody may add a name to it, but may not take away those of others.
  bool is_shared() const { return folder >= 0 && (status.st_mode & S_ISVTX) != 0 && (status.st_mode & S_IWOTH) != 0; }

  bool has_foreign_link() const {
    struct stat link {};
    if (fstatat(folder, name.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(link.st_mode)) return false;
    return link.st_uid != geteuid() && link.st_uid != status.st_uid;
  }
};

}  // namespace

bool is_foreign_link(const std::string& path) {
  const place where(path);
  return where.is_shared() && where.has_foreign_link();
}

int open_unless_foreign_link(const std::string& path, int flags, unsigned mode) {
  const place where(path);
  if (!where.is_shared()) return open(path.c_str(), flags, mode);
  const int fd = openat(where.folder, where.name.c_str(), flags | O_NOFOLLOW, mode);
  if (fd >= 0 || errno != ELOOP) return fd;
  if (where.has_foreign_link()) {
    errno = EACCES;
    return -1;
  }
  // The user's own link, or the folder owner's: in a sticky folder nobody else can put another in its place.
  return openat(where.folder, where.name.c_str(), flags, mode);
}

}  // namespace ceilmeter
