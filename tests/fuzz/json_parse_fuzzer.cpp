// Fuzz target of the JSON library: parses any bytes, checks the document and the tree that come out, prints the tree
// and, where the text can be read back, reads it back. What the sanitizers don't see is checked by hand and aborts.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "json/json.h"

namespace ceilmeter {
namespace {

// Only the stack bounds the parser's recursion, and that is intended: an overflow would be no finding. Inputs that may
// nest deeper than this are left out. A default stack has room for a sanitizer's frames of this depth.
constexpr std::int64_t deepest_nesting = 1000;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

struct tree_facts {
  std::size_t tokens = 0;
  bool readable = true;  // whether the printed tree can be parsed again
};

bool reads_back(const char* text) { return std::strpbrk(text, "\"\\") == nullptr; }

// Checks links, parents and keys of the tree below `token`.
void check_tree(const json_token* token, tree_facts* facts) {
  ++facts->tokens;
  if (token->key != nullptr && !reads_back(token->key)) facts->readable = false;
  switch (json_get_type(token)) {
    case JSON_STRING:
      if (json_get_string(token) != nullptr && !reads_back(json_get_string(token))) facts->readable = false;
      return;
    case JSON_FLOAT:
      if (!std::isfinite(json_get_float(token))) facts->readable = false;
      return;
    case JSON_BOOL: require(token->value.boolean == 0 || token->value.boolean == 1, "a boolean is 0 or 1"); return;
    case JSON_INTEGER:
    case JSON_NULL: return;
    case JSON_OBJECT:
    case JSON_ARRAY: break;
  }
  const json_link* before = &token->value.children;
  for (const json_token* child = json_first_child(token); child != nullptr; child = json_next_sibling(child)) {
    require(child->parent == token, "a child knows its container");
    require(child->link.previous == before && before->next == &child->link, "the list is linked both ways");
    require((child->key != nullptr) == (token->type == JSON_OBJECT), "members have keys and elements none");
    before = &child->link;
    check_tree(child, facts);
  }
  require(token->value.children.previous == before && before->next == &token->value.children, "the list is a circle");
}

// The printed text of a tree whose root prints; empty for one whose root doesn't.
std::string printed(const json_token* root) {
  char* text = nullptr;
  const json_status status = json_to_text(root, &text);
  const bool prints = json_get_type(root) == JSON_OBJECT || json_get_key(root) != nullptr;
  require(status == (prints ? JSON_OK : JSON_ERR_OBJECT), "only an object or a root with a key prints");
  require((text != nullptr) == prints, "a refused print leaves no text");
  const std::string copy = text != nullptr ? text : "";
  std::free(text);
  return copy;
}

void check_document(const std::string& text, const json_document* document, json_status status) {
  require(document != nullptr && json_document_root(document) != nullptr, "there is a document with a root");
  require(json_document_error(document) == status, "the document keeps the status");
  const std::ptrdiff_t place = document->cursor - text.c_str();
  const auto end = static_cast<std::ptrdiff_t>(text.size());
  require(place >= 0 && place <= end, "the cursor is within the text");
  const auto newlines = std::count(text.begin(), text.begin() + place, '\n');
  require(document->line >= 1 && document->line <= newlines + 1, "the line counts newlines before the cursor");
  if (status == JSON_OK) {
    require(json_document_error_line(document) == 0, "a success has no line");
    require(json_document_error_message(document) == nullptr, "a success has no message");
    require(json_document_error_position(document) == nullptr, "a success has no position");
    return;
  }
  require(status == JSON_ERR_STRING || status == JSON_ERR_OBJECT || status == JSON_ERR_ARRAY ||
              status == JSON_ERR_TOKEN || status == JSON_ERR_END,
          "a fault of the text has a status of its own");
  require(json_document_error_position(document) == document->cursor, "the position is the cursor");
  require(json_document_error_message(document) != nullptr || status == JSON_ERR_STRING,
          "only an unclosed string has no words");
}

void check_text(const std::string& text) {
  json_document* document = nullptr;
  const json_status status = json_parse(text.c_str(), &document);
  check_document(text, document, status);
  json_token* root = json_document_root(document);
  tree_facts facts;
  check_tree(root, &facts);
  require(facts.tokens <= text.size() + 1, "no token comes from nothing");

  // A root that isn't an object prints under a key only.
  if (json_get_type(root) != JSON_OBJECT) {
    require(printed(root).empty(), "a root without a key doesn't print");
    require(json_set_key(root, "root") == JSON_OK, "the root takes a key");
  }
  const std::string first = printed(root);
  if (facts.readable) {
    json_document* again = nullptr;
    require(json_parse(first.c_str(), &again) == JSON_OK, "a printed document parses");
    // Floats lose digits in print, but only once: the texts must be the same.
    require(printed(json_document_root(again)) == first, "a document that was read back prints the same");
    json_document_free(again);
  }
  json_document_free(document);
}

}  // namespace
}  // namespace ceilmeter

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The library's texts end at their NUL.
  const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
  // A text nests at most as deep as it has opening brackets. Closing brackets must not be counted, because they may
  // stand in strings.
  const auto openings = std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{');
  if (openings <= ceilmeter::deepest_nesting) ceilmeter::check_text(text);
  return 0;
}
