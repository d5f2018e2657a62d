#include "view/output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "../support/scratch_folder.h"

namespace ceilmeter::view {
namespace {

using test::scratch_folder;

std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

mode_t mode_of(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

std::ptrdiff_t files_in(const scratch_folder& folder) {
  return std::distance(std::filesystem::directory_iterator(folder.path()), {});
}

TEST(output, new_file_has_the_mode_that_the_mask_leaves) {
  const scratch_folder folder;
  const mode_t before = umask(027);
  EXPECT_EQ(write_output(folder / "page.html", "text"), "");
  umask(before);
  EXPECT_EQ(content(folder / "page.html"), "text");
  EXPECT_EQ(mode_of(folder / "page.html"), 0640U);
  EXPECT_EQ(files_in(folder), 1);
}

TEST(output, earlier_file_is_replaced_and_its_mode_kept) {
  const scratch_folder folder;
  const std::string path = folder.write("page.html", "a longer text than the new one");
  chmod(path.c_str(), 0600);
  EXPECT_EQ(write_output(path, "text"), "");
  EXPECT_EQ(content(path), "text");
  EXPECT_EQ(mode_of(path), 0600U);
  EXPECT_EQ(files_in(folder), 1);
}

TEST(output, file_that_somebody_reads_keeps_its_old_content_for_him) {
  const scratch_folder folder;
  const std::string path = folder.write("page.html", "old");
  std::ifstream reader(path);
  EXPECT_EQ(write_output(path, "new"), "");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), "old");
}

TEST(output, target_of_a_link_is_replaced_and_the_link_stays) {
  const scratch_folder folder;
  const std::string target = folder.write("target", "old");
  ASSERT_EQ(symlink(target.c_str(), (folder / "link").c_str()), 0);
  EXPECT_EQ(write_output(folder / "link", "new"), "");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
  EXPECT_EQ(content(target), "new");
}

TEST(output, device_and_pipe_are_written_to_as_they_are) {
  EXPECT_EQ(write_output("/dev/null", "text"), "");
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  const scratch_folder folder;
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::string read;
  std::thread reader([&] { read = content(pipe); });
  EXPECT_EQ(write_output(pipe, "text"), "");
  reader.join();
  EXPECT_EQ(read, "text");
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

TEST(output, failure_is_told_and_leaves_nothing) {
  const scratch_folder folder;
  EXPECT_EQ(write_output(folder / "missing/page.html", "text"), "No such file or directory");
  EXPECT_EQ(write_output(folder.path(), "text"), "Is a directory");
  EXPECT_EQ(write_output("/dev/full", "text"), "No space left on device");
  EXPECT_EQ(write_output(folder.write("file", "") + "/page.html", "text"), "Not a directory");
  EXPECT_EQ(files_in(folder), 1);
}

TEST(output, input_is_known_again_under_another_name) {
  const scratch_folder folder;
  const std::string first = folder.write("first.json", "");
  const std::string second = folder.write("second.json", "");
  ASSERT_EQ(symlink(second.c_str(), (folder / "soft").c_str()), 0);
  ASSERT_EQ(link(second.c_str(), (folder / "hard").c_str()), 0);
  const std::vector<std::string> inputs = {first, second};
  EXPECT_EQ(input_that_is_output(folder / "soft", inputs), second);
  EXPECT_EQ(input_that_is_output(folder / "hard", inputs), second);
  EXPECT_EQ(input_that_is_output(folder.path() + "/./first.json", inputs), first);
  EXPECT_EQ(input_that_is_output(folder / "third.html", inputs), "");
  EXPECT_EQ(input_that_is_output("/dev/null", {"/dev/null"}), "");
}

}  // namespace
}  // namespace ceilmeter::view
