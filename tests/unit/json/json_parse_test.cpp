// What the JSON reader accepts, and what it makes of it. json_fault_test.cpp has the faults.
#include <clocale>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "json/json.h"
#include "json_support.h"

namespace ceilmeter {
namespace {

using test::parsed;

// The keys of an object or the printed integers of an array, in the order of a walk.
std::vector<std::string> children_of(const json_token* container) {
  std::vector<std::string> names;
  for (const json_token* child = json_first_child(container); child != nullptr; child = json_next_sibling(child)) {
    const char* key = json_get_key(child);
    names.push_back(key != nullptr ? key : std::to_string(json_get_integer(child)));
  }
  return names;
}

using names = std::vector<std::string>;

std::int64_t integer_of(const char* text) {
  const parsed parse(text);
  EXPECT_EQ(parse.status, JSON_OK) << text;
  EXPECT_EQ(json_get_type(parse.root()), JSON_INTEGER) << text;
  return json_get_integer(parse.root());
}

float float_of(const char* text) {
  const parsed parse(text);
  EXPECT_EQ(parse.status, JSON_OK) << text;
  EXPECT_EQ(json_get_type(parse.root()), JSON_FLOAT) << text;
  return json_get_float(parse.root());
}

std::string string_of(const char* text) {
  const parsed parse(text);
  EXPECT_EQ(parse.status, JSON_OK) << text;
  EXPECT_EQ(json_get_type(parse.root()), JSON_STRING) << text;
  const char* value = json_get_string(parse.root());
  return value != nullptr ? value : "(null)";
}

TEST(json_parse, a_success_has_status_0_and_no_line_position_or_message) {
  const parsed parse("\n\n{}");
  EXPECT_EQ(parse.status, JSON_OK);
  EXPECT_EQ(json_document_error(parse.document), JSON_OK);
  EXPECT_EQ(json_document_error_line(parse.document), 0U);
  EXPECT_EQ(json_document_error_position(parse.document), nullptr);
  EXPECT_EQ(json_document_error_message(parse.document), nullptr);
}

TEST(json_parse, a_null_document_reads_as_one_that_had_no_memory) {
  EXPECT_EQ(json_document_error(nullptr), JSON_ERR_MEMORY);
  EXPECT_EQ(json_document_error_line(nullptr), 0U);
  EXPECT_EQ(json_document_error_position(nullptr), nullptr);
  EXPECT_EQ(json_document_error_message(nullptr), nullptr);
  EXPECT_EQ(json_document_root(nullptr), nullptr);
  json_document_free(nullptr);
}

TEST(json_parse, the_document_keeps_the_start_of_the_text_and_stands_behind_the_value) {
  const parsed parse(" [1]\n[2]");
  EXPECT_EQ(parse.document->text, parse.text.c_str());
  EXPECT_EQ(parse.cursor(), 4);
  EXPECT_EQ(parse.document->line, 1U);
}

TEST(json_parse, what_stands_behind_the_first_value_is_not_looked_at) {
  EXPECT_EQ(integer_of("12 bottles"), 12);
  EXPECT_EQ(integer_of("7,8"), 7);
  EXPECT_EQ(string_of("\"a\"\"b"), "a");
  EXPECT_EQ(parsed("{}]").status, JSON_OK);
  EXPECT_EQ(parsed("nullify").status, JSON_OK);
}

TEST(json_parse, white_space_of_all_six_kinds_is_skipped_before_a_value) { EXPECT_EQ(integer_of(" \t\n\v\f\r5"), 5); }

TEST(json_parse, white_space_of_all_six_kinds_is_skipped_around_every_part_of_a_container) {
  const std::string space = " \t\n\v\f\r";
  const parsed parse(space + "{" + space + "\"a\"" + space + ":" + space + "[" + space + "1" + space + "," + space +
                     "2" + space + "]" + space + "}");
  ASSERT_EQ(parse.status, JSON_OK) << test::message_of(parse);
  EXPECT_EQ(children_of(json_first_child(parse.root())), (names{"1", "2"}));
}

TEST(json_parse, bytes_above_127_are_no_white_space) {
  EXPECT_EQ(parsed("\xa0\x35").status, JSON_ERR_TOKEN);
  EXPECT_EQ(parsed("\x85\x35").status, JSON_ERR_TOKEN);
}

TEST(json_parse, stray_leading_doubled_and_trailing_commas_of_an_object_are_skipped) {
  const parsed parse("{,,\"a\":1,,}");
  ASSERT_EQ(parse.status, JSON_OK);
  EXPECT_EQ(children_of(parse.root()), names{"a"});
  EXPECT_EQ(json_get_integer(json_first_child(parse.root())), 1);
  EXPECT_EQ(children_of(parsed("{ , \"a\":1 , , \"b\":2 , }").root()), (names{"a", "b"}));
}

TEST(json_parse, stray_leading_doubled_and_trailing_commas_of_an_array_are_skipped) {
  const parsed parse("[,, 1,,2 , ,]");
  ASSERT_EQ(parse.status, JSON_OK);
  EXPECT_EQ(children_of(parse.root()), (names{"1", "2"}));
}

TEST(json_parse, containers_of_commas_alone_are_empty) {
  EXPECT_EQ(parsed("{,}").status, JSON_OK);
  EXPECT_EQ(parsed("[,]").status, JSON_OK);
  EXPECT_EQ(json_first_child(parsed("{,,}").root()), nullptr);
  EXPECT_EQ(json_first_child(parsed("[,,]").root()), nullptr);
}

TEST(json_parse, children_keep_their_order_and_duplicate_keys_are_kept) {
  EXPECT_EQ(children_of(parsed("{\"z\":1,\"a\":2,\"z\":3,\"\":4}").root()), (names{"z", "a", "z", ""}));
  EXPECT_EQ(children_of(parsed("[3,1,2]").root()), (names{"3", "1", "2"}));
}

TEST(json_parse, children_know_their_container_and_the_root_has_none) {
  const parsed parse("{\"a\":[1]}");
  const json_token* array = json_first_child(parse.root());
  EXPECT_EQ(parse.root()->parent, nullptr);
  EXPECT_EQ(array->parent, parse.root());
  EXPECT_EQ(json_first_child(array)->parent, array);
}

TEST(json_parse, a_root_and_an_element_have_no_key) {
  const parsed parse("[{\"a\":1}]");
  EXPECT_EQ(json_get_key(parse.root()), nullptr);
  EXPECT_EQ(json_get_key(json_first_child(parse.root())), nullptr);
}

TEST(json_parse, keywords_are_taken_in_any_case) {
  for (const char* text : {"true", "TRUE", "True", "tRuE"}) {
    const parsed parse(text);
    EXPECT_EQ(parse.status, JSON_OK) << text;
    EXPECT_EQ(json_get_type(parse.root()), JSON_BOOL) << text;
    EXPECT_EQ(json_get_bool(parse.root()), 1) << text;
    EXPECT_EQ(parse.cursor(), 4) << text;
  }
  for (const char* text : {"false", "FALSE", "False", "fALSe"}) {
    const parsed parse(text);
    EXPECT_EQ(parse.status, JSON_OK) << text;
    EXPECT_EQ(json_get_type(parse.root()), JSON_BOOL) << text;
    EXPECT_EQ(json_get_bool(parse.root()), 0) << text;
    EXPECT_EQ(parse.cursor(), 5) << text;
  }
  for (const char* text : {"null", "NULL", "Null", "nULl"}) {
    const parsed parse(text);
    EXPECT_EQ(parse.status, JSON_OK) << text;
    EXPECT_EQ(json_get_type(parse.root()), JSON_NULL) << text;
    EXPECT_EQ(parse.cursor(), 4) << text;
  }
}

TEST(json_parse, integers_may_have_either_sign_and_leading_zeros) {
  EXPECT_EQ(integer_of("0"), 0);
  EXPECT_EQ(integer_of("+7"), 7);
  EXPECT_EQ(integer_of("-7"), -7);
  EXPECT_EQ(integer_of("007"), 7);
  EXPECT_EQ(integer_of("-0"), 0);
}

TEST(json_parse, a_sign_with_no_digits_is_the_integer_0) {
  EXPECT_EQ(integer_of("-"), 0);
  EXPECT_EQ(integer_of("+"), 0);
  EXPECT_EQ(integer_of("-x"), 0);
  const parsed parse("[-,+]");
  ASSERT_EQ(parse.status, JSON_OK);
  EXPECT_EQ(children_of(parse.root()), (names{"0", "0"}));
}

TEST(json_parse, the_limits_of_an_integer_are_read_exactly) {
  EXPECT_EQ(integer_of("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integer_of("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
}

TEST(json_parse, too_long_numbers_wrap) {
  EXPECT_EQ(integer_of("9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(integer_of("-9223372036854775809"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integer_of("18446744073709551615"), -1);
  EXPECT_EQ(integer_of("18446744073709551616"), 0);
  EXPECT_EQ(integer_of("18446744073709551617"), 1);
  EXPECT_EQ(integer_of("99999999999999999999999999"), -2537764290115403777);
  EXPECT_EQ(integer_of("-12345678901234567890123"), -4807115922877859019);
}

TEST(json_parse, a_number_ends_at_the_first_other_character) {
  const parsed hexadecimal("0x10");
  EXPECT_EQ(json_get_integer(hexadecimal.root()), 0);
  EXPECT_EQ(hexadecimal.cursor(), 1);
  EXPECT_EQ(integer_of("12-5"), 12);
}

TEST(json_parse, a_point_or_an_exponent_makes_a_float) {
  EXPECT_EQ(float_of("1.5"), 1.5F);
  EXPECT_EQ(float_of("1e3"), 1000.0F);
  EXPECT_EQ(float_of("1E3"), 1000.0F);
  EXPECT_EQ(float_of("-2.5e-1"), -0.25F);
  EXPECT_EQ(float_of("+0.5"), 0.5F);
  EXPECT_EQ(float_of("1."), 1.0F);
  EXPECT_EQ(float_of("-.5"), -0.5F);
}

TEST(json_parse, floats_have_32_bits) {
  EXPECT_EQ(float_of("16777217.0"), 16777216.0F);
  EXPECT_EQ(float_of("0.1"), 0.1F);
}

TEST(json_parse, a_float_beyond_the_range_is_infinite_and_one_below_it_is_0) {
  EXPECT_EQ(float_of("1e60"), std::numeric_limits<float>::infinity());
  EXPECT_EQ(float_of("-1e60"), -std::numeric_limits<float>::infinity());
  EXPECT_EQ(float_of("1e-60"), 0.0F);
}

TEST(json_parse, the_cursor_stops_where_the_conversion_of_a_float_stopped) {
  EXPECT_EQ(parsed("1.5.5").cursor(), 3);
  EXPECT_EQ(parsed("1e+").cursor(), 1);
  EXPECT_EQ(parsed("1e").cursor(), 1);
  EXPECT_EQ(parsed("2.5e3x").cursor(), 5);
}

TEST(json_parse, a_float_without_a_digit_is_0_and_is_not_passed_over) {
  const parsed parse("-.");
  EXPECT_EQ(parse.status, JSON_OK);
  EXPECT_EQ(json_get_type(parse.root()), JSON_FLOAT);
  EXPECT_EQ(json_get_float(parse.root()), 0.0F);
  EXPECT_EQ(parse.cursor(), 0);
}

TEST(json_parse, floats_are_read_with_a_point_in_a_locale_that_has_a_comma) {
  const std::string before = std::setlocale(LC_NUMERIC, nullptr);
  bool found = false;
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "de_DE", "fr_FR.UTF-8", "fr_FR.utf8", "es_ES.UTF-8"}) {
    found = found || std::setlocale(LC_NUMERIC, name) != nullptr;
  }
  if (!found) GTEST_SKIP() << "this machine has no locale with a decimal comma";
  const char decimal_point = *std::localeconv()->decimal_point;
  const float value = float_of("1.5");
  const std::string text = test::printed(parsed("{\"a\":1.5}").root());
  std::setlocale(LC_NUMERIC, before.c_str());
  ASSERT_EQ(decimal_point, ',');
  EXPECT_EQ(value, 1.5F);
  EXPECT_EQ(text, "{\n  \"a\": 1.500000\n}\n");
}

TEST(json_parse, every_escape_stands_for_its_byte) {
  EXPECT_EQ(string_of(R"("\f\r\t\n\b\\\"\/")"), "\f\r\t\n\b\\\"/");
  EXPECT_EQ(string_of(R"("a\\b\"c")"), "a\\b\"c");
  EXPECT_EQ(string_of(R"("\\")"), "\\");
}

TEST(json_parse, other_bytes_of_a_string_are_taken_as_they_stand) {
  EXPECT_EQ(string_of("\"a\tb\x01\x7f\xc3\xa4\xff, {[:]}\""), "a\tb\x01\x7f\xc3\xa4\xff, {[:]}");
  EXPECT_EQ(string_of("\"\""), "");
}

TEST(json_parse, keys_are_decoded_like_any_string) {
  EXPECT_EQ(children_of(parsed(R"({"a\tb\"":1})").root()), names{"a\tb\""});
}

TEST(json_parse, a_raw_newline_in_a_string_is_kept_and_counted) {
  const parsed parse("[\"a\nb\n\",\n\"c\"]");
  ASSERT_EQ(parse.status, JSON_OK);
  EXPECT_STREQ(json_get_string(json_first_child(parse.root())), "a\nb\n");
  EXPECT_EQ(parse.document->line, 4U);
}

TEST(json_parse, an_escaped_newline_is_not_counted) { EXPECT_EQ(parsed(R"("a\nb")").document->line, 1U); }

TEST(json_parse, a_raw_newline_in_a_key_is_counted) { EXPECT_EQ(parsed("{\"a\nb\":1}").document->line, 2U); }

TEST(json_parse, text_key_and_number_of_children_have_no_limit) {
  const std::string long_text(1000000, 'x');
  std::string text = "{\"" + long_text + "\":\"" + long_text + "\"";
  for (int i = 0; i < 20000; ++i) text += ",\"k\":" + std::to_string(i);
  const parsed parse(text + "}");
  ASSERT_EQ(parse.status, JSON_OK);
  const json_token* child = json_first_child(parse.root());
  EXPECT_EQ(json_get_key(child), long_text);
  EXPECT_EQ(json_get_string(child), long_text);
  for (int i = 0; i < 20000; ++i) {
    child = json_next_sibling(child);
    ASSERT_NE(child, nullptr) << "after member " << i;
    ASSERT_EQ(json_get_integer(child), i);
  }
  EXPECT_EQ(json_next_sibling(child), nullptr);
}

TEST(json_parse, nesting_is_followed_to_a_depth_of_two_thousand) {
  const int depth = 2000;
  const parsed parse(std::string(depth, '[') + std::string(depth, ']'));
  ASSERT_EQ(parse.status, JSON_OK);
  int found = 1;
  for (const json_token* token = parse.root(); (token = json_first_child(token)) != nullptr;) ++found;
  EXPECT_EQ(found, depth);
}

TEST(json_parse, the_tree_outlives_the_text) {
  json_document* document = nullptr;
  {
    std::string text = "{\"key\":\"value\"}";
    ASSERT_EQ(json_parse(text.c_str(), &document), JSON_OK);
    text.assign(text.size(), '#');
  }
  const json_token* child = json_first_child(json_document_root(document));
  EXPECT_STREQ(json_get_key(child), "key");
  EXPECT_STREQ(json_get_string(child), "value");
  json_document_free(document);
}

}  // namespace
}  // namespace ceilmeter
