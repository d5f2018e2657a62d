// The writer of the JSON library: indentation of two blanks a level, one value a line, nothing escaped.
//
// Text is gathered in a chunk on the stack and goes to the printer callback as the argument of a "%s", chunk by chunk:
// a call of the callback costs more than the value it prints. A text of the tree is never a format.
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json/json.h"
#include "json/tree.h"

namespace ceilmeter {

namespace {

constexpr std::size_t chunk_size = 8192;

// The widest number: a negative FLT_MAX has 39 digits before its point and six behind it.
constexpr std::size_t number_size = 48;

struct chunk_writer {
  json_printer printer;
  void* context;
  std::size_t used;
  char bytes[chunk_size + 1];  // The one more is for the terminator.
};

void flush(chunk_writer* writer) {
  if (writer->used == 0) return;
  writer->bytes[writer->used] = '\0';
  writer->used = 0;
  writer->printer(writer->context, "%s", writer->bytes);
}

void put_bytes(chunk_writer* writer, const char* bytes, std::size_t count) {
  std::memcpy(writer->bytes + writer->used, bytes, count);
  writer->used += count;
}

void put_text(chunk_writer* writer, const char* text) {
  const std::size_t length = std::strlen(text);
  if (length > chunk_size - writer->used) {
    flush(writer);
    if (length > chunk_size) {
      writer->printer(writer->context, "%s", text);
      return;
    }
  }
  put_bytes(writer, text, length);
}

// A constant text: its length is known when this is compiled, and the copy is a move or two.
template <std::size_t size>
void put_literal(chunk_writer* writer, const char (&text)[size]) {
  if (chunk_size - writer->used < size - 1) flush(writer);
  put_bytes(writer, text, size - 1);
}

// A text of the tree in quotes, as it is. Null prints as an empty one, which at least reads back.
void put_quoted(chunk_writer* writer, const char* text) {
  put_literal(writer, "\"");
  if (text != nullptr) put_text(writer, text);
  put_literal(writer, "\"");
}

void put_indentation(chunk_writer* writer, std::size_t depth) {
  std::size_t blanks = depth * 2;
  while (blanks > 0) {
    if (writer->used == chunk_size) flush(writer);
    const std::size_t room = chunk_size - writer->used;
    const std::size_t count = blanks < room ? blanks : room;
    std::memset(writer->bytes + writer->used, ' ', count);
    writer->used += count;
    blanks -= count;
  }
}

// std::to_chars gives what "%zd" and, in the C locale, "%f" of a double give. The application's locale has no say.
template <typename... Arguments>
void put_number(chunk_writer* writer, Arguments... arguments) {
  if (chunk_size - writer->used < number_size) flush(writer);
  char* begin = writer->bytes + writer->used;
  writer->used += static_cast<std::size_t>(std::to_chars(begin, begin + number_size, arguments...).ptr - begin);
}

void print_value(chunk_writer* writer, const json_token* token, std::size_t depth);

void print_children(chunk_writer* writer, const json_token* container, std::size_t depth) {
  const json_token* child = json_first_child(container);
  while (child != nullptr) {
    const json_token* next = json_next_sibling(child);
    put_indentation(writer, depth + 1);
    if (container->type == JSON_OBJECT) {
      put_quoted(writer, child->key);
      put_literal(writer, ": ");
    }
    print_value(writer, child, depth + 1);
    if (next != nullptr) put_literal(writer, ",");
    put_literal(writer, "\n");
    child = next;
  }
  put_indentation(writer, depth);
}

void print_value(chunk_writer* writer, const json_token* token, std::size_t depth) {
  switch (token->type) {
    case JSON_STRING: put_quoted(writer, token->value.string); break;
    case JSON_INTEGER: put_number(writer, token->value.integer); break;
    case JSON_FLOAT: put_number(writer, static_cast<double>(token->value.real), std::chars_format::fixed, 6); break;
    case JSON_BOOL:
      if (token->value.boolean != 0) {
        put_literal(writer, "true");
      } else {
        put_literal(writer, "false");
      }
      break;
    case JSON_NULL: put_literal(writer, "null"); break;
    case JSON_OBJECT:
      put_literal(writer, "{\n");
      print_children(writer, token, depth);
      put_literal(writer, "}");
      break;
    case JSON_ARRAY:
      put_literal(writer, "[\n");
      print_children(writer, token, depth);
      put_literal(writer, "]");
      break;
  }
}

struct file_context {
  std::FILE* file;
  int error;  // errno of the first failed write, 0 without one
};

[[gnu::format(printf, 2, 3)]] int print_to_file(void* context, const char* format, ...) {
  auto* to = static_cast<file_context*>(context);
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vfprintf(to->file, format, arguments);
  va_end(arguments);
  if (printed < 0 && to->error == 0) to->error = errno;
  return printed;
}

[[gnu::format(printf, 2, 3)]] int count_text(void* context, const char* format, ...) {
  // A null buffer would do, but the C library then formats in pieces of a few bytes: three times as slow.
  char unread[chunk_size + 1];
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vsnprintf(unread, sizeof unread, format, arguments);
  va_end(arguments);
  if (printed > 0) *static_cast<std::size_t*>(context) += static_cast<std::size_t>(printed);
  return printed;
}

struct text_context {
  char* end;         // where the next piece goes
  std::size_t room;  // bytes from there on, with the terminator
};

[[gnu::format(printf, 2, 3)]] int append_text(void* context, const char* format, ...) {
  auto* to = static_cast<text_context*>(context);
  std::va_list arguments;
  va_start(arguments, format);
  const int printed = std::vsnprintf(to->end, to->room, format, arguments);
  va_end(arguments);
  if (printed > 0) {
    to->end += printed;
    to->room -= static_cast<std::size_t>(printed);
  }
  return printed;
}

}  // namespace

json_status json_print(const json_token* token, json_printer printer, void* context) {
  const bool is_object = json_get_type(token) == JSON_OBJECT;
  if (!is_object && json_get_key(token) == nullptr) return JSON_ERR_OBJECT;
  chunk_writer writer;  // Not initialised as a whole: that would clear the chunk.
  writer.printer = printer;
  writer.context = context;
  writer.used = 0;
  if (is_object) {
    print_value(&writer, token, 0);
  } else {
    put_literal(&writer, "{\n");
    put_indentation(&writer, 1);
    put_quoted(&writer, token->key);
    put_literal(&writer, ": ");
    print_value(&writer, token, 1);
    put_literal(&writer, "\n}");
  }
  put_literal(&writer, "\n");
  flush(&writer);
  return JSON_OK;
}

json_status json_save(const json_token* token, const char* path) {
  file_context to{std::fopen(path, "w+e"), 0};
  if (to.file == nullptr) return JSON_ERR_FILE;
  const json_status status = json_print(token, print_to_file, &to);
  // The last piece may be written only now; a full disk or a quota shows here.
  if (std::fclose(to.file) != 0 && to.error == 0) to.error = errno;
  if (status != JSON_OK || to.error == 0) return status;
  errno = to.error;
  return JSON_ERR_FILE;
}

json_status json_to_text(const json_token* token, char** text) {
  *text = nullptr;
  std::size_t length = 0;
  const json_status status = json_print(token, count_text, &length);
  if (status != JSON_OK) return status;
  char* buffer = static_cast<char*>(std::calloc(length + 1, 1));
  if (buffer == nullptr) return JSON_ERR_MEMORY;
  text_context to{buffer, length + 1};
  json_print(token, append_text, &to);
  *text = buffer;
  return JSON_OK;
}

}  // namespace ceilmeter
