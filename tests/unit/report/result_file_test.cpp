// The writing of the result file: what it keeps of an earlier one, what it does without room, and where a copy goes.
#include "result_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "../support/captured_log.h"
#include "../support/scratch_folder.h"
#include "common/log.h"
#include "report_handler.h"
#include "result_keeper.h"

namespace ceilmeter {
namespace {

using test::captured_log;
using test::scratch_folder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uid_t other_user = 4711;
constexpr uid_t third_user = 4712;

json_token_owner tree_of(std::size_t regions) {
  collector_report report;
  for (std::size_t index = 0; index < regions; ++index) {
    report.regions.emplace_back().name = "region " + std::to_string(index);
  }
  return fill_json(report.regions, report.benchmarks, 1);
}

std::string text_of(const json_token& root) {
  char* text = nullptr;
  json_to_text(&root, &text);
  std::string result = text;
  std::free(text);
  return result;
}

std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A limit on the size of files stands for a disk that becomes full at this place.
class file_size_limit {
 public:
  explicit file_size_limit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &m_before);
    const rlimit limit = {bytes, m_before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~file_size_limit() {
    setrlimit(RLIMIT_FSIZE, &m_before);
    std::signal(SIGXFSZ, m_handler);
  }
  file_size_limit(const file_size_limit&) = delete;
  file_size_limit& operator=(const file_size_limit&) = delete;

 private:
  void (*m_handler)(int);
  rlimit m_before{};
};

class result_file : public ::testing::Test {
 protected:
  scratch_folder folder;
};

TEST_F(result_file, takes_the_place_of_a_longer_one_and_keeps_its_mode_and_its_other_names) {
  const std::string path = folder.write("result", std::string(100000, 'x'));
  std::filesystem::permissions(path, std::filesystem::perms{0640});
  std::filesystem::create_hard_link(path, folder / "other name");
  const json_token_owner root = tree_of(2);
  ASSERT_TRUE(replace_content(path, *root));
  EXPECT_EQ(content(folder / "other name"), text_of(*root));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});
}

TEST_F(result_file, without_room_leaves_an_earlier_one_as_it_was) {
  for (const std::size_t earlier_size : {0U, 10U, 5000U}) {
    const std::string earlier(earlier_size, 'e');
    const std::string path = folder.write("result", earlier);
    const json_token_owner root = tree_of(1000);
    ASSERT_GT(text_of(*root).size(), 8192U);
    const file_size_limit limit(8192);
    EXPECT_FALSE(replace_content(path, *root));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(content(path), earlier) << earlier_size;
  }
}

TEST_F(result_file, without_room_is_not_there_if_it_was_not_before) {
  const file_size_limit limit(8192);
  EXPECT_FALSE(replace_content(folder / "result", *tree_of(1000)));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_FALSE(std::filesystem::exists(folder / "result"));
}

TEST_F(result_file, copy_goes_to_the_first_folder_that_takes_it_and_is_the_users_alone) {
  const json_token_owner root = tree_of(1);
  const std::string path = save_copy({"", folder / "missing", folder.path(), "/tmp"}, *root);
  EXPECT_EQ(path, folder / "ceilmeter." + std::to_string(getpid()) + ".roofline.json");
  EXPECT_EQ(content(path), text_of(*root));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
}

TEST_F(result_file, copy_is_written_over_no_file_and_through_no_link) {
  const std::string name = "ceilmeter." + std::to_string(getpid());
  const std::string target = folder.write("target", "precious");
  std::filesystem::create_symlink(target, folder / name + ".roofline.json");
  folder.write(name + ".1.roofline.json", "of another machine");
  EXPECT_EQ(save_copy({folder.path()}, *tree_of(1)), folder / name + ".2.roofline.json");
  EXPECT_EQ(content(target), "precious");
  EXPECT_EQ(content(folder / name + ".1.roofline.json"), "of another machine");
}

