// Building, joining, walking and freeing of tokens. The sanitizers check that nothing leaks or is freed twice.
#include <cstddef>
#include <limits>
#include <string>

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
using test::token_owner;

TEST(json_record, fields_of_a_token_stand_in_their_order) {
  EXPECT_EQ(sizeof(json_token_type), 4U);
  EXPECT_EQ(offsetof(json_token, type), 0U);
  EXPECT_LT(offsetof(json_token, type), offsetof(json_token, key));
  EXPECT_LT(offsetof(json_token, key), offsetof(json_token, value));
  EXPECT_LT(offsetof(json_token, value), offsetof(json_token, parent));
  EXPECT_LT(offsetof(json_token, parent), offsetof(json_token, link));
  EXPECT_EQ(sizeof(json_token), 56U);
}

TEST(json_record, fields_of_a_document_stand_in_their_order) {
  EXPECT_EQ(offsetof(json_document, root), 0U);
  EXPECT_LT(offsetof(json_document, root), offsetof(json_document, text));
  EXPECT_LT(offsetof(json_document, text), offsetof(json_document, cursor));
  EXPECT_LT(offsetof(json_document, cursor), offsetof(json_document, error));
  EXPECT_LT(offsetof(json_document, error), offsetof(json_document, message));
  EXPECT_LT(offsetof(json_document, message), offsetof(json_document, line));
  EXPECT_EQ(sizeof(json_document::error), 4U);
  EXPECT_EQ(sizeof(json_document::line), 4U);
}

TEST(json_record, values_have_their_widths) {
  EXPECT_EQ(sizeof(json_value::integer), 8U);
  EXPECT_EQ(sizeof(json_value::real), 4U);
}

TEST(json_record, types_and_status_codes_have_their_numbers) {
  EXPECT_EQ(JSON_STRING, 0);
  EXPECT_EQ(JSON_OBJECT, 1);
  EXPECT_EQ(JSON_ARRAY, 2);
  EXPECT_EQ(JSON_INTEGER, 3);
  EXPECT_EQ(JSON_FLOAT, 4);
  EXPECT_EQ(JSON_BOOL, 5);
  EXPECT_EQ(JSON_NULL, 6);
  EXPECT_EQ(JSON_OK, 0);
  EXPECT_EQ(JSON_ERR_MEMORY, 1);
  EXPECT_EQ(JSON_ERR_STRING, 2);
  EXPECT_EQ(JSON_ERR_OBJECT, 3);
  EXPECT_EQ(JSON_ERR_ARRAY, 4);
  EXPECT_EQ(JSON_ERR_TOKEN, 5);
  EXPECT_EQ(JSON_ERR_END, 6);
  EXPECT_EQ(JSON_ERR_FILE, 8);
}

TEST(json_new, a_new_token_has_no_key_and_no_parent) {
  const token_owner tokens[] = {make_object(),    make_array(), make_null(),     make_integer(5),
                                make_float(1.5F), make_bool(1), make_string("x")};
  for (const token_owner& token : tokens) {
    EXPECT_EQ(json_get_key(token.get()), nullptr) << "type " << token->type;
    EXPECT_EQ(token->parent, nullptr) << "type " << token->type;
    EXPECT_EQ(json_first_child(token.get()), nullptr) << "type " << token->type;
    EXPECT_EQ(json_next_sibling(token.get()), nullptr) << "type " << token->type;
  }
}

TEST(json_new, an_empty_containers_list_head_points_at_itself) {
  for (const token_owner& token : {make_object(), make_array()}) {
    EXPECT_EQ(token->value.children.next, &token->value.children);
    EXPECT_EQ(token->value.children.previous, &token->value.children);
  }
}

