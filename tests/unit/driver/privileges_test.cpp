// What is said of a program's file before it runs under the tracer.
#include "privileges.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace ceilmeter::test {
namespace {

class rights_of_a_file : public testing::Test {
 protected:
  rights_of_a_file() {
    char name[] = "/tmp/rights_of_a_file.XXXXXX";
    const int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    close(fd);
    path = name;
  }
  ~rights_of_a_file() override { std::remove(path.c_str()); }

  std::string path;
};

TEST_F(rights_of_a_file, are_none_for_an_ordinary_program_or_one_that_is_not_there) {
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  EXPECT_EQ(rights_lent_by(path), "");
  EXPECT_EQ(rights_lent_by(path + "/not"), "");
}

TEST_F(rights_of_a_file, are_none_where_the_bit_gives_the_user_what_he_is) {
  ASSERT_EQ(chmod(path.c_str(), 04755), 0);
  EXPECT_EQ(rights_lent_by(path), "");
}

TEST_F(rights_of_a_file, are_named_where_the_bit_gives_another_user_or_group) {
  if (geteuid() != 0) GTEST_SKIP() << "only root makes a file another user's";
  ASSERT_EQ(chown(path.c_str(), 1, getegid()), 0);
  ASSERT_EQ(chmod(path.c_str(), 04755), 0);
  EXPECT_EQ(rights_lent_by(path), "the set-user-ID bit");
  ASSERT_EQ(chown(path.c_str(), geteuid(), 1), 0);
  ASSERT_EQ(chmod(path.c_str(), 02755), 0);
  EXPECT_EQ(rights_lent_by(path), "the set-group-ID bit");
  ASSERT_EQ(chmod(path.c_str(), 02745), 0);
  EXPECT_EQ(rights_lent_by(path), "");
}

}  // namespace
}  // namespace ceilmeter::test
