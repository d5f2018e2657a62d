// What the application reads as the path of its executable.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bi/kernel/executable_path.h"
#include "bi/code/stubs.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

class readlink_handler_test : public syscalls_test {
 protected:
  readlink_handler_test() { engine.argv = arguments; }

  std::string read(const char* path, std::uint64_t size = sizeof buffer) {
    std::memset(buffer, '#', sizeof buffer);
    length = readlink_handler(path, buffer, size);
    return length < 0 ? "" : std::string(buffer, static_cast<std::size_t>(length));
  }

  char path_text[32] = "/proc/../bin/../bin/sh";
  char* arguments[2] = {path_text, nullptr};
  char buffer[256];
  std::int64_t length = 0;
};

std::string real_shell() {
  char resolved[4096];
  return realpath("/bin/sh", resolved);
}

TEST_F(readlink_handler_test, the_three_names_of_the_executable_give_the_resolved_path_of_the_application) {
  const std::string own = "/proc/" + std::to_string(getpid()) + "/exe";
  for (const std::string& path : {std::string("/proc/self/exe"), std::string("/proc/thread-self/exe"), own}) {
    EXPECT_EQ(read(path.c_str()), real_shell()) << path;
  }
}

TEST_F(readlink_handler_test, any_other_path_is_left_to_the_kernel) {
  const std::string other = "/proc/" + std::to_string(getppid()) + "/exe";
  for (const char* path : {"/proc/self/ex", "/proc/self/exe2", "/proc/self/cwd", "/usr", "", "exe", other.c_str()}) {
    read(path);
    EXPECT_EQ(length, -1) << path;
  }
}

TEST_F(readlink_handler_test, a_path_that_cannot_be_read_is_left_to_the_kernel) {
  EXPECT_EQ(readlink_handler(nullptr, buffer, sizeof buffer), -1);
  EXPECT_EQ(readlink_handler(reinterpret_cast<const char*>(8), buffer, sizeof buffer), -1);
}

TEST_F(readlink_handler_test, a_short_path_at_the_end_of_readable_memory_is_left_to_the_kernel) {
  const std::uint64_t page = fake.page;
  auto* pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(pages + page, page, PROT_NONE);
  char* path = pages + page - 5;
  std::memcpy(path, "/usr", 5);
  EXPECT_EQ(readlink_handler(path, buffer, sizeof buffer), -1);
  munmap(pages, 2 * page);
}

TEST_F(readlink_handler_test, a_small_buffer_gets_the_paths_beginning_and_nothing_is_written_behind_it) {
  EXPECT_EQ(read("/proc/self/exe", 4), real_shell().substr(0, 4));
  EXPECT_EQ(length, 4);
  EXPECT_EQ(buffer[4], '#');
}

TEST_F(readlink_handler_test, the_path_has_no_terminator) {
  const std::string path = read("/proc/self/exe");
  EXPECT_EQ(buffer[path.size()], '#');
}

TEST_F(readlink_handler_test, a_size_that_the_kernel_refuses_is_left_to_it) {
  EXPECT_EQ(readlink_handler("/proc/self/exe", buffer, 0), -1);
  EXPECT_EQ(readlink_handler("/proc/self/exe", buffer, 0xffffffffu), -1);
}

TEST_F(readlink_handler_test, a_buffer_that_cannot_be_written_is_left_to_the_kernel_which_says_so) {
  const std::uint64_t page = fake.page;
  auto* pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(pages + page, page, PROT_READ);
  EXPECT_EQ(readlink_handler("/proc/self/exe", pages + page, 100), -1);
  EXPECT_EQ(readlink_handler("/proc/self/exe", pages + page - 2, 100), -1);
  EXPECT_EQ(readlink_handler("/proc/self/exe", nullptr, 100), -1);
  EXPECT_TRUE(owned_lock_try(&engine.signal_handlers_lock));
  owned_lock_leave(&engine.signal_handlers_lock);
  munmap(pages, 2 * page);
}

TEST_F(readlink_handler_test, the_system_call_is_made_for_other_paths_only) {
  EXPECT_EQ(handled(SYS_readlinkat, {static_cast<std::uint64_t>(AT_FDCWD), address_of("/proc/self/exe"),
                                     address_of(buffer), sizeof buffer}),
            static_cast<std::int64_t>(real_shell().size()));
  expect_made(SYS_readlinkat,
              {static_cast<std::uint64_t>(AT_FDCWD), address_of("/bin/sh"), address_of(buffer), sizeof buffer});
}

