// What parser, tree and printer of the JSON library know of a container's inside. Not for the library's users.
//
// Children stand in a circular list through their `link`. The container's list head is one more element of the circle,
// and an empty list is a head that points at itself. So no operation has a special case for first or last.
#pragma once

#include <cstddef>

#include "json/json.h"

namespace ceilmeter::json_detail {

inline bool is_container(const json_token* token) { return token->type == JSON_OBJECT || token->type == JSON_ARRAY; }

// The token that `link` is a part of. Not for a list head.
inline json_token* token_of(json_link* link) {
  return reinterpret_cast<json_token*>(reinterpret_cast<char*>(link) - offsetof(json_token, link));
}

inline void make_empty_container(json_token* token, json_token_type type) {
  token->type = type;
  token->value.children = {&token->value.children, &token->value.children};
}

// Appends a token that stands in no list.
inline void append_child(json_token* container, json_token* token) {
  json_link* head = &container->value.children;
  token->parent = container;
  token->link = {head, head->previous};
  head->previous->next = &token->link;
  head->previous = &token->link;
}

}  // namespace ceilmeter::json_detail
