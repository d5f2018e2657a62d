// Tokens of a JSON tree: made, joined, walked and freed. A container's children stand in a circular list, see tree.h.
#include "json/tree.h"

#include <cstdlib>
#include <cstring>

#include "json/json.h"

namespace ceilmeter {

namespace {

using json_detail::append_child;
using json_detail::is_container;
using json_detail::make_empty_container;
using json_detail::token_of;

json_status new_token(json_token_type type, json_token** token) {
  *token = static_cast<json_token*>(std::calloc(1, sizeof(json_token)));
  if (*token == nullptr) return JSON_ERR_MEMORY;
  (*token)->type = type;
  return JSON_OK;
}

json_status new_container(json_token_type type, json_token** token) {
  const json_status status = new_token(type, token);
  if (status == JSON_OK) make_empty_container(*token, type);
  return status;
}

// Duplicates `text`; null has a null duplicate.
json_status duplicate(const char* text, char** copy) {
  *copy = nullptr;
  if (text == nullptr) return JSON_OK;
  const std::size_t size = std::strlen(text) + 1;
  *copy = static_cast<char*>(std::malloc(size));
  if (*copy == nullptr) return JSON_ERR_MEMORY;
  std::memcpy(*copy, text, size);
  return JSON_OK;
}

void unlink_from_parent(json_token* token) {
  if (token->parent == nullptr) return;
  token->link.previous->next = token->link.next;
  token->link.next->previous = token->link.previous;
  token->parent = nullptr;
}

}  // namespace

json_token_type json_get_type(const json_token* token) { return token != nullptr ? token->type : JSON_NULL; }

const char* json_get_key(const json_token* token) { return token != nullptr ? token->key : nullptr; }

const char* json_get_string(const json_token* token) {
  return json_get_type(token) == JSON_STRING ? token->value.string : nullptr;
}

std::int64_t json_get_integer(const json_token* token) {
  return json_get_type(token) == JSON_INTEGER ? token->value.integer : 0;
}

float json_get_float(const json_token* token) { return json_get_type(token) == JSON_FLOAT ? token->value.real : 0.0F; }

std::int32_t json_get_bool(const json_token* token) {
  return json_get_type(token) == JSON_BOOL ? token->value.boolean : 0;
}

json_token* json_first_child(const json_token* token) {
  if (token == nullptr || !is_container(token)) return nullptr;
  json_link* first = token->value.children.next;
  return first != &token->value.children ? token_of(first) : nullptr;
}

json_token* json_next_sibling(const json_token* token) {
  if (token == nullptr || token->parent == nullptr) return nullptr;
  json_link* next = token->link.next;
  return next != &token->parent->value.children ? token_of(next) : nullptr;
}

json_status json_new_object(json_token** token) { return new_container(JSON_OBJECT, token); }

json_status json_new_array(json_token** token) { return new_container(JSON_ARRAY, token); }

json_status json_new_null(json_token** token) { return new_token(JSON_NULL, token); }

json_status json_new_integer(std::int64_t value, json_token** token) {
  const json_status status = new_token(JSON_INTEGER, token);
  if (status == JSON_OK) (*token)->value.integer = value;
  return status;
}

json_status json_new_float(float value, json_token** token) {
  const json_status status = new_token(JSON_FLOAT, token);
  if (status == JSON_OK) (*token)->value.real = value;
  return status;
}

json_status json_new_bool(std::int32_t value, json_token** token) {
  const json_status status = new_token(JSON_BOOL, token);
  if (status == JSON_OK) (*token)->value.boolean = value != 0 ? 1 : 0;
  return status;
}

json_status json_new_string(const char* text, json_token** token) {
  json_status status = new_token(JSON_STRING, token);
  if (status != JSON_OK) return status;
  status = duplicate(text, &(*token)->value.string);
  if (status != JSON_OK) {
    std::free(*token);
    *token = nullptr;
  }
  return status;
}

json_status json_set_key(json_token* token, const char* key) {
  // Make the copy before the old key goes: `key` may be the old key or a part of it.
  char* copy;
  const json_status status = duplicate(key, &copy);
  if (status != JSON_OK) return status;
  std::free(token->key);
  token->key = copy;
  return JSON_OK;
}

json_status json_add_child(json_token* container, json_token* token) {
  if (container == nullptr || token == nullptr || !is_container(container)) return JSON_ERR_TOKEN;
  unlink_from_parent(token);
  append_child(container, token);
  return JSON_OK;
}

void json_free(json_token* token) {
  if (token == nullptr) return;
  unlink_from_parent(token);
  // Walk down to a leaf, free it and go back up by the parent pointers. Do not recurse: a tree that was built by hand
  // may be nested deeper than the stack of the thread that frees it. The way down takes each child out of its list by
  // the forward link alone, because the list goes away with its head.
  json_token* current = token;
  while (current != nullptr) {
    json_token* child = json_first_child(current);
    if (child != nullptr) {
      current->value.children.next = child->link.next;
      current = child;
      continue;
    }
    json_token* parent = current->parent;
    if (current->type == JSON_STRING) std::free(current->value.string);
    std::free(current->key);
    std::free(current);
    current = parent;
  }
}

}  // namespace ceilmeter
