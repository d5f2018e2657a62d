// What the JSON library does when memory runs out. The linker sends every malloc, calloc and free of this executable to
// the functions below. They fail the n-th allocation on demand, and count what has not been freed.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "json/json.h"
#include "json_support.h"

// The linker's names for the wrapped functions and for the ones behind them.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void __real_free(void* memory);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void __wrap_free(void* memory);
}

namespace {

// Set while the library runs, and only then: the test library allocates too.
bool counting = false;
int allocations = 0;      // since counting began
int live = 0;             // allocated and not freed while counting
int failing = 0;          // number of the allocation that fails, from 1; 0 for none
bool zeroed_only = true;  // every allocation so far came from calloc

bool fails_now() { return counting && ++allocations == failing; }

void* counted(void* memory) {
  if (counting && memory != nullptr) ++live;
  return memory;
}

}  // namespace

void* __wrap_malloc(std::size_t size) {
  if (fails_now()) return nullptr;
  if (counting) zeroed_only = false;
  return counted(__real_malloc(size));
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (fails_now()) return nullptr;
  return counted(__real_calloc(count, size));
}

void __wrap_free(void* memory) {
  if (counting && memory != nullptr) --live;
  __real_free(memory);
}

namespace ceilmeter {
namespace {

// Runs `action` with allocation number `number` failing; 0 lets all succeed.
template <typename action_type>
auto run_failing(int number, action_type action) {
  allocations = 0;
  live = 0;
  failing = number;
  zeroed_only = true;
  counting = true;
  auto result = action();
  counting = false;
  failing = 0;
  return result;
}

constexpr const char* sample = R"({"a":1,"b":["x",2.5,{"c":null}],"d":"text","e":{}})";
// Document, root, eight tokens below the root, five keys, two texts.
constexpr int sample_allocations = 2 + 8 + 5 + 2;

TEST(json_memory, a_parse_takes_one_allocation_for_each_token_key_and_text) {
  json_document* document = nullptr;
  EXPECT_EQ(run_failing(0, [&] { return json_parse(sample, &document); }), JSON_OK);
  EXPECT_EQ(allocations, sample_allocations);
  EXPECT_EQ(live, sample_allocations);
  json_document_free(document);
}

TEST(json_memory, freeing_a_document_frees_every_allocation_of_its_parse) {
  run_failing(0, [] {
    json_document* document = nullptr;
    const json_status status = json_parse(sample, &document);
    json_document_free(document);
    return status;
  });
  EXPECT_EQ(allocations, sample_allocations);
  EXPECT_EQ(live, 0);
}

TEST(json_memory, a_parse_without_memory_for_document_or_root_leaves_nothing) {
  for (int number = 1; number <= 2; ++number) {
    json_document dummy{};
    json_document* document = &dummy;
    EXPECT_EQ(run_failing(number, [&] { return json_parse(sample, &document); }), JSON_ERR_MEMORY) << number;
    EXPECT_EQ(document, nullptr) << "allocation " << number;
    EXPECT_EQ(live, 0) << "allocation " << number;
  }
}

TEST(json_memory, a_parse_that_runs_out_of_memory_later_keeps_the_document_with_its_words) {
  for (int number = 3; number <= sample_allocations; ++number) {
    json_document* document = nullptr;
    EXPECT_EQ(run_failing(number, [&] { return json_parse(sample, &document); }), JSON_ERR_MEMORY) << number;
    ASSERT_NE(document, nullptr) << "allocation " << number;
    EXPECT_EQ(json_document_error(document), JSON_ERR_MEMORY) << "allocation " << number;
    EXPECT_STREQ(json_document_error_message(document), "No memory") << "allocation " << number;
    EXPECT_EQ(json_document_error_line(document), 1U) << "allocation " << number;
    EXPECT_EQ(json_get_type(json_document_root(document)), JSON_OBJECT) << "allocation " << number;
    json_document_free(document);
  }
}

TEST(json_memory, a_parse_that_runs_out_of_memory_leaks_nothing) {
  for (int number = 1; number <= sample_allocations; ++number) {
    run_failing(number, [] {
      json_document* document = nullptr;
      const json_status status = json_parse(sample, &document);
      json_document_free(document);
      return status;
    });
    EXPECT_EQ(live, 0) << "allocation " << number;
  }
}

TEST(json_memory, a_root_string_without_memory_keeps_the_document) {
  json_document* document = nullptr;
  EXPECT_EQ(run_failing(3, [&] { return json_parse(" \"abc\"", &document); }), JSON_ERR_MEMORY);
  ASSERT_NE(document, nullptr);
  EXPECT_STREQ(json_document_error_message(document), "No memory");
  EXPECT_STREQ(json_document_error_position(document), "\"abc\"");
  json_document_free(document);
}

TEST(json_memory, members_before_the_failure_stay) {
  // Document, root, "a" and its token; the token of "b" fails.
  json_document* document = nullptr;
  EXPECT_EQ(run_failing(5, [&] { return json_parse(R"({"a":1,"b":2})", &document); }), JSON_ERR_MEMORY);
  EXPECT_EQ(test::printed(json_document_root(document)), "{\n  \"a\": 1\n}\n");
  json_document_free(document);
}

TEST(json_memory, a_parse_that_fails_in_its_text_leaks_nothing) {
  for (const char* text : {"{\"a\":[1,{\"b\":\"c", "{\"a\":\"x\",\"b\" 1}", "[\"a\",\"b\" \"c\"]", "\"\\u0041\"", ""}) {
    run_failing(0, [text] {
      json_document* document = nullptr;
      const json_status status = json_parse(text, &document);
      json_document_free(document);
      return status;
    });
    EXPECT_GT(allocations, 1) << text;
    EXPECT_EQ(live, 0) << text;
  }
}

TEST(json_memory, tokens_are_zeroed_records) {
  json_document* document = nullptr;
  run_failing(0, [&] { return json_parse("[[1],[2.5],[true],[null]]", &document); });
  EXPECT_EQ(allocations, 10);
  EXPECT_TRUE(zeroed_only) << "a token came from malloc";
  json_document_free(document);
}

TEST(json_memory, every_builder_tells_that_memory_ended) {
  json_token dummy{};
  json_token* token = &dummy;
  const auto expect_failure = [&](const char* name, int number, auto builder) {
    token = &dummy;
    EXPECT_EQ(run_failing(number, builder), JSON_ERR_MEMORY) << name << ", allocation " << number;
    EXPECT_EQ(token, nullptr) << name << ", allocation " << number;
    EXPECT_EQ(live, 0) << name << ", allocation " << number;
  };
  expect_failure("object", 1, [&] { return json_new_object(&token); });
  expect_failure("array", 1, [&] { return json_new_array(&token); });
  expect_failure("null", 1, [&] { return json_new_null(&token); });
  expect_failure("integer", 1, [&] { return json_new_integer(1, &token); });
  expect_failure("float", 1, [&] { return json_new_float(1.0F, &token); });
  expect_failure("bool", 1, [&] { return json_new_bool(1, &token); });
  expect_failure("string", 1, [&] { return json_new_string("text", &token); });
  expect_failure("string", 2, [&] { return json_new_string("text", &token); });
}

TEST(json_memory, a_key_that_finds_no_memory_leaves_the_old_one) {
  const test::token_owner token = test::make_null();
  ASSERT_EQ(json_set_key(token.get(), "old"), JSON_OK);
  EXPECT_EQ(run_failing(1, [&] { return json_set_key(token.get(), "new"); }), JSON_ERR_MEMORY);
  EXPECT_STREQ(json_get_key(token.get()), "old");
}

TEST(json_memory, a_replaced_key_is_freed) {
  const test::token_owner token = test::make_null();
  ASSERT_EQ(json_set_key(token.get(), "old"), JSON_OK);
  EXPECT_EQ(run_failing(0, [&] { return json_set_key(token.get(), "new"); }), JSON_OK);
  EXPECT_EQ(allocations, 1);
  EXPECT_EQ(live, 0) << "one allocated, one freed";
}

TEST(json_memory, a_text_that_finds_no_memory_is_null) {
  const test::token_owner object = test::make_object();
  char other = 'x';
  char* text = &other;
  EXPECT_EQ(run_failing(1, [&] { return json_to_text(object.get(), &text); }), JSON_ERR_MEMORY);
  EXPECT_EQ(text, nullptr);
}

TEST(json_memory, a_text_takes_one_allocation_and_a_saved_file_none) {
  const test::parsed parse(sample);
  char* text = nullptr;
  EXPECT_EQ(run_failing(0, [&] { return json_to_text(parse.root(), &text); }), JSON_OK);
  EXPECT_EQ(allocations, 1);
  std::free(text);
  EXPECT_EQ(run_failing(0, [&] { return json_save(parse.root(), "/dev/null"); }), JSON_OK);
  EXPECT_EQ(allocations, 0);
}

}  // namespace
}  // namespace ceilmeter
