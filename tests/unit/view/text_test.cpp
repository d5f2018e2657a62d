#include "view/text.h"

#include <gtest/gtest.h>

#include <clocale>

namespace ceilmeter::view {
namespace {

const std::string replaced = "\xEF\xBF\xBD";

TEST(view_text, valid_utf_8_stays_as_it_is) {
  for (const char* good :
       {"", "abc", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "a\tb\nc", "\xED\x9F\xBF", "\xF4\x8F\xBF\xBD"}) {
    EXPECT_EQ(clean_utf8(good), good);
  }
}

TEST(view_text, each_broken_sequence_becomes_one_replacement) {
  EXPECT_EQ(clean_utf8("\xFF"), replaced);
  EXPECT_EQ(clean_utf8("\x80\x80"), replaced + replaced);
  EXPECT_EQ(clean_utf8("\xE2\x82"), replaced) << "cut off";
  EXPECT_EQ(clean_utf8("\xE2\x82z"), replaced + "z");
  EXPECT_EQ(clean_utf8("\xC0\xAF"), replaced + replaced) << "overlong";
  EXPECT_EQ(clean_utf8("\xED\xA0\x80"), replaced + replaced + replaced) << "a surrogate";
  EXPECT_EQ(clean_utf8("\xF4\x90\x80\x80"), replaced + replaced + replaced + replaced) << "beyond the last character";
}

TEST(view_text, characters_that_xml_cannot_hold_are_replaced) {
  EXPECT_EQ(clean_utf8(std::string("a\0b", 3)), "a" + replaced + "b");
  EXPECT_EQ(clean_utf8("\x1B[0m"), replaced + "[0m");
  EXPECT_EQ(clean_utf8("\x7F\xC2\x85"), replaced + replaced);
  EXPECT_EQ(clean_utf8("\xEF\xBF\xBE"), replaced);
}

TEST(view_text, names_cannot_leave_an_element_or_an_attribute) {
  EXPECT_EQ(escape_xml("</script><img src='x' onerror=\"&\">"),
            "&lt;/script&gt;&lt;img src=&#39;x&#39; onerror=&quot;&amp;&quot;&gt;");
}

TEST(view_text, numbers_know_no_locale) {
  const char* old = std::setlocale(LC_ALL, nullptr);
  const std::string before = old != nullptr ? old : "C";
  // If the machine has no locale with a decimal comma, the test still checks the plain locale.
  if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) std::setlocale(LC_ALL, "");
  EXPECT_EQ(number(1234567.5), "1234567.5");
  EXPECT_EQ(number(0.1), "0.1");
  EXPECT_EQ(fixed(1234.56, 1), "1234.6");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(view_text, numbers_of_three_digits_are_those_of_printf) {
  for (const double value : {0.2, 19.2, 3.5555, 83.3333, 100.0, 999.6, 1234.0, 1e-7, 0.00012345, 1e6, 1e300}) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.3g", value);
    EXPECT_EQ(number(value, 3), expected);
  }
}

TEST(view_text, zero_has_no_sign) {
  EXPECT_EQ(fixed(-0.001, 2), "0.00");
  EXPECT_EQ(fixed(-0.1, 2), "-0.10");
}

TEST(view_text, quantities_have_three_digits_and_the_nearest_prefix) {
  const std::vector<std::pair<std::int64_t, std::string>> bytes = {
      {0, "0 B"},          {7, "7 B"},        {999, "999 B"},           {1000, "1.00 kB"},
      {9994, "9.99 kB"},   {9996, "10.0 kB"}, {99949, "99.9 kB"},       {999499, "999 kB"},
      {999500, "1.00 MB"}, {1, "1 B"},        {INT64_MAX, "9223372 TB"}};
  for (const auto& [value, text] : bytes) EXPECT_EQ(quantity(value, "B"), text);
  EXPECT_EQ(quantity(5000, ""), "5.00 k");
}

TEST(view_text, durations_have_three_digits_and_the_nearest_unit) {
  EXPECT_EQ(duration(999), "999 ns");
  EXPECT_EQ(duration(1500), "1.50 us");
  EXPECT_EQ(duration(999499), "999 us");
  EXPECT_EQ(duration(999500), "1.00 ms");
  EXPECT_EQ(duration(61000000000), "61.0 s");
}

TEST(view_text, long_names_end_in_an_ellipsis_between_characters) {
  EXPECT_EQ(shorten("abcd", 4), "abcd");
  EXPECT_EQ(shorten("abcde", 4), "abc\xE2\x80\xA6");
  EXPECT_EQ(shorten("\xC3\xA4\xC3\xB6\xC3\xBC", 2), "\xC3\xA4\xE2\x80\xA6");
  EXPECT_EQ(shorten("\xC3\xA4\xC3\xB6\xC3\xBC", 3), "\xC3\xA4\xC3\xB6\xC3\xBC");
}

}  // namespace
}  // namespace ceilmeter::view
