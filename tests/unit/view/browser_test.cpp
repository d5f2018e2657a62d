#include "view/browser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <iterator>

#include "../support/scratch_folder.h"

namespace ceilmeter::view {
namespace {

using test::scratch_folder;
using testing::ElementsAre;

std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Programs of one line, found by PATH alone.
class browser : public testing::Test {
 protected:
  browser() : path_before(getenv("PATH") != nullptr ? getenv("PATH") : "") { setenv("PATH", folder.path().c_str(), 1); }
  ~browser() override {
    setenv("PATH", path_before.c_str(), 1);
    unsetenv("BROWSER");
  }

  void add_program(const std::string& name, const std::string& line) {
    chmod(folder.write(name, "#!/bin/sh\n" + line + "\n").c_str(), 0755);
  }

  scratch_folder folder;
  std::string path_before;
};

TEST_F(browser, variable_comes_first_and_may_name_several_with_words_of_their_own) {
  EXPECT_THAT(browser_commands("", "A"), ElementsAre(ElementsAre("xdg-open", "A"), ElementsAre("open", "A")));
  EXPECT_THAT(browser_commands(nullptr, "A"), ElementsAre(ElementsAre("xdg-open", "A"), ElementsAre("open", "A")));
  EXPECT_THAT(browser_commands("one --new %s -x: two  -y::", "A"),
              ElementsAre(ElementsAre("one", "--new", "A", "-x"), ElementsAre("two", "-y", "A"),
                          ElementsAre("xdg-open", "A"), ElementsAre("open", "A")));
}

TEST_F(browser, address_has_no_character_that_means_something) {
  EXPECT_EQ(file_address("/tmp/a-b_c.~1/x.html"), "file:///tmp/a-b_c.~1/x.html");
  EXPECT_EQ(file_address("/a b/%#?;$(x)\xC3\xA9"), "file:///a%20b/%25%23%3F%3B%24%28x%29%C3%A9");
}

TEST_F(browser, words_reach_the_browser_without_a_shell_between) {
  add_program("viewer", "printf '%s|' \"$@\" > " + (folder / "seen"));
  const std::string page = folder.write("a page;touch x.html", "");
  setenv("BROWSER", "viewer --one %s $HOME", 1);
  EXPECT_TRUE(open_in_browser(page));
  EXPECT_EQ(content(folder / "seen"), "--one|" + file_address(std::filesystem::canonical(page).string()) + "|$HOME|");
}

TEST_F(browser, next_command_is_tried_where_one_fails_or_is_not_there) {
  add_program("failing", "exit 3");
  add_program("open", ": > " + (folder / "seen"));
  setenv("BROWSER", "missing:failing", 1);
  EXPECT_TRUE(open_in_browser(folder.write("page.html", "")));
  EXPECT_TRUE(std::filesystem::exists(folder / "seen"));
}

TEST_F(browser, failure_of_all_is_told) {
  add_program("xdg-open", "exit 1");
  EXPECT_FALSE(open_in_browser(folder.write("page.html", "")));
  EXPECT_FALSE(open_in_browser(folder / "missing.html"));
}

TEST_F(browser, browser_that_goes_on_running_is_not_waited_for) {
  add_program("xdg-open", "exec /bin/sleep 30");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(open_in_browser(folder.write("page.html", "")));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

}  // namespace
}  // namespace ceilmeter::view
