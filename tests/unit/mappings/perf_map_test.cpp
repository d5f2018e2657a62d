// The file in which a process names its generated code: what is read from it, and from whose files.
#include "perf_map.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "../support/scratch_folder.h"

namespace ceilmeter {
namespace {

class names_of_code : public ::testing::Test {
 protected:
  perf_map read(const std::string& text) {
    std::ofstream(path) << text;
    return perf_map::read(path);
  }

  const test::scratch_folder folder;
  const std::string path = folder / "perf.map";
};

TEST_F(names_of_code, lie_in_a_file_with_the_number_of_the_process) {
  EXPECT_EQ(perf_map::path_of(4711), "/tmp/perf-4711.map");
}

TEST_F(names_of_code, hold_from_the_start_for_the_size) {
  const perf_map names = read("5000 20 LazyCompile:*add /home/a b.js:1\n6000 8 other\n");
  EXPECT_EQ(names.name_at(0x4fff), "");
  EXPECT_EQ(names.name_at(0x5000), "LazyCompile:*add /home/a b.js:1");
  EXPECT_EQ(names.name_at(0x501f), "LazyCompile:*add /home/a b.js:1");
  EXPECT_EQ(names.name_at(0x5020), "");
  EXPECT_EQ(names.name_at(0x6000), "other");
}

TEST_F(names_of_code, are_those_of_the_last_function_at_a_place) {
  const perf_map names = read("5000 20 first\n5010 20 second\n5008 4 third\n");
  EXPECT_EQ(names.name_at(0x5000), "");
  EXPECT_EQ(names.name_at(0x5008), "third");
  EXPECT_EQ(names.name_at(0x5010), "second");
}

TEST_F(names_of_code, skip_lines_of_another_form) {
  const perf_map names = read(
      "\nno number\n5000\n5000 zz name\n5000 0 empty\n5000 10 \nffffffffffffffff 10 wraps\n"
      "0x6000 0x10 with prefix\n7000 10 last without end");
  EXPECT_EQ(names.name_at(0x5000), "");
  EXPECT_EQ(names.name_at(0xffffffffffffffff), "");
  EXPECT_EQ(names.name_at(0x6000), "with prefix");
  EXPECT_EQ(names.name_at(0x7000), "last without end");
}

TEST_F(names_of_code, have_nothing_that_breaks_the_result_file_and_an_end) {
  const perf_map names = read("5000 10 a\tb\x1b[1m \"c\\d\" \xc3\xa4\r\n6000 10 " + std::string(2000, 'n') + "\n");
  EXPECT_EQ(names.name_at(0x5000), "a?b?[1m ?c?d? ??");
  EXPECT_EQ(names.name_at(0x6000), std::string(512, 'n'));
}

TEST_F(names_of_code, are_not_read_through_a_link) {
  std::ofstream(path) << "5000 10 name\n";
  const std::string link = folder / "link";
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  EXPECT_EQ(perf_map::read(link).name_at(0x5000), "");
}

TEST_F(names_of_code, are_not_read_from_another_users_file) {
  std::ofstream(path) << "5000 10 name\n";
  if (chown(path.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "only the superuser gives files away";
  EXPECT_EQ(perf_map::read(path).name_at(0x5000), "");
}

TEST_F(names_of_code, are_not_waited_for_in_a_fifo_or_missed_without_a_file) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(perf_map::read(path).name_at(0x5000), "");
  EXPECT_EQ(perf_map::read(folder / "nothing").name_at(0x5000), "");
}

}  // namespace
}  // namespace ceilmeter