TEST(json_new, each_type_is_made_with_its_value) {
  EXPECT_EQ(json_get_type(make_object().get()), JSON_OBJECT);
  EXPECT_EQ(json_get_type(make_array().get()), JSON_ARRAY);
  EXPECT_EQ(json_get_type(make_null().get()), JSON_NULL);
  EXPECT_EQ(json_get_integer(make_integer(std::numeric_limits<std::int64_t>::min()).get()),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(json_get_float(make_float(-1.5F).get()), -1.5F);
  EXPECT_STREQ(json_get_string(make_string("text").get()), "text");
}

TEST(json_new, any_non_zero_boolean_is_1) {
  EXPECT_EQ(json_get_bool(make_bool(0).get()), 0);
  EXPECT_EQ(json_get_bool(make_bool(1).get()), 1);
  EXPECT_EQ(json_get_bool(make_bool(-7).get()), 1);
  EXPECT_EQ(json_get_bool(make_bool(256).get()), 1);
}

TEST(json_new, a_string_is_a_duplicate_of_its_text) {
  char text[] = "abc";
  const token_owner token = make_string(text);
  text[0] = 'X';
  EXPECT_STREQ(json_get_string(token.get()), "abc");
}

TEST(json_new, a_string_of_null_has_a_null_text) {
  const token_owner token = make_string(nullptr);
  EXPECT_EQ(json_get_type(token.get()), JSON_STRING);
  EXPECT_EQ(json_get_string(token.get()), nullptr);
}

TEST(json_get, a_value_of_another_type_is_null_or_0) {
  const token_owner integer = make_integer(5);
  const token_owner real = make_float(2.5F);
  const token_owner boolean = make_bool(1);
  const token_owner string = make_string("7");
  const token_owner object = make_object();
  for (const json_token* token : {real.get(), boolean.get(), string.get(), object.get()}) {
    EXPECT_EQ(json_get_integer(token), 0) << "type " << token->type;
  }
  for (const json_token* token : {integer.get(), boolean.get(), string.get(), object.get()}) {
    EXPECT_EQ(json_get_float(token), 0.0F) << "type " << token->type;
  }
  for (const json_token* token : {integer.get(), real.get(), string.get(), object.get()}) {
    EXPECT_EQ(json_get_bool(token), 0) << "type " << token->type;
  }
  for (const json_token* token : {integer.get(), real.get(), boolean.get(), object.get()}) {
    EXPECT_EQ(json_get_string(token), nullptr) << "type " << token->type;
  }
}

TEST(json_get, a_null_token_reads_as_one_of_type_null) {
  EXPECT_EQ(json_get_type(nullptr), JSON_NULL);
  EXPECT_EQ(json_get_key(nullptr), nullptr);
  EXPECT_EQ(json_get_string(nullptr), nullptr);
  EXPECT_EQ(json_get_integer(nullptr), 0);
  EXPECT_EQ(json_get_float(nullptr), 0.0F);
  EXPECT_EQ(json_get_bool(nullptr), 0);
  EXPECT_EQ(json_first_child(nullptr), nullptr);
  EXPECT_EQ(json_next_sibling(nullptr), nullptr);
}

TEST(json_set_key, the_key_is_a_duplicate) {
  const token_owner token = make_null();
  char key[] = "abc";
  ASSERT_EQ(json_set_key(token.get(), key), JSON_OK);
  key[0] = 'X';
  EXPECT_STREQ(json_get_key(token.get()), "abc");
}

TEST(json_set_key, a_new_key_replaces_the_old_one) {
  const token_owner token = make_null();
  ASSERT_EQ(json_set_key(token.get(), "old"), JSON_OK);
  ASSERT_EQ(json_set_key(token.get(), "new and longer"), JSON_OK);
  EXPECT_STREQ(json_get_key(token.get()), "new and longer");
}

TEST(json_set_key, the_new_key_may_be_a_part_of_the_old_one) {
  const token_owner token = make_null();
  ASSERT_EQ(json_set_key(token.get(), "abcdef"), JSON_OK);
  ASSERT_EQ(json_set_key(token.get(), json_get_key(token.get()) + 3), JSON_OK);
  EXPECT_STREQ(json_get_key(token.get()), "def");
}

TEST(json_set_key, null_takes_the_key_away) {
  const token_owner token = make_null();
  ASSERT_EQ(json_set_key(token.get(), "key"), JSON_OK);
  ASSERT_EQ(json_set_key(token.get(), nullptr), JSON_OK);
  EXPECT_EQ(json_get_key(token.get()), nullptr);
}

TEST(json_add_child, children_are_appended_and_know_their_parent) {
  const token_owner array = make_array();
  json_token* first = add(array.get(), nullptr, make_integer(1));
  json_token* second = add(array.get(), nullptr, make_integer(2));
  json_token* third = add(array.get(), nullptr, make_integer(3));
  EXPECT_EQ(json_first_child(array.get()), first);
  EXPECT_EQ(json_next_sibling(first), second);
  EXPECT_EQ(json_next_sibling(second), third);
  EXPECT_EQ(json_next_sibling(third), nullptr);
  EXPECT_EQ(second->parent, array.get());
}

TEST(json_add_child, the_list_is_linked_both_ways) {
  const token_owner array = make_array();
  const json_token* first = add(array.get(), nullptr, make_integer(1));
  const json_token* last = add(array.get(), nullptr, make_integer(2));
  EXPECT_EQ(array->value.children.next, &first->link);
  EXPECT_EQ(array->value.children.previous, &last->link);
  EXPECT_EQ(first->link.previous, &array->value.children);
  EXPECT_EQ(first->link.next, &last->link);
  EXPECT_EQ(last->link.previous, &first->link);
  EXPECT_EQ(last->link.next, &array->value.children);
}

TEST(json_add_child, duplicate_keys_are_not_looked_for) {
  const token_owner object = make_object();
  const json_token* first = add(object.get(), "a", make_integer(1));
  const json_token* second = add(object.get(), "a", make_integer(2));
  EXPECT_EQ(json_next_sibling(first), second);
}

TEST(json_add_child, a_token_that_is_no_container_takes_no_child) {
  const token_owner child = make_integer(1);
  for (const token_owner& token : {make_null(), make_integer(1), make_float(1.0F), make_bool(1), make_string("x")}) {
    EXPECT_EQ(json_add_child(token.get(), child.get()), JSON_ERR_TOKEN) << "type " << token->type;
    EXPECT_EQ(child->parent, nullptr);
  }
}

TEST(json_add_child, a_null_container_or_child_is_refused) {
  const token_owner array = make_array();
  EXPECT_EQ(json_add_child(nullptr, array.get()), JSON_ERR_TOKEN);
  EXPECT_EQ(json_add_child(array.get(), nullptr), JSON_ERR_TOKEN);
  EXPECT_EQ(json_first_child(array.get()), nullptr);
}

TEST(json_add_child, a_token_of_another_container_is_moved) {
  const token_owner from = make_array();
  const token_owner to = make_array();
  json_token* moved = add(from.get(), nullptr, make_integer(1));
  const json_token* stays = add(from.get(), nullptr, make_integer(2));
  ASSERT_EQ(json_add_child(to.get(), moved), JSON_OK);
  EXPECT_EQ(json_first_child(from.get()), stays);
  EXPECT_EQ(json_next_sibling(stays), nullptr);
  EXPECT_EQ(json_first_child(to.get()), moved);
  EXPECT_EQ(moved->parent, to.get());
}

TEST(json_free, null_is_allowed) { json_free(nullptr); }

TEST(json_free, a_child_is_taken_out_of_its_parent) {
  for (int victim = 0; victim < 3; ++victim) {
    const token_owner array = make_array();
    json_token* children[3];
    for (int i = 0; i < 3; ++i) children[i] = add(array.get(), nullptr, make_integer(i));
    json_free(children[victim]);
    std::string left;
    for (const json_token* child = json_first_child(array.get()); child; child = json_next_sibling(child)) {
      left += std::to_string(json_get_integer(child));
    }
    EXPECT_EQ(left, std::string("012").erase(static_cast<std::size_t>(victim), 1)) << "freed child " << victim;
  }
}

TEST(json_free, freeing_the_last_child_leaves_an_empty_list_that_takes_new_children) {
  const token_owner array = make_array();
  json_free(add(array.get(), nullptr, make_integer(1)));
  EXPECT_EQ(array->value.children.next, &array->value.children);
  EXPECT_EQ(array->value.children.previous, &array->value.children);
  const json_token* child = add(array.get(), nullptr, make_integer(2));
  EXPECT_EQ(json_first_child(array.get()), child);
}

TEST(json_free, a_subtree_is_freed_and_its_siblings_stay) {
  const token_owner root = make_object();
  json_token* branch = add(root.get(), "branch", make_object());
  add(branch, "leaf", make_string("text"));
  json_token* inner = add(branch, "inner", make_array());
  add(inner, nullptr, make_string("more"));
  const json_token* other = add(root.get(), "other", make_string("stays"));
  json_free(branch);
  EXPECT_EQ(json_first_child(root.get()), other);
  EXPECT_STREQ(json_get_string(other), "stays");
}

TEST(json_free, a_tree_of_any_depth_is_freed_on_a_small_stack) {
  token_owner root = make_array();
  json_token* innermost = root.get();
  for (int depth = 0; depth < 300000; ++depth) innermost = add(innermost, nullptr, make_array());
  root.reset();
}

TEST(json_document_free, frees_a_tree_that_was_added_to) {
  json_document* document = nullptr;
  ASSERT_EQ(json_parse("{\"a\":[1,\"x\"]}", &document), JSON_OK);
  add(json_document_root(document), "b", make_string("added"));
  json_document_free(document);
}

}  // namespace
}  // namespace ceilmeter
