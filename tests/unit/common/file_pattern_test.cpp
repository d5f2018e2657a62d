// The tokens in the names of files.
#include "common/file_pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../support/child_status.h"

namespace ceilmeter {
namespace {

using test::status_of_child;
using ::testing::MatchesRegex;

std::string expanded(const char* pattern, std::size_t size = 4096) {
  std::vector<char> out(size + 1, '#');
  mora_expand_file_pattern(pattern, out.data(), size);
  EXPECT_EQ(out[size], '#') << "written beyond the buffer";
  return out.data();
}

// A process reads the rank once. So each case of the next two tests runs in a child, and these tests come before any
// other of this process.
TEST(file_pattern_test, rank_comes_from_the_launchers_variables_in_order) {
  const auto rank_with = [](const std::vector<std::pair<const char*, const char*>>& variables) {
    return status_of_child([&variables] {
      clearenv();
      for (const auto& [name, value] : variables) setenv(name, value, 1);
      return std::atoi(expanded("%r").c_str());
    });
  };
  EXPECT_EQ(rank_with({}), 0);
  EXPECT_EQ(rank_with({{"SLURM_RANKS", "5"}}), 5);
  EXPECT_EQ(rank_with({{"MY_RANK", "5"}, {"OMPI_COMM_WORLD_RANK", "4"}}), 4);
  EXPECT_EQ(rank_with({{"OMPI_COMM_WORLD_RANK", "4"}, {"PMIX_RANK", "3"}}), 3);
  EXPECT_EQ(rank_with({{"OTHER", "RANK=9"}}), 0) << "the name counts, not the value";
  EXPECT_EQ(rank_with({{"PMIX_RANK", "12th"}}), 12);
}

TEST(file_pattern_test, rank_name_counts_in_its_first_256_bytes) {
  const auto rank_of = [](std::size_t blanks) {
    return status_of_child([blanks] {
      clearenv();
      setenv((std::string(blanks, 'x') + "RANK").c_str(), "6", 1);
      return std::atoi(expanded("%r").c_str());
    });
  };
  EXPECT_EQ(rank_of(252), 6);
  EXPECT_EQ(rank_of(253), 0);
}

TEST(file_pattern_test, pattern_tokens_are_replaced) {
  std::array<char, 129> host{};
  ASSERT_EQ(gethostname(host.data(), 128), 0);
  EXPECT_EQ(expanded("p%p.t%t.h%h"),
            "p" + std::to_string(getpid()) + ".t" + std::to_string(gettid()) + ".h" + std::string(host.data()));
  EXPECT_THAT(expanded("%T"), MatchesRegex("[0-9]+\\.[0-9][0-9][0-9][0-9][0-9][0-9]"));
}

TEST(file_pattern_test, thread_token_is_the_calling_threads) {
  std::string in_thread;
  std::string expected;
  std::thread([&] {
    in_thread = expanded("%t");
    expected = std::to_string(gettid());
  }).join();
  EXPECT_EQ(in_thread, expected);
  EXPECT_NE(in_thread, expanded("%t"));
}

TEST(file_pattern_test, percent_before_another_character_gives_that_character) {
  EXPECT_EQ(expanded("100%%.%x%"), "100%.x");
  EXPECT_EQ(expanded("%"), "");
  EXPECT_EQ(expanded(""), "");
}

TEST(file_pattern_test, expansion_is_bounded_and_terminated) {
  EXPECT_EQ(expanded("abcdef", 4), "abc");
  EXPECT_EQ(expanded("abc", 4), "abc");
  EXPECT_EQ(expanded("abcd", 4), "abc");
  EXPECT_EQ(expanded("ab%p", 3), "ab");
  EXPECT_EQ(expanded("x", 1), "");
}

}  // namespace
}  // namespace ceilmeter
