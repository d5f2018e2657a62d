// Shared by the tests of the JSON library: owners that free what a test made, and short ways to parse and print.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "json/json.h"

namespace ceilmeter::test {

struct token_deleter {
  void operator()(json_token* token) const { json_free(token); }
};
using token_owner = std::unique_ptr<json_token, token_deleter>;

// A parse of `text`, whether it succeeds or not. Keeps the text, so that positions in it can be given.
struct parsed {
  std::string text;
  json_document* document = nullptr;
  json_status status;

  explicit parsed(std::string source) : text(std::move(source)), status(json_parse(text.c_str(), &document)) {}
  ~parsed() { json_document_free(document); }
  parsed(const parsed&) = delete;
  parsed& operator=(const parsed&) = delete;

  json_token* root() const { return json_document_root(document); }
  // Offset of the cursor, after a success too.
  std::ptrdiff_t cursor() const { return document->cursor - text.c_str(); }
};

// The words of a failed parse; "(none)" where there are none.
inline std::string message_of(const parsed& parse) {
  const char* message = json_document_error_message(parse.document);
  return message != nullptr ? message : "(none)";
}

inline token_owner make_object() {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_object(&token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_array() {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_array(&token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_integer(std::int64_t value) {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_integer(value, &token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_float(float value) {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_float(value, &token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_bool(std::int32_t value) {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_bool(value, &token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_null() {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_null(&token), JSON_OK);
  return token_owner(token);
}

inline token_owner make_string(const char* text) {
  json_token* token = nullptr;
  EXPECT_EQ(json_new_string(text, &token), JSON_OK);
  return token_owner(token);
}

// Hands `child` over to `container` under `key`; a null key leaves the child without one. Returns the child.
inline json_token* add(json_token* container, const char* key, token_owner child) {
  EXPECT_EQ(json_set_key(child.get(), key), JSON_OK);
  EXPECT_EQ(json_add_child(container, child.get()), JSON_OK);
  return child.release();
}

// The printed text, or "status N" if the printer refuses the token.
inline std::string printed(const json_token* token) {
  char* text = nullptr;
  const json_status status = json_to_text(token, &text);
  if (status != JSON_OK) return "status " + std::to_string(status);
  std::string copy = text;
  std::free(text);
  return copy;
}

// Whether two trees have the same shape, keys and values. If not, gives the path of the first difference. The roots'
// keys are not compared.
inline ::testing::AssertionResult same_tree(const json_token* left, const json_token* right,
                                            const std::string& path = "root") {
  if (json_get_type(left) != json_get_type(right)) {
    return ::testing::AssertionFailure() << path << ": type " << json_get_type(left) << " and " << json_get_type(right);
  }
  if (json_get_integer(left) != json_get_integer(right)) {
    return ::testing::AssertionFailure() << path << ": " << json_get_integer(left) << " and "
                                         << json_get_integer(right);
  }
  if (json_get_float(left) != json_get_float(right)) {
    return ::testing::AssertionFailure() << path << ": " << json_get_float(left) << " and " << json_get_float(right);
  }
  if (json_get_bool(left) != json_get_bool(right)) return ::testing::AssertionFailure() << path << ": booleans differ";
  const auto as_text = [](const char* text) { return text != nullptr ? std::string(text) : std::string("(null)"); };
  if (as_text(json_get_string(left)) != as_text(json_get_string(right))) {
    return ::testing::AssertionFailure() << path << ": \"" << as_text(json_get_string(left)) << "\" and \""
                                         << as_text(json_get_string(right)) << "\"";
  }
  const json_token* left_child = json_first_child(left);
  const json_token* right_child = json_first_child(right);
  for (int index = 0; left_child != nullptr || right_child != nullptr; ++index) {
    const std::string child_path = path + "/" + std::to_string(index);
    if (left_child == nullptr || right_child == nullptr) {
      return ::testing::AssertionFailure()
             << child_path << " stands only on the " << (left_child != nullptr ? "left" : "right");
    }
    if (as_text(json_get_key(left_child)) != as_text(json_get_key(right_child))) {
      return ::testing::AssertionFailure() << child_path << ": key " << as_text(json_get_key(left_child)) << " and "
                                           << as_text(json_get_key(right_child));
    }
    if (auto result = same_tree(left_child, right_child, child_path); !result) return result;
    left_child = json_next_sibling(left_child);
    right_child = json_next_sibling(right_child);
  }
  return ::testing::AssertionSuccess();
}

}  // namespace ceilmeter::test
