// The exact form of printed documents, and the three ways to print. A second printer, written for the tests as simply
// as possible, gives the expected text for trees of any shape.
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "../support/scratch_folder.h"
#include "json/json.h"
#include "json_support.h"

namespace ceilmeter {
namespace {

using test::add;
using test::make_array;
using test::make_bool;
using test::make_float;
using test::make_integer;
using test::make_null;
using test::make_object;
using test::make_string;
using test::parsed;
using test::printed;
using test::token_owner;

// What a value prints as, inside an object under the key "k".
std::string printed_value(token_owner token) {
  const token_owner object = make_object();
  add(object.get(), "k", std::move(token));
  const std::string text = printed(object.get());
  const std::string before = "{\n  \"k\": ";
  const std::string after = "\n}\n";
  EXPECT_EQ(text.substr(0, before.size()), before);
  EXPECT_EQ(text.substr(text.size() - after.size()), after);
  return text.substr(before.size(), text.size() - before.size() - after.size());
}

// The test's own printer.
std::string plain_value(const json_token* token, int depth) {
  char number[64];
  const std::string outer(static_cast<std::size_t>(depth) * 2, ' ');
  switch (json_get_type(token)) {
    case JSON_STRING: return "\"" + std::string(json_get_string(token)) + "\"";
    case JSON_INTEGER: std::snprintf(number, sizeof number, "%" PRId64, json_get_integer(token)); return number;
    case JSON_FLOAT:
      std::snprintf(number, sizeof number, "%f", static_cast<double>(json_get_float(token)));
      return number;
    case JSON_BOOL: return json_get_bool(token) != 0 ? "true" : "false";
    case JSON_NULL: return "null";
    default: break;
  }
  const bool is_object = json_get_type(token) == JSON_OBJECT;
  std::string text = is_object ? "{\n" : "[\n";
  for (const json_token* child = json_first_child(token); child != nullptr; child = json_next_sibling(child)) {
    text += outer + "  ";
    if (is_object) text += "\"" + std::string(json_get_key(child)) + "\": ";
    text += plain_value(child, depth + 1);
    text += json_next_sibling(child) != nullptr ? ",\n" : "\n";
  }
  return text + outer + (is_object ? "}" : "]");
}

std::string plain_text(const json_token* root) { return plain_value(root, 0) + "\n"; }

// A printer callback's record of its calls.
struct calls {
  std::vector<std::string> formats;
  std::vector<std::size_t> sizes;
  std::string text;
};

[[gnu::format(printf, 2, 3)]] int record_call(void* context, const char* format, ...) {
  auto* to = static_cast<calls*>(context);
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string piece(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(piece.data(), piece.size(), format, again);
  va_end(again);
  va_end(arguments);
  piece.pop_back();
  to->formats.emplace_back(format);
  to->sizes.push_back(piece.size());
  to->text += piece;
  return length;
}

[[gnu::format(printf, 2, 3)]] int refuse_call(void* context, const char*, ...) {
  ++*static_cast<int*>(context);
  return -1;
}

std::string content_of(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

// A tree of up to `budget` tokens. Texts have no byte that can't be read back, floats six decimals at most.
token_owner random_tree(std::mt19937_64& random, int depth, int& budget) {
  const auto below = [&random](std::uint64_t limit) { return random() % limit; };
  const auto text = [&] {
    std::string made;
    const std::uint64_t length = below(50) == 0 ? below(20000) : below(24);
    while (made.size() < length) {
      const char c = static_cast<char>(1 + below(255));
      if (c != '"' && c != '\\') made += c;
    }
    return made;
  };
  --budget;
  switch (depth == 0 ? below(2) : below(8)) {
    case 0:
    case 1: {
      token_owner container = below(2) == 0 ? make_object() : make_array();
      const bool is_object = container->type == JSON_OBJECT;
      for (std::uint64_t children = depth == 0 ? 30 : below(6); children > 0 && budget > 0; --children) {
        token_owner child = random_tree(random, depth + 1, budget);
        add(container.get(), is_object ? text().c_str() : nullptr, std::move(child));
      }
      return container;
    }
    case 2: return make_integer(static_cast<std::int64_t>(random()));
    case 3: return make_integer(static_cast<std::int64_t>(below(1000)) - 500);
    case 4: return make_float(static_cast<float>(static_cast<std::int64_t>(below(2000000)) - 1000000) / 64.0F);
    case 5: return make_bool(static_cast<std::int32_t>(below(2)));
    case 6: return make_null();
    default: return make_string(text().c_str());
  }
}

TEST(json_print, an_empty_object_takes_two_lines) { EXPECT_EQ(printed(make_object().get()), "{\n}\n"); }

TEST(json_print, an_empty_container_inside_is_closed_at_its_own_indentation) {
  EXPECT_EQ(printed_value(make_object()), "{\n  }");
  EXPECT_EQ(printed_value(make_array()), "[\n  ]");
}

TEST(json_print, members_and_elements_stand_one_a_line_with_two_blanks_a_level) {
  const parsed parse(R"({"a":1,"b":[true,[null],{"c":"x"}],"d":{"e":{}}})");
  EXPECT_EQ(printed(parse.root()),
            "{\n"
            "  \"a\": 1,\n"
            "  \"b\": [\n"
            "    true,\n"
            "    [\n"
            "      null\n"
            "    ],\n"
            "    {\n"
            "      \"c\": \"x\"\n"
            "    }\n"
            "  ],\n"
            "  \"d\": {\n"
            "    \"e\": {\n"
            "    }\n"
            "  }\n"
            "}\n");
}

TEST(json_print, integers_are_printed_in_full) {
  EXPECT_EQ(printed_value(make_integer(0)), "0");
  EXPECT_EQ(printed_value(make_integer(-1)), "-1");
  EXPECT_EQ(printed_value(make_integer(std::numeric_limits<std::int64_t>::max())), "9223372036854775807");
  EXPECT_EQ(printed_value(make_integer(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
}

TEST(json_print, floats_have_six_decimals) {
  EXPECT_EQ(printed_value(make_float(0.1F)), "0.100000");
  EXPECT_EQ(printed_value(make_float(-2.5F)), "-2.500000");
  EXPECT_EQ(printed_value(make_float(0.0F)), "0.000000");
  EXPECT_EQ(printed_value(make_float(1e-9F)), "0.000000");
  EXPECT_EQ(printed_value(make_float(1.0F / 3.0F)), "0.333333");
}

TEST(json_print, a_float_has_no_more_digits_than_32_bits_hold) {
  const parsed parse("{\"k\":16777217.0}");
  EXPECT_EQ(printed(parse.root()), "{\n  \"k\": 16777216.000000\n}\n");
}

TEST(json_print, the_widest_floats_fit) {
  EXPECT_EQ(printed_value(make_float(std::numeric_limits<float>::max())),
            "340282346638528859811704183484516925440.000000");
  EXPECT_EQ(printed_value(make_float(std::numeric_limits<float>::lowest())),
            "-340282346638528859811704183484516925440.000000");
}

TEST(json_print, infinite_floats_and_no_numbers_are_named) {
  EXPECT_EQ(printed_value(make_float(std::numeric_limits<float>::infinity())), "inf");
  EXPECT_EQ(printed_value(make_float(-std::numeric_limits<float>::infinity())), "-inf");
  EXPECT_EQ(printed_value(make_float(std::numeric_limits<float>::quiet_NaN())), "nan");
}

TEST(json_print, floats_of_any_bits_print_as_the_c_library_prints_them) {
  constexpr unsigned seed = 20240611;
  std::mt19937 random(seed);
  const token_owner array = make_array();
  std::string expected = "{\n  \"k\": [\n";
  constexpr int count = 20000;
  for (int i = 0; i < count; ++i) {
    const std::uint32_t bits = static_cast<std::uint32_t>(random());
    float value;
    static_assert(sizeof value == sizeof bits);
    std::memcpy(&value, &bits, sizeof value);
    add(array.get(), nullptr, make_float(value));
    char text[64];
    std::snprintf(text, sizeof text, "    %f%s\n", static_cast<double>(value), i + 1 < count ? "," : "");
    expected += text;
  }
  ASSERT_EQ(json_set_key(array.get(), "k"), JSON_OK);
  EXPECT_TRUE(printed(array.get()) == expected + "  ]\n}\n") << "seed " << seed;
}

TEST(json_print, booleans_and_null_are_words) {
  EXPECT_EQ(printed_value(make_bool(1)), "true");
  EXPECT_EQ(printed_value(make_bool(0)), "false");
  EXPECT_EQ(printed_value(make_null()), "null");
}

TEST(json_print, nothing_of_a_text_is_escaped) {
  const token_owner object = make_object();
  add(object.get(), "k\\\"\n", make_string("a\"b\\c\nd\te\x01"));
  EXPECT_EQ(printed(object.get()), "{\n  \"k\\\"\n\": \"a\"b\\c\nd\te\x01\"\n}\n");
}

TEST(json_print, a_text_with_a_quote_cannot_be_parsed_back) {
  const token_owner object = make_object();
  add(object.get(), "k", make_string("a\"b"));
  EXPECT_EQ(parsed(printed(object.get())).status, JSON_ERR_OBJECT);
}

TEST(json_print, a_text_with_conversions_of_a_format_is_printed_as_it_stands) {
  const token_owner object = make_object();
  add(object.get(), "%s%n%d", make_string("%s %n %p %99999d %%"));
  EXPECT_EQ(printed(object.get()), "{\n  \"%s%n%d\": \"%s %n %p %99999d %%\"\n}\n");
}

TEST(json_print, the_key_of_an_element_and_of_a_root_object_is_ignored) {
  const token_owner object = make_object();
  ASSERT_EQ(json_set_key(object.get(), "ignored"), JSON_OK);
  json_token* array = add(object.get(), "array", make_array());
  add(array, "ignored", make_integer(1));
  EXPECT_EQ(printed(object.get()), "{\n  \"array\": [\n    1\n  ]\n}\n");
}

TEST(json_print, a_member_without_a_key_and_a_string_without_text_print_as_empty_strings) {
  const token_owner object = make_object();
  add(object.get(), nullptr, make_string(nullptr));
  EXPECT_EQ(printed(object.get()), "{\n  \"\": \"\"\n}\n");
}

TEST(json_print, a_root_with_a_key_prints_as_an_object_of_one_member) {
  const token_owner integer = make_integer(5);
  ASSERT_EQ(json_set_key(integer.get(), "five"), JSON_OK);
  EXPECT_EQ(printed(integer.get()), "{\n  \"five\": 5\n}\n");
  const token_owner array = make_array();
  add(array.get(), nullptr, make_integer(1));
  ASSERT_EQ(json_set_key(array.get(), "list"), JSON_OK);
  EXPECT_EQ(printed(array.get()), "{\n  \"list\": [\n    1\n  ]\n}\n");
}

TEST(json_print, a_root_without_a_key_that_is_no_object_is_refused_and_nothing_is_printed) {
  for (const token_owner& token : {make_array(), make_integer(1), make_string("x"), make_null()}) {
    calls record;
    EXPECT_EQ(json_print(token.get(), record_call, &record), JSON_ERR_OBJECT) << "type " << token->type;
    EXPECT_TRUE(record.formats.empty()) << "type " << token->type;
  }
}

TEST(json_print, a_null_token_is_refused) {
  calls record;
  EXPECT_EQ(json_print(nullptr, record_call, &record), JSON_ERR_OBJECT);
  EXPECT_TRUE(record.formats.empty());
}

TEST(json_print, an_inner_token_prints_as_a_document_of_its_own) {
  const parsed parse(R"({"a":{"b":[1]},"c":2})");
  const json_token* inner = json_first_child(parse.root());
  EXPECT_EQ(printed(inner), "{\n  \"b\": [\n    1\n  ]\n}\n");
  EXPECT_EQ(printed(json_next_sibling(inner)), "{\n  \"c\": 2\n}\n");
}

TEST(json_print, all_output_reaches_the_callback_as_the_argument_of_a_string_conversion) {
  const token_owner object = make_object();
  add(object.get(), "%d", make_string(std::string(30000, '%').c_str()));
  for (int i = 0; i < 2000; ++i) add(object.get(), "key", make_integer(i));
  add(object.get(), "float", make_float(0.5F));
  calls record;
  ASSERT_EQ(json_print(object.get(), record_call, &record), JSON_OK);
  for (const std::string& format : record.formats) EXPECT_EQ(format, "%s");
  for (const std::size_t size : record.sizes) EXPECT_GT(size, 0U);
  EXPECT_EQ(record.text, plain_text(object.get()));
}

TEST(json_print, the_callbacks_result_is_not_looked_at) {
  const token_owner object = make_object();
  for (int i = 0; i < 20000; ++i) add(object.get(), "key", make_integer(i));
  int count = 0;
  EXPECT_EQ(json_print(object.get(), refuse_call, &count), JSON_OK);
  EXPECT_GT(count, 1);
}

TEST(json_print, texts_of_every_length_around_a_chunk_come_out_whole) {
  for (std::size_t length = 8192 - 40; length <= 8192 + 8; ++length) {
    const token_owner object = make_object();
    add(object.get(), std::string(length, 'k').c_str(), make_string(std::string(length, 'v').c_str()));
    add(object.get(), "n", make_integer(std::numeric_limits<std::int64_t>::min()));
    add(object.get(), "f", make_float(std::numeric_limits<float>::lowest()));
    add(object.get(), "t", make_bool(1));
    ASSERT_TRUE(printed(object.get()) == plain_text(object.get())) << "length " << length;
  }
}

TEST(json_print, values_of_every_type_come_out_whole_at_every_place_of_a_chunk) {
  for (std::size_t length = 8192 - 120; length <= 8192 + 2; ++length) {
    const token_owner object = make_object();
    add(object.get(), "k", make_string(std::string(length, 'v').c_str()));
    json_token* array = add(object.get(), "a", make_array());
    add(array, nullptr, make_float(std::numeric_limits<float>::lowest()));
    add(array, nullptr, make_integer(-5));
    add(array, nullptr, make_bool(0));
    add(array, nullptr, make_null());
    add(array, nullptr, make_object());
    ASSERT_TRUE(printed(object.get()) == plain_text(object.get())) << "length " << length;
  }
}

TEST(json_print, indentation_wider_than_a_chunk_comes_out_whole) {
  const token_owner root = make_object();
  json_token* innermost = add(root.get(), "k", make_array());
  for (int depth = 0; depth < 4200; ++depth) innermost = add(innermost, nullptr, make_array());
  const std::string text = printed(root.get());
  const std::string middle = "\n" + std::string(2 * 4201, ' ') + "[\n" + std::string(2 * 4201, ' ') + "]\n";
  EXPECT_NE(text.find(middle), std::string::npos);
}

TEST(json_print, random_trees_print_as_the_plain_printer_says_and_read_back_the_same) {
  constexpr std::uint64_t first_seed = 4711;
  for (std::uint64_t seed = first_seed; seed < first_seed + 60; ++seed) {
    std::mt19937_64 random(seed);
    int budget = 400;
    token_owner tree = random_tree(random, 0, budget);
    if (tree->type == JSON_ARRAY) {
      token_owner object = make_object();
      add(object.get(), "k", std::move(tree));
      tree = std::move(object);
    }
    const std::string text = printed(tree.get());
    ASSERT_TRUE(text == plain_text(tree.get())) << "seed " << seed;
    const parsed parse(text);
    ASSERT_EQ(parse.status, JSON_OK) << "seed " << seed << ": " << test::message_of(parse);
    ASSERT_TRUE(test::same_tree(tree.get(), parse.root())) << "seed " << seed;
  }
}

class json_save_test : public ::testing::Test {
 protected:
  const test::scratch_folder folder;
};

TEST_F(json_save_test, the_file_holds_what_json_to_text_gives) {
  const token_owner object = make_object();
  for (int i = 0; i < 5000; ++i) add(object.get(), "key", make_string("some text"));
  const std::string path = folder / "new.json";
  ASSERT_EQ(json_save(object.get(), path.c_str()), JSON_OK);
  EXPECT_TRUE(content_of(path) == printed(object.get()));
}

TEST_F(json_save_test, an_older_longer_file_is_replaced_as_a_whole) {
  const std::string path = folder / "old.json";
  std::ofstream(path) << std::string(1000, 'x');
  ASSERT_EQ(json_save(make_object().get(), path.c_str()), JSON_OK);
  EXPECT_EQ(content_of(path), "{\n}\n");
}

TEST_F(json_save_test, a_file_that_cannot_be_opened_is_an_error_with_its_reason_in_errno) {
  errno = 0;
  EXPECT_EQ(json_save(make_object().get(), (folder / "none/x.json").c_str()), JSON_ERR_FILE);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(json_save(make_object().get(), folder.path().c_str()), JSON_ERR_FILE);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(json_save_test, a_refused_root_leaves_an_empty_file) {
  const std::string path = folder / "refused.json";
  std::ofstream(path) << "old";
  EXPECT_EQ(json_save(make_integer(1).get(), path.c_str()), JSON_ERR_OBJECT);
  EXPECT_EQ(content_of(path), "");
}

TEST_F(json_save_test, a_full_disk_is_an_error_with_its_reason_in_errno) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "this machine has no /dev/full";
  errno = 0;
  EXPECT_EQ(json_save(make_object().get(), "/dev/full"), JSON_ERR_FILE) << "seen only when the file is closed";
  EXPECT_EQ(errno, ENOSPC);
  const token_owner large = make_object();
  for (int i = 0; i < 50000; ++i) add(large.get(), "key", make_integer(i));
  errno = 0;
  EXPECT_EQ(json_save(large.get(), "/dev/full"), JSON_ERR_FILE) << "seen while printing";
  EXPECT_EQ(errno, ENOSPC);
}

TEST(json_to_text, the_text_is_null_if_the_root_is_refused) {
  char* text = nullptr;
  char other = 'x';
  text = &other;
  EXPECT_EQ(json_to_text(make_array().get(), &text), JSON_ERR_OBJECT);
  EXPECT_EQ(text, nullptr);
}

}  // namespace
}  // namespace ceilmeter
