// Opening files whose names others can foresee: the log, the result, a copy of it.
#pragma once

#include <string>

namespace ceilmeter {

// True if `path` names a symbolic link in a sticky folder that everybody may write to, and the link belongs neither to
// this process's user nor to the folder's owner. Such a link may have been put there to make the tool write over the
// user's own files. The kernel's fs.protected_symlinks is the same rule, but it can be off, and it does not see a path
// that somebody has resolved before.
bool is_foreign_link(const std::string& path);

// open(2), which fails with EACCES for a foreign link, also for one that appears between test and call. `flags` may
// hold O_CREAT and O_TRUNC: nothing behind a foreign link is made or cut.
int open_unless_foreign_link(const std::string& path, int flags, unsigned mode);

}  // namespace ceilmeter
