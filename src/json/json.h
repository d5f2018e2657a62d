// The JSON library of the result file: a tree of tokens that one parses from text, builds by hand, walks and prints.
//
// It is a tolerant reader and a naive writer, and both are wanted. The reader skips stray commas and takes keywords in
// any case. The writer escapes nothing: a text with a quote or a backslash comes out raw and can't be read back. Plain
// records and free functions: memory comes from malloc, failure is a status, nothing is thrown. No function locks
// anything. A tree or a document belongs to one thread at a time; different trees are independent.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Status of the parser, the builders and the printer. 7 is not in use.
enum json_status : std::int32_t {
  JSON_OK = 0,
  JSON_ERR_MEMORY = 1,  // an allocation failed
  JSON_ERR_STRING = 2,  // fault in a string
  JSON_ERR_OBJECT = 3,  // fault in an object; from the printer: a root that is no object and has no key
  JSON_ERR_ARRAY = 4,   // fault in an array
  JSON_ERR_TOKEN = 5,   // unrecognised token; from json_add_child: the parent is no container
  JSON_ERR_END = 6,     // the text ended inside a container
  JSON_ERR_FILE = 8,    // the output file can't be opened or written
};

enum json_token_type : std::int32_t {
  JSON_STRING = 0,
  JSON_OBJECT = 1,
  JSON_ARRAY = 2,
  JSON_INTEGER = 3,
  JSON_FLOAT = 4,
  JSON_BOOL = 5,
  JSON_NULL = 6,
};

// A place in a list of children; or, in a container, the head of the list. A head's `next` is the first child's link,
// and its `previous` the last one's. In an empty list both point at the head itself.
struct json_link {
  json_link* next;
  json_link* previous;
};

union json_value {
  char* string;          // JSON_STRING: owned; null only after a failed parse or json_new_string(null)
  json_link children;    // JSON_OBJECT, JSON_ARRAY: the list head
  std::int64_t integer;  // JSON_INTEGER
  float real;            // JSON_FLOAT
  std::int32_t boolean;  // JSON_BOOL: 0 or 1
};

// One value of the tree, one heap record, zeroed at creation. It owns its key, its text and its children.
struct json_token {
  json_token_type type;
  char* key;  // owned; null in a root and in an array's element
  json_value value;
  json_token* parent;  // the container, or null
  json_link link;      // place in the parent's list; meaningful only while `parent` isn't null
};

// A result file of many blocks is a tree of millions of tokens: with this size a token takes 64 bytes of the heap.
static_assert(sizeof(void*) != 8 || sizeof(json_token) == 56, "a token must fit the allocator's 64 byte class");

// What a parse leaves. Read it through the functions below.
struct json_document {
  json_token* root;    // owned
  const char* text;    // start of the source text, not owned
  const char* cursor;  // parse position; after a failure the place of the fault
  json_status error;
  const char* message;  // words of the fault: a constant text, or null
  std::uint32_t line;   // current line, from 1
};

// Printer callback of the shape of fprintf. Its result isn't looked at.
using json_printer [[gnu::format(printf, 2, 3)]] = int (*)(void* context, const char* format, ...);

// ---- Parsing ----

// Parses one value from the NUL-terminated `text` (not null) and leaves a new document in `*document`. The caller frees
// it with json_document_free. The parser does not look behind the first value. The tree doesn't refer to `text`; only
// json_document_error_position does.
//
// On a failure the document is kept for its message, with what was built: a root that is a container keeps the members
// that were complete before the fault. If the document or its root can't be allocated, the result is JSON_ERR_MEMORY
// and `*document` is null. If memory ends later, the document is kept as on any other failure.
//
// Only the stack of the calling thread bounds the nesting.
json_status json_parse(const char* text, json_document** document);

// Frees the tree and the record; null is allowed.
void json_document_free(json_document* document);

// The root, owned by the document; null for a null document.
json_token* json_document_root(const json_document* document);

// Status of the parse. A null document is what a parse without memory leaves: JSON_ERR_MEMORY.
json_status json_document_error(const json_document* document);

// Where and why a parse failed: line, cursor, words. 0 or null when it didn't, and for a null document.
// A failed parse may have no words: an unclosed string has none.
std::uint32_t json_document_error_line(const json_document* document);
const char* json_document_error_position(const json_document* document);
const char* json_document_error_message(const json_document* document);

// ---- Walking ----
// All of these take a null token for one of type JSON_NULL without a key. Returned texts belong to the token.

json_token_type json_get_type(const json_token* token);
const char* json_get_key(const json_token* token);

// The value, or null, 0, 0.0 and 0 if the token has another type: an integer isn't read as a float nor the reverse.
const char* json_get_string(const json_token* token);
std::int64_t json_get_integer(const json_token* token);
float json_get_float(const json_token* token);
std::int32_t json_get_bool(const json_token* token);

// Children in the order of their insertion. Null for an empty container and for anything that isn't a container.
json_token* json_first_child(const json_token* token);
// Null behind the last child and for a token without a parent.
json_token* json_next_sibling(const json_token* token);

// ---- Building ----
// Each leaves a new token, owned by the caller, in `*token`. JSON_OK, or JSON_ERR_MEMORY with `*token` null.

json_status json_new_object(json_token** token);
json_status json_new_array(json_token** token);
json_status json_new_null(json_token** token);
json_status json_new_integer(std::int64_t value, json_token** token);
json_status json_new_float(float value, json_token** token);
json_status json_new_bool(std::int32_t value, json_token** token);  // any non-zero value gives 1
json_status json_new_string(const char* text, json_token** token);  // duplicates `text`; null gives a null text

// Duplicates `key` into the token and frees an old key; null takes the key away. `key` may be the token's own key.
// JSON_ERR_MEMORY leaves the token as it was.
json_status json_set_key(json_token* token, const char* key);

// Appends `token` to `container`, which owns it from then on; a token that stands in another container is moved.
// Duplicate keys aren't looked for. JSON_ERR_TOKEN, with the ownership unchanged, if `container` is neither an object
// nor an array or one of the two is null. A container must not be put into itself or into what it contains.
json_status json_add_child(json_token* container, json_token* token);

// Unlinks the token from its parent, if it has one, and frees it with key, text and children; null is allowed.
void json_free(json_token* token);

// ---- Printing ----

// Prints the tree as a document: an object as it is, any other root that has a key as an object with this one member.
// For null, and for a root that is no object and has no key, it prints nothing and returns JSON_ERR_OBJECT. The text
// reaches `printer` in pieces of any size. Each piece is the one argument of a "%s", so no text of the tree is ever a
// format.
//
// Nothing is escaped. A member without a key and a string without text print as empty strings. Floats are printed with
// six decimals, the infinite ones as "inf", which no reader of JSON takes.
json_status json_print(const json_token* token, json_printer printer, void* context);

// Prints into the file `path`, which is created or cut to nothing first. JSON_ERR_FILE if it can't be opened or if
// what was printed couldn't be written: errno tells why. For a root that json_print refuses the file is left empty.
json_status json_save(const json_token* token, const char* path);

// Prints into a new NUL-terminated text in `*text`, which the caller frees with free(). JSON_ERR_MEMORY, or
// JSON_ERR_OBJECT as json_print; then `*text` is null.
json_status json_to_text(const json_token* token, char** text);

}  // namespace ceilmeter
