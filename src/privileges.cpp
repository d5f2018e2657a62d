// The bounding set and the inheritable set stay: they are the caller's own, and a program that the application starts
// has them natively as well.
#include "privileges.h"

#include <elf.h>
#include <linux/capability.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace ceilmeter {

namespace {

// CAP_PERFMON is 38, which headers before Linux 5.8 do not have. Kernels that know a perf_event_paranoid of 3 may ask
// for CAP_SYS_ADMIN.
constexpr std::uint64_t counting_capabilities = std::uint64_t{1} << 38 | std::uint64_t{1} << CAP_SYS_ADMIN;

// The form in which the kernel takes capabilities: the lower 32, then the upper.
using capability_words = std::array<__user_cap_data_struct, 2>;

__user_cap_header_struct header_of_this_thread() { return {_LINUX_CAPABILITY_VERSION_3, 0}; }

bool read_capabilities(capability_words& words) {
  __user_cap_header_struct header = header_of_this_thread();
  return syscall(SYS_capget, &header, words.data()) == 0;
}

// Leaves only the capabilities `kept` permitted, and only `used` of them in effect.
bool restrict_capabilities(std::uint64_t kept, std::uint64_t used) {
  capability_words words{};
  if (!read_capabilities(words)) return false;
  const auto restrict_word = [](__user_cap_data_struct& word, std::uint64_t kept_bits, std::uint64_t used_bits) {
    word.permitted &= static_cast<std::uint32_t>(kept_bits);
    word.effective = word.permitted & static_cast<std::uint32_t>(used_bits);
  };
  restrict_word(words[0], kept, used);
  restrict_word(words[1], kept >> 32, used >> 32);
  __user_cap_header_struct header = header_of_this_thread();
  return syscall(SYS_capset, &header, words.data()) == 0;
}

bool take_callers_identity() {
  const uid_t user = getuid();
  const gid_t group = getgid();
  // The group first: the user's change may take away the right to it. KEEPCAPS lets the counting right outlive it.
  if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) return false;
  const bool done = setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
  prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0);
  return done;
}

// Kernel and loader say so of every process whose file has lent it something.
bool is_privileged_start() {
  static const bool result = getauxval(AT_SECURE) != 0;
  return result;
}

}  // namespace

bool keep_counting_privilege_alone() {
  if (!is_privileged_start()) return true;
  if (!take_callers_identity()) return false;
  if (getuid() == 0) return true;  // Root's capabilities are its own.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  return restrict_capabilities(counting_capabilities, 0);
}

void use_counting_privilege() {
  // Without them the counters are refused, which is told there.
  if (is_privileged_start() && getuid() != 0) restrict_capabilities(counting_capabilities, counting_capabilities);
}

bool give_up_privileges() {
  static bool is_done = false;
  if (is_done || !is_privileged_start()) return true;
  if (getuid() != 0 && !restrict_capabilities(0, 0)) return false;
  // The kernel keeps a privileged process from debuggers and core dumps. There is nothing to protect any more.
  prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
  is_done = true;
  return true;
}

void hide_privileged_start(char** envp) {
  if (!is_privileged_start()) return;
  char** end = envp;
  while (*end != nullptr) ++end;
  for (auto* entry = reinterpret_cast<Elf64_auxv_t*>(end + 1); entry->a_type != AT_NULL; ++entry) {
    if (entry->a_type == AT_SECURE) entry->a_un.a_val = 0;
    if (entry->a_type == AT_EUID) entry->a_un.a_val = getuid();
    if (entry->a_type == AT_EGID) entry->a_un.a_val = getgid();
  }
}

std::string rights_lent_by(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  if ((status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid()) return "the set-user-ID bit";
  // Without the right to execute for the group the bit has another meaning.
  if ((status.st_mode & (S_ISGID | S_IXGRP)) == (S_ISGID | S_IXGRP) && status.st_gid != getegid()) {
    return "the set-group-ID bit";
  }
  if (geteuid() != 0 && getxattr(path.c_str(), "security.capability", nullptr, 0) > 0) return "file capabilities";
  return {};
}

}  // namespace ceilmeter
