// The reader of the JSON library: recursive descent over a NUL-terminated text, one function per kind of value.
//
// It is tolerant on purpose: stray commas are skipped, keywords may stand in any case, numbers wrap instead of
// overflowing, and nothing behind the first value is looked at. The reader of a result file depends on a failed parse
// keeping the complete members of its root, because an interrupted run leaves a truncated file.
#include <locale.h>

#include <cstdlib>

#include "json/json.h"
#include "json/tree.h"

namespace ceilmeter {

namespace {

using json_detail::append_child;
using json_detail::make_empty_container;

json_status parse_value(json_document* document, json_token* token);

json_status fail(json_document* document, const char* place, json_status status, const char* message) {
  document->cursor = place;
  document->error = status;
  document->message = message;
  return status;
}

json_status fail_at_end(json_document* document, const char* place) {
  return fail(document, place, JSON_ERR_END, "Unexpected end of stream");
}

// The character classes of the C locale, whatever locale the process runs in.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The first place from `at` on that isn't white space. Most of a result file is indentation: blanks come first.
const char* skip_space(json_document* document, const char* at) {
  for (;;) {
    while (*at == ' ') ++at;
    if (!is_space(*at)) return at;
    if (*at == '\n') ++document->line;
    ++at;
  }
}

const char* skip_space_and_commas(json_document* document, const char* at) {
  for (;;) {
    at = skip_space(document, at);
    if (*at != ',') return at;
    ++at;
  }
}

// Whether `text` begins with `word`, which is of lower-case letters. Setting bit 5 makes an upper-case letter a
// lower-case one and makes no other character a letter.
bool begins_with(const char* text, const char* word) {
  for (; *word != '\0'; ++word, ++text) {
    if ((*text | 0x20) != *word) return false;
  }
  return true;
}

// The byte that a backslash before `c` stands for, NUL if there is no such escape.
char decode_escape(char c) {
  switch (c) {
    case 'f': return '\f';
    case 'r': return '\r';
    case 't': return '\t';
    case 'n': return '\n';
    case 'b': return '\b';
    case '\\':
    case '"':
    case '/': return c;
    default: return '\0';
  }
}

// Walks over the string whose opening quote is at the cursor. The cursor stays there unless the walk fails. `*length`
// becomes the number of source bytes between the quotes, `*size` the size of the decoded text with its terminator. With
// an `out` of that size the text is decoded into it, and only then newlines are counted, because each string is walked
// twice. Inlined into both walks, so that the compiler makes a loop of its own for each.
[[gnu::always_inline]] inline json_status walk_string(json_document* document, char* out, std::size_t* length,
                                                      std::size_t* size) {
  if (*document->cursor != '"') {
    return fail(document, document->cursor, JSON_ERR_STRING, "Expected symbol '\"' at string begin");
  }
  const char* begin = document->cursor + 1;
  const char* at = begin;
  std::size_t escapes = 0;
  for (; *at != '"'; ++at) {
    char c = *at;
    if (c == '\0') return fail(document, at, JSON_ERR_STRING, nullptr);
    if (c == '\\') {
      ++at;
      ++escapes;
      c = decode_escape(*at);
      if (c == '\0') return fail(document, at, JSON_ERR_STRING, "Invalid escape sequence");
    } else if (c == '\n' && out != nullptr) {
      ++document->line;
    }
    if (out != nullptr) *out++ = c;
  }
  if (out != nullptr) *out = '\0';
  *length = static_cast<std::size_t>(at - begin);
  *size = *length - escapes + 1;
  return JSON_OK;
}

// Parses a string into a new text in `*text`.
json_status parse_string(json_document* document, char** text) {
  std::size_t length;
  std::size_t size;
  json_status status = walk_string(document, nullptr, &length, &size);
  if (status != JSON_OK) return status;
  char* decoded = static_cast<char*>(std::malloc(size));
  if (decoded == nullptr) return fail(document, document->cursor, JSON_ERR_MEMORY, "No memory");
  *text = decoded;
  status = walk_string(document, decoded, &length, &size);
  document->cursor += length + 2;
  return status;
}

json_status parse_float(json_document* document, json_token* token) {
  // The C locale's strtof. The region interface runs inside applications, whose locale may want a decimal comma.
  // The C locale object is a constant of the C library: asking for it allocates nothing and can't fail.
  const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  char* end;
  token->type = JSON_FLOAT;
  token->value.real = strtof_l(document->cursor, &end, c_locale);
  freelocale(c_locale);
  // Without a digit, as in "-." or "+e5", nothing is converted: the value is 0, and the cursor stays at the number,
  // where a container finds neither a comma nor its end.
  document->cursor = end;
  return JSON_OK;
}

json_status parse_number(json_document* document, json_token* token) {
  const char* at = document->cursor;
  const bool negative = *at == '-';
  if (negative || *at == '+') ++at;
  // Unsigned, because a too long number wraps. Wrapping commutes with the sign.
  std::uint64_t magnitude = 0;
  for (; is_digit(*at); ++at) magnitude = magnitude * 10 + static_cast<std::uint64_t>(*at - '0');
  if (*at == '.' || *at == 'e' || *at == 'E') return parse_float(document, token);
  token->type = JSON_INTEGER;
  token->value.integer = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
  document->cursor = at;
  return JSON_OK;
}

json_status parse_keyword(json_document* document, json_token* token) {
  const char* at = document->cursor;
  if (begins_with(at, "null")) {
    token->type = JSON_NULL;
    document->cursor = at + 4;
    return JSON_OK;
  }
  if (*at == 'n' || *at == 'N') return fail(document, at, JSON_ERR_TOKEN, "Unrecognized null format");
  const bool value = begins_with(at, "true");
  if (!value && !begins_with(at, "false")) {
    return fail(document, at, JSON_ERR_TOKEN, "Unrecognized boolean format");
  }
  token->type = JSON_BOOL;
  token->value.boolean = value ? 1 : 0;
  document->cursor = at + (value ? 4 : 5);
  return JSON_OK;
}

// Parses key, colon and value of an object's member into a child that stands in no list yet.
json_status parse_member(json_document* document, json_token* child) {
  const json_status status = parse_string(document, &child->key);
  if (status != JSON_OK) return status;
  const char* at = skip_space(document, document->cursor);
  if (*at != ':') return fail(document, at, JSON_ERR_TOKEN, "Expected ':' delimiter");
  document->cursor = at + 1;
  return parse_value(document, child);
}

// Parses one child at *at with `parse`, appends it, and moves *at behind it and the white space that follows. A child
// that fails is freed, and with it all that it holds: only complete members stay.
json_status parse_child(json_document* document, json_token* container, const char** at,
                        json_status (*parse)(json_document*, json_token*)) {
  document->cursor = *at;
  auto* child = static_cast<json_token*>(std::calloc(1, sizeof(json_token)));
  if (child == nullptr) return fail(document, *at, JSON_ERR_MEMORY, "No memory");
  const json_status status = parse(document, child);
  if (status != JSON_OK) {
    json_free(child);
    return status;
  }
  append_child(container, child);
  *at = skip_space(document, document->cursor);
  return JSON_OK;
}

// Moves the cursor behind the closing character at `at`.
json_status end_container(json_document* document, const char* at) {
  document->cursor = at + 1;
  return JSON_OK;
}

json_status parse_object(json_document* document, json_token* object) {
  make_empty_container(object, JSON_OBJECT);
  const char* at = document->cursor + 1;
  for (;;) {
    // Only an end of the text right behind the brace or a member's comma is reported as an end. Behind white space it
    // is reported like any other character that stands in the place of the quote. Arrays make no such difference.
    if (*at == '\0') return fail_at_end(document, at);
    at = skip_space_and_commas(document, at);
    if (*at == '}') break;
    if (*at != '"') return fail(document, at, JSON_ERR_OBJECT, "Expected ',' or '}' symbols");
    const json_status status = parse_child(document, object, &at, parse_member);
    if (status != JSON_OK) return status;
    if (*at == '\0') return fail_at_end(document, at);
    if (*at == '}') break;
    if (*at != ',') return fail(document, at, JSON_ERR_OBJECT, "Expected ',' or '}' symbols");
    ++at;
  }
  return end_container(document, at);
}

json_status parse_array(json_document* document, json_token* array) {
  make_empty_container(array, JSON_ARRAY);
  const char* at = document->cursor + 1;
  for (;;) {
    at = skip_space_and_commas(document, at);
    if (*at == '\0') return fail_at_end(document, at);
    if (*at == ']') break;
    const json_status status = parse_child(document, array, &at, parse_value);
    if (status != JSON_OK) return status;
    if (*at == ']') break;
    // Unlike in an object, an end of the text right behind a child is a fault of the array.
    if (*at != ',') return fail(document, at, JSON_ERR_ARRAY, "Expected ',' or ']' symbols");
    ++at;
  }
  return end_container(document, at);
}

json_status parse_value(json_document* document, json_token* token) {
  const char* at = skip_space(document, document->cursor);
  document->cursor = at;
  switch (*at) {
    case '{': return parse_object(document, token);
    case '[': return parse_array(document, token);
    case '"': return parse_string(document, &token->value.string);  // JSON_STRING is what a zeroed token is.
    case '-':
    case '+':
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
    case '8':
    case '9': return parse_number(document, token);
    case 't':
    case 'T':
    case 'f':
    case 'F':
    case 'n':
    case 'N': return parse_keyword(document, token);
    default: return fail(document, at, JSON_ERR_TOKEN, "Unrecognized token format");
  }
}

}  // namespace

json_status json_parse(const char* text, json_document** document) {
  *document = nullptr;
  auto* parsed = static_cast<json_document*>(std::calloc(1, sizeof(json_document)));
  if (parsed == nullptr) return JSON_ERR_MEMORY;
  parsed->root = static_cast<json_token*>(std::calloc(1, sizeof(json_token)));
  if (parsed->root == nullptr) {
    std::free(parsed);
    return JSON_ERR_MEMORY;
  }
  parsed->text = text;
  parsed->cursor = text;
  parsed->line = 1;
  *document = parsed;
  return parse_value(parsed, parsed->root);
}

void json_document_free(json_document* document) {
  if (document == nullptr) return;
  json_free(document->root);
  std::free(document);
}

json_token* json_document_root(const json_document* document) { return document != nullptr ? document->root : nullptr; }

json_status json_document_error(const json_document* document) {
  return document != nullptr ? document->error : JSON_ERR_MEMORY;
}

std::uint32_t json_document_error_line(const json_document* document) {
  return document != nullptr && document->error != JSON_OK ? document->line : 0;
}

const char* json_document_error_position(const json_document* document) {
  return document != nullptr && document->error != JSON_OK ? document->cursor : nullptr;
}

const char* json_document_error_message(const json_document* document) {
  return document != nullptr && document->error != JSON_OK ? document->message : nullptr;
}

}  // namespace ceilmeter
