// The table-driven parser, with tables of the tests' own.
#include "option_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/captured_log.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> calls;

std::int32_t record_call(option_entry& entry) {
  calls.push_back(std::string(entry.long_name != nullptr ? entry.long_name : "") + "=" +
                  (entry.argument != nullptr ? entry.argument : "none"));
  return 0;
}

std::int32_t positive_result(option_entry& entry) {
  record_call(entry);
  return 7;
}

std::int32_t negative_result(option_entry& entry) {
  record_call(entry);
  return -42;
}

class option_parser : public ::testing::Test {
 protected:
  void SetUp() override { calls.clear(); }

  int parse(std::vector<std::string> words) {
    words.insert(words.begin(), "program");
    m_words = std::move(words);
    m_arguments.clear();
    for (std::string& word : m_words) m_arguments.push_back(word.data());
    m_arguments.push_back(nullptr);
    return parse_options(static_cast<int>(m_words.size()), m_arguments.data(), table);
  }

  option_entry table[7] = {
      {U'a', "alpha", ARGUMENT_NONE, 0, nullptr, record_call, nullptr},
      {U'b', "beta", ARGUMENT_REQUIRED, 0, nullptr, record_call, nullptr},
      {0, "gamma", ARGUMENT_OPTIONAL, 0, nullptr, record_call, nullptr},
      {U'd', nullptr, ARGUMENT_OPTIONAL, 0, nullptr, record_call, nullptr},
      {U'n', "negative", ARGUMENT_NONE, 0, nullptr, negative_result, nullptr},
      {U'p', "plain", ARGUMENT_NONE, 0, nullptr, nullptr, nullptr},
      {0, nullptr, ARGUMENT_NONE, 0, nullptr, nullptr, nullptr},
  };

 private:
  std::vector<std::string> m_words;
  std::vector<char*> m_arguments;
};

TEST_F(option_parser, result_is_the_index_of_the_first_word_that_is_no_option) {
  EXPECT_EQ(parse({}), 1);
  EXPECT_EQ(parse({"word"}), 1);
  EXPECT_EQ(parse({"-a", "word", "-b"}), 2);
  EXPECT_EQ(parse({"-a", "--", "-b"}), 3);
  EXPECT_EQ(parse({"-a"}), 2);
}

TEST_F(option_parser, short_and_long_forms_reach_the_same_row) {
  parse({"-a", "--alpha", "-b", "one", "--beta=two", "--beta", "three", "-bfour"});
  EXPECT_THAT(calls, ElementsAre("alpha=none", "alpha=none", "beta=one", "beta=two", "beta=three", "beta=four"));
}

TEST_F(option_parser, optional_argument_may_be_missing) {
  parse({"--gamma", "--gamma=x", "-d", "-dy"});
  EXPECT_THAT(calls, ElementsAre("gamma=none", "gamma=x", "=none", "=y"));
}

TEST_F(option_parser, row_behind_one_without_a_long_name_is_found_by_its_long_name) {
  parse({"--plain"});
  EXPECT_EQ(table[5].seen, 1U);
  EXPECT_EQ(table[4].seen, 0U);
}

TEST_F(option_parser, option_that_occurs_is_marked_and_keeps_its_last_argument) {
  parse({"-b", "one", "-b", "two"});
  EXPECT_EQ(table[1].seen, 1U);
  EXPECT_STREQ(table[1].argument, "two");
  EXPECT_EQ(table[0].seen, 0U);
  EXPECT_EQ(table[0].argument, nullptr);
}

TEST_F(option_parser, row_without_a_handler_is_recorded) {
  EXPECT_EQ(parse({"-p"}), 2);
  EXPECT_EQ(table[5].seen, 1U);
}

TEST_F(option_parser, negative_handler_result_ends_the_parsing_at_once) {
  EXPECT_EQ(parse({"-n", "-a"}), -42);
  EXPECT_THAT(calls, ElementsAre("negative=none"));
}

TEST_F(option_parser, positive_handler_result_goes_on) {
  table[0].handler = positive_result;
  EXPECT_EQ(parse({"-a", "-b", "x"}), 4);
  EXPECT_THAT(calls, ElementsAre("alpha=none", "beta=x"));
}

TEST_F(option_parser, rejected_option_gives_minus_one_and_the_librarys_complaint) {
  const test::captured_descriptor captured(STDERR_FILENO);
  EXPECT_EQ(parse({"-z"}), -1);
  EXPECT_EQ(parse({"--zeta"}), -1);
  EXPECT_EQ(parse({"-b"}), -1);
  EXPECT_EQ(parse({"--alpha=x"}), -1);
  EXPECT_EQ(captured.text(),
            "program: invalid option -- 'z'\n"
            "program: unrecognized option '--zeta'\n"
            "program: option requires an argument -- 'b'\n"
            "program: option '--alpha' doesn't allow an argument\n");
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(option_parser, second_parse_starts_anew) {
  EXPECT_EQ(parse({"-a", "-b", "x", "word"}), 4);
  EXPECT_EQ(parse({"-a", "word"}), 2);
}

TEST_F(option_parser, abbreviated_long_option_is_understood) {
  parse({"--alp"});
  EXPECT_THAT(calls, ElementsAre("alpha=none"));
}

}  // namespace
}  // namespace ceilmeter
