#include "common/own_descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace ceilmeter::test {
namespace {

int first_expected() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur / 2, 1024));
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

TEST(own_descriptor, has_a_high_number_and_is_closed_on_exec) {
  const int first = first_expected();
  const int fd = open("/dev/null", O_RDONLY);
  const int copy = duplicate_out_of_the_way(fd);
  EXPECT_GE(copy, first);
  EXPECT_EQ(fcntl(copy, F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE(is_open(fd));
  close(copy);
  close(fd);
}

TEST(own_descriptor, that_was_moved_gives_its_number_back) {
  const int fd = open("/dev/null", O_RDONLY);
  const int moved = move_out_of_the_way(fd);
  EXPECT_NE(moved, fd);
  EXPECT_FALSE(is_open(fd));
  const int next = open("/dev/null", O_RDONLY);
  EXPECT_EQ(next, fd);
  close(next);
  close(moved);
}

TEST(own_descriptor, that_is_not_open_stays_an_error) {
  EXPECT_EQ(duplicate_out_of_the_way(-1), -1);
  EXPECT_EQ(errno, EBADF);
  errno = EACCES;
  EXPECT_EQ(move_out_of_the_way(-1), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST(own_descriptor, leaves_the_standard_streams_numbers_alone) {
  const int fd = open("/dev/null", O_RDONLY);
  close(duplicate_out_of_the_way(fd));
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  rlimit low = usual;
  low.rlim_cur = 64;
  setrlimit(RLIMIT_NOFILE, &low);
  const int copy = duplicate_out_of_the_way(fd);
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_GT(copy, STDERR_FILENO);
  if (input >= 0) dup2(input, STDIN_FILENO);
  for (const int open_one : {copy, input, fd}) close(open_one);
}

// The application may lower its limit at any time.
TEST(own_descriptor, takes_a_low_number_where_the_limit_leaves_no_other) {
  const int fd = open("/dev/null", O_RDONLY);
  close(duplicate_out_of_the_way(fd));
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  rlimit low = usual;
  low.rlim_cur = static_cast<rlim_t>(first_expected()) / 2;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const int copy = duplicate_out_of_the_way(fd);
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_GT(copy, fd);
  EXPECT_LT(copy, static_cast<int>(low.rlim_cur));
  close(copy);
  close(fd);
}

}  // namespace
}  // namespace ceilmeter::test
