// Every fault that the JSON reader knows: status, words, line and position, and what is left of the tree.
#include <string>

#include "json/json.h"
#include "json_support.h"

namespace ceilmeter {
namespace {

using test::message_of;
using test::parsed;

// One faulty text. A '^' in `text` is removed first; it marks where the cursor must stand afterwards.
struct fault {
  const char* name;
  const char* text;
  json_status status;
  const char* message;
  unsigned line;
};

void PrintTo(const fault& row, std::ostream* out) { *out << row.name; }

class json_fault : public ::testing::TestWithParam<fault> {};

TEST_P(json_fault, is_told_by_status_words_line_and_position) {
  std::string text = GetParam().text;
  const std::size_t place = text.find('^');
  ASSERT_NE(place, std::string::npos);
  text.erase(place, 1);
  const parsed parse(text);
  ASSERT_NE(parse.document, nullptr);
  EXPECT_EQ(parse.status, GetParam().status);
  EXPECT_EQ(json_document_error(parse.document), GetParam().status);
  EXPECT_EQ(message_of(parse), GetParam().message);
  EXPECT_EQ(json_document_error_line(parse.document), GetParam().line);
  ASSERT_NE(json_document_error_position(parse.document), nullptr);
  EXPECT_EQ(json_document_error_position(parse.document) - parse.text.c_str(), static_cast<std::ptrdiff_t>(place));
}

constexpr const char* no_words = "(none)";
constexpr const char* token_words = "Unrecognized token format";
constexpr const char* boolean_words = "Unrecognized boolean format";
constexpr const char* null_words = "Unrecognized null format";
constexpr const char* escape_words = "Invalid escape sequence";
constexpr const char* end_words = "Unexpected end of stream";
constexpr const char* object_words = "Expected ',' or '}' symbols";
constexpr const char* array_words = "Expected ',' or ']' symbols";
constexpr const char* colon_words = "Expected ':' delimiter";

const fault faults[] = {
    {"empty_text", "^", JSON_ERR_TOKEN, token_words, 1},
    {"white_space_alone", " \n\t\n^", JSON_ERR_TOKEN, token_words, 3},
    {"unknown_character", "\n ^?", JSON_ERR_TOKEN, token_words, 2},
    {"comma_at_the_start", "^,1", JSON_ERR_TOKEN, token_words, 1},
    {"closing_brace_alone", "^}", JSON_ERR_TOKEN, token_words, 1},
    {"point_without_digit_or_sign", "^.5", JSON_ERR_TOKEN, token_words, 1},
    {"letter_e_alone", "^e5", JSON_ERR_TOKEN, token_words, 1},
    {"cut_off_true", "^tru", JSON_ERR_TOKEN, boolean_words, 1},
    {"misspelt_true", "^tree", JSON_ERR_TOKEN, boolean_words, 1},
    {"misspelt_false", "\n\n^Falze", JSON_ERR_TOKEN, boolean_words, 3},
    {"single_f", "^f", JSON_ERR_TOKEN, boolean_words, 1},
    {"cut_off_null", "^nul", JSON_ERR_TOKEN, null_words, 1},
    {"misspelt_null", "^Nil", JSON_ERR_TOKEN, null_words, 1},
    {"control_byte_for_a_letter", "^n\x15LL", JSON_ERR_TOKEN, null_words, 1},
    {"unclosed_string", "\"abc^", JSON_ERR_STRING, no_words, 1},
    {"quote_alone", "\"^", JSON_ERR_STRING, no_words, 1},
    {"unclosed_string_over_lines_counts_none_of_them", "\n\"a\nb\nc^", JSON_ERR_STRING, no_words, 2},
    {"unicode_escape", "\"ab\\^u0041\"", JSON_ERR_STRING, escape_words, 1},
    {"unknown_escape", "\"\\^x\"", JSON_ERR_STRING, escape_words, 1},
    {"upper_case_escape", "\"\\^N\"", JSON_ERR_STRING, escape_words, 1},
    {"text_ending_behind_a_backslash", "\"ab\\^", JSON_ERR_STRING, escape_words, 1},
    {"escaped_closing_quote", "\"ab\\\"^", JSON_ERR_STRING, no_words, 1},
    {"invalid_escape_behind_newlines_of_its_string", "\"\n\n\\^q\"", JSON_ERR_STRING, escape_words, 1},
    {"object_open", "{^", JSON_ERR_END, end_words, 1},
    {"object_open_with_white_space", "{ \n^", JSON_ERR_OBJECT, object_words, 2},
    {"object_open_with_commas", "{,,^", JSON_ERR_OBJECT, object_words, 1},
    {"object_ends_behind_a_member", "{\"a\":1^", JSON_ERR_END, end_words, 1},
    {"object_ends_behind_a_member_and_white_space", "{\"a\":1 \n^", JSON_ERR_END, end_words, 2},
    {"object_ends_behind_a_comma", "{\"a\":1,^", JSON_ERR_END, end_words, 1},
    {"object_ends_behind_a_comma_and_white_space", "{\"a\":1, ^", JSON_ERR_OBJECT, object_words, 1},
    {"object_key_without_quotes", "{^a:1}", JSON_ERR_OBJECT, object_words, 1},
    {"object_closed_by_a_bracket", "{^]", JSON_ERR_OBJECT, object_words, 1},
    {"object_members_without_a_comma", "{\"a\":1 ^\"b\":2}", JSON_ERR_OBJECT, object_words, 1},
    {"object_member_behind_a_number_with_words", "{\"a\":1^x}", JSON_ERR_OBJECT, object_words, 1},
    {"object_key_unclosed", "{\"a^", JSON_ERR_STRING, no_words, 1},
    {"object_key_with_an_invalid_escape", "{\"a\\^u\":1}", JSON_ERR_STRING, escape_words, 1},
    {"colon_missing", "{\"a\" ^1}", JSON_ERR_TOKEN, colon_words, 1},
    {"colon_missing_at_the_end", "{\"a\"^", JSON_ERR_TOKEN, colon_words, 1},
    {"colon_missing_at_the_end_behind_white_space", "{\"a\"\n^", JSON_ERR_TOKEN, colon_words, 2},
    {"comma_for_a_colon", "{\"a\"^,1}", JSON_ERR_TOKEN, colon_words, 1},
    {"value_missing_at_the_end", "{\"a\":\n^", JSON_ERR_TOKEN, token_words, 2},
    {"value_missing", "{\"a\":^}", JSON_ERR_TOKEN, token_words, 1},
    {"value_replaced_by_a_comma", "{\"a\":^,}", JSON_ERR_TOKEN, token_words, 1},
    {"array_open", "[^", JSON_ERR_END, end_words, 1},
    {"array_open_with_white_space_and_commas", "[ ,\n ^", JSON_ERR_END, end_words, 2},
    {"array_ends_behind_a_comma", "[1,^", JSON_ERR_END, end_words, 1},
    {"array_ends_behind_an_element", "[1^", JSON_ERR_ARRAY, array_words, 1},
    {"array_ends_behind_an_element_and_white_space", "[1\n^", JSON_ERR_ARRAY, array_words, 2},
    {"array_elements_without_a_comma", "[1 ^2]", JSON_ERR_ARRAY, array_words, 1},
    {"array_closed_by_a_brace", "[1^}", JSON_ERR_ARRAY, array_words, 1},
    {"array_with_a_key", "[\"a\"^:1]", JSON_ERR_ARRAY, array_words, 1},
    {"array_element_unknown", "[1,\n^?]", JSON_ERR_TOKEN, token_words, 2},
    {"array_closed_by_a_brace_without_elements", "[^}", JSON_ERR_TOKEN, token_words, 1},
    {"float_without_a_digit_in_an_array", "[^-.]", JSON_ERR_ARRAY, array_words, 1},
    {"float_with_two_points_in_an_object", "{\"a\":1.5^.5}", JSON_ERR_OBJECT, object_words, 1},
    {"fault_deep_inside", "{\"a\":[1,\n{\"b\":[\n^x]}]}", JSON_ERR_TOKEN, token_words, 3},
    {"newlines_of_complete_strings_count", "[\"a\n\n\", ^?]", JSON_ERR_TOKEN, token_words, 3},
};

INSTANTIATE_TEST_SUITE_P(each, json_fault, ::testing::ValuesIn(faults),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(json_fault_tree, a_failed_object_keeps_its_complete_members) {
  const parsed parse("{\"a\":1,\"b\":[2],\"c\":?}");
  ASSERT_EQ(parse.status, JSON_ERR_TOKEN);
  ASSERT_EQ(json_get_type(parse.root()), JSON_OBJECT);
  EXPECT_EQ(test::printed(parse.root()), "{\n  \"a\": 1,\n  \"b\": [\n    2\n  ]\n}\n");
}

TEST(json_fault_tree, a_member_before_a_missing_comma_is_complete) {
  const parsed parse("{\"a\":1 \"b\":2}");
  ASSERT_EQ(parse.status, JSON_ERR_OBJECT);
  EXPECT_EQ(test::printed(parse.root()), "{\n  \"a\": 1\n}\n");
}

TEST(json_fault_tree, an_element_before_a_missing_comma_is_complete) {
  const parsed parse("[1 2]");
  ASSERT_EQ(parse.status, JSON_ERR_ARRAY);
  ASSERT_EQ(json_get_type(parse.root()), JSON_ARRAY);
  const json_token* only = json_first_child(parse.root());
  ASSERT_NE(only, nullptr);
  EXPECT_EQ(json_get_integer(only), 1);
  EXPECT_EQ(json_next_sibling(only), nullptr);
}

TEST(json_fault_tree, a_member_with_a_fault_in_its_depth_is_dropped_as_a_whole) {
  const parsed parse("{\"a\":1,\"b\":{\"c\":2,\"d\":?}}");
  ASSERT_EQ(parse.status, JSON_ERR_TOKEN);
  EXPECT_EQ(test::printed(parse.root()), "{\n  \"a\": 1\n}\n");
}

TEST(json_fault_tree, a_container_that_never_closes_keeps_what_it_holds_if_it_is_the_root) {
  const parsed parse("[1,2,");
  ASSERT_EQ(parse.status, JSON_ERR_END);
  const json_token* first = json_first_child(parse.root());
  ASSERT_NE(first, nullptr);
  const json_token* second = json_next_sibling(first);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(json_get_integer(second), 2);
  EXPECT_EQ(json_next_sibling(second), nullptr);
}

TEST(json_fault_tree, a_member_without_its_colon_is_dropped) {
  const parsed parse("{\"a\":1,\"b\"}");
  ASSERT_EQ(parse.status, JSON_ERR_TOKEN);
  EXPECT_EQ(test::printed(parse.root()), "{\n  \"a\": 1\n}\n");
}

TEST(json_fault_tree, a_root_string_that_fails_has_no_text) {
  const parsed parse("\"abc");
  ASSERT_EQ(parse.status, JSON_ERR_STRING);
  EXPECT_EQ(json_get_type(parse.root()), JSON_STRING);
  EXPECT_EQ(json_get_string(parse.root()), nullptr);
  EXPECT_EQ(json_first_child(parse.root()), nullptr);
}

TEST(json_fault_tree, a_string_value_that_fails_is_dropped) {
  const parsed parse("{\"a\":\"x\",\"b\":\"\\u0041\"}");
  ASSERT_EQ(parse.status, JSON_ERR_STRING);
  EXPECT_EQ(test::printed(parse.root()), "{\n  \"a\": \"x\"\n}\n");
}

TEST(json_fault_tree, a_text_cut_off_anywhere_keeps_a_prefix_of_the_members) {
  const std::string text = "{\"a\": 1, \"b\": [2, {\"c\": \"x\"}], \"d\": null, \"e\": -1.5}";
  const std::string keys = "abde";
  for (std::size_t length = 0; length < text.size(); ++length) {
    const parsed parse(text.substr(0, length));
    EXPECT_NE(parse.status, JSON_OK) << "cut at " << length;
    std::string kept;
    for (const json_token* child = json_first_child(parse.root()); child; child = json_next_sibling(child)) {
      kept += json_get_key(child);
    }
    EXPECT_EQ(kept, keys.substr(0, kept.size())) << "cut at " << length;
  }
}

}  // namespace
}  // namespace ceilmeter