TEST_F(result_file, copy_that_does_not_fit_leaves_nothing_behind) {
  const file_size_limit limit(8192);
  EXPECT_EQ(save_copy({folder.path()}, *tree_of(1000)), "");
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

// What another user can do in a folder such as /tmp. Only root can play that user.
class shared_folder : public result_file {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    ASSERT_EQ(chmod(folder.path().c_str(), 01777), 0);
    ASSERT_EQ(chown(folder.path().c_str(), third_user, third_user), 0);
    target = folder.write("target", "precious");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  }

  void give_link_to(uid_t user) { ASSERT_EQ(lchown(link.c_str(), user, user), 0); }

  std::string link = folder / "link";
  std::string target;
};

TEST_F(shared_folder, link_of_another_user_is_not_written_read_or_logged_through) {
  give_link_to(other_user);
  EXPECT_FALSE(write(link, {}));
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(read(link).regions.empty());
  const captured_log captured;
  mora_log_set_file(link.c_str());
  mora_log_init();
  mora_log_set_file("stderr");
  EXPECT_THAT(captured.lines(), ElementsAre("warn failed to create log file " + link + ": Permission denied"));
  EXPECT_EQ(content(target), "precious");
}

TEST_F(shared_folder, link_of_another_user_to_a_new_file_makes_none) {
  std::filesystem::remove(target);
  give_link_to(other_user);
  EXPECT_FALSE(write(link, {}));
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(shared_folder, own_link_and_that_of_the_folders_owner_are_followed) {
  for (const uid_t user : {geteuid(), third_user}) {
    give_link_to(user);
    std::ofstream(target) << "earlier";
    EXPECT_TRUE(write(link, {})) << user;
    EXPECT_THAT(content(target), StartsWith("{\n")) << user;
  }
}

TEST_F(shared_folder, folder_that_is_not_sticky_has_no_foreign_links) {
  ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
  give_link_to(other_user);
  EXPECT_TRUE(write(link, {}));
}

TEST_F(result_file, kept_says_nothing_and_finished_takes_its_place) {
  const captured_log captured;
  collector_report report;
  report.threads = 2;
  report.benchmarks.insert(4, {});
  result_keeper keeper(folder / "result", {folder.path()});
  keeper.keep(report);
  EXPECT_EQ(read(folder / "result").threads, 2U);
  EXPECT_THAT(captured.lines(), IsEmpty()) << "the roofs for two threads follow";
  report.threads = 4;
  EXPECT_TRUE(keeper.finish(report));
  EXPECT_EQ(read(folder / "result").threads, 4U);
}

TEST_F(result_file, copy_that_was_kept_holds_the_finished_report_if_the_result_file_stays_impossible) {
  const captured_log captured;
  mora_log_set_level(LEVEL_FATAL);
  collector_report report;
  report.threads = 2;
  result_keeper keeper(folder.path(), {folder / "missing", folder.path()});
  keeper.keep(report);
  report.threads = 4;
  EXPECT_FALSE(keeper.finish(report));
  EXPECT_EQ(errno, EISDIR);
  mora_log_set_level(LEVEL_WARN);
  const std::string copy = folder / "ceilmeter." + std::to_string(getpid()) + ".roofline.json";
  const std::string line = "warn Report cannot be written to " + folder.path() + ", a copy is saved as " + copy;
  EXPECT_THAT(captured.lines(), ElementsAre(line, line)) << "whatever the log's level is";
  EXPECT_EQ(read(copy).threads, 4U);
}

TEST_F(result_file, copy_that_was_kept_goes_when_the_result_file_is_there_after_all) {
  const captured_log captured;
  result_keeper keeper(folder / "late/result", {folder.path()});
  keeper.keep({});
  std::filesystem::create_directory(folder / "late");
  EXPECT_TRUE(keeper.finish({}));
  EXPECT_FALSE(std::filesystem::exists(folder / "ceilmeter." + std::to_string(getpid()) + ".roofline.json"));
}

TEST_F(result_file, report_that_nothing_takes_is_said_to_be_lost) {
  const captured_log captured;
  result_keeper keeper(folder.path(), {folder / "missing"});
  EXPECT_FALSE(keeper.finish({}));
  EXPECT_THAT(captured.lines(),
              ElementsAre("warn Report cannot be written to " + folder.path() + ", and no folder takes a copy"));
}

}  // namespace
}  // namespace ceilmeter