TEST_F(readlink_handler_test, a_thread_of_the_process_and_its_task_folder_name_the_executable_too) {
  const std::string process = std::to_string(getpid());
  const std::string id = std::to_string(gettid());
  for (const std::string& path : {"/proc/self/task/" + id + "/exe", "/proc/" + process + "/task/" + id + "/exe",
                                  std::string("//proc//self///exe"), "/proc/" + id + "/exe"}) {
    EXPECT_EQ(read(path.c_str()), real_shell()) << path;
  }
}

// What a call is made with when the application gives it `path`. Runs in a child, because the process remembers the
// path.
class executable_path_test : public readlink_handler_test {
 protected:
  static constexpr std::uint64_t here = static_cast<std::uint64_t>(AT_FDCWD);

  // Runs the check in a child that has remembered the application's path.
  template <typename check>
  static void in_child(const check& holds) {
    const pid_t child = fork();
    if (child == 0) {
      remember_application_path();
      _exit(holds() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }

  // Whether the kernel gets the application's path as argument `index`, and the application its own argument back.
  bool is_replaced(std::uint64_t number, std::vector<std::uint64_t> values, std::size_t index) {
    const std::uint64_t original = values[index];
    if (syscall_handler_pre(number, with_args(values), next_inst, thread) != 1) return false;
    const bool replaced = args[index] != original && real_shell() == reinterpret_cast<const char*>(args[index]);
    const bool result_takes_the_place = index == 0;
    if (result_takes_the_place) args[0] = 5;
    syscall_handler_post(number, args, next_inst, thread);
    return replaced && args[index] == (result_takes_the_place ? 5 : original);
  }

  const std::uint64_t name = address_of("/proc/self/exe");
};

TEST_F(executable_path_test, calls_that_follow_the_link_mean_the_applications_file) {
  in_child([&] { return is_replaced(SYS_execve, {name, 0, 0}, 0); });
  in_child([&] { return is_replaced(SYS_execveat, {here, name, 0, 0, 0}, 1); });
  in_child([&] { return is_replaced(SYS_openat, {here, name, O_RDONLY}, 1); });
  in_child([&] { return is_replaced(SYS_newfstatat, {here, name, 0, 0}, 1); });
  in_child([&] { return is_replaced(SYS_statx, {here, name, 0, 0, 0}, 1); });
  in_child([&] { return is_replaced(SYS_faccessat, {here, name, 0}, 1); });
  in_child([&] { return is_replaced(SYS_statfs, {name, 0}, 0); });
}

TEST_F(executable_path_test, an_open_by_record_means_the_file_unless_the_record_restricts_it) {
  constexpr std::uint64_t openat2 = 437;
  static std::uint64_t how[3];
  in_child([&] { return is_replaced(openat2, {here, name, address_of(how), sizeof how}, 1); });
  in_child([&] {
    how[2] = 4;  // RESOLVE_NO_SYMLINKS
    return !is_replaced(openat2, {here, name, address_of(how), sizeof how}, 1);
  });
  in_child([&] { return !is_replaced(openat2, {here, name, 8, sizeof how}, 1); });
}

TEST_F(executable_path_test, a_call_that_asks_for_the_link_keeps_its_path) {
  in_child([&] { return !is_replaced(SYS_openat, {here, name, O_PATH | O_NOFOLLOW}, 1); });
  in_child([&] { return !is_replaced(SYS_newfstatat, {here, name, 0, AT_SYMLINK_NOFOLLOW}, 1); });
  in_child([&] { return !is_replaced(SYS_statx, {here, name, AT_SYMLINK_NOFOLLOW, 0, 0}, 1); });
}

TEST_F(executable_path_test, other_paths_and_bad_ones_stay) {
  in_child([&] { return !is_replaced(SYS_openat, {here, address_of("/proc/self/exe2"), O_RDONLY}, 1); });
  in_child([&] { return !is_replaced(SYS_openat, {here, address_of("/proc/1/exe"), O_RDONLY}, 1); });
  in_child([&] { return !is_replaced(SYS_openat, {here, 8, O_RDONLY}, 1); });
}

// Runs in a child of its own, because a process keeps the path that it has remembered.
TEST_F(readlink_handler_test, the_path_is_that_of_the_start_however_the_application_moves) {
  const pid_t child = fork();
  if (child == 0) {
    if (chdir("/bin") != 0) _exit(2);
    std::strcpy(path_text, "./sh");
    remember_application_path();
    if (chdir("/") != 0) _exit(3);
    _exit(read("/proc/self/exe") == real_shell() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ceilmeter::test
