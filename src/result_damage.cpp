// A text that fails to parse leaves the tree up to the fault, with a member or a text missing where it failed. That
// tree is looked at as well, because `read` goes through it.
#include "result_damage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/open_file.h"
#include "json/json.h"

namespace ceilmeter {

namespace {

// The parser's recursion takes some 200 bytes of stack for each level; a result has six.
constexpr int deepest_nesting = 1000;

std::string content_of(const std::string& path) {
  const int fd = open_unless_foreign_link(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0);
  if (fd < 0) return {};
  std::string text;
  struct stat status {};
  // Anything else may have one reader only, and it would wait.
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    text.resize(static_cast<std::size_t>(status.st_size));
    std::size_t filled = 0;
    for (ssize_t got = 1; filled < text.size() && got > 0; filled += static_cast<std::size_t>(got > 0 ? got : 0)) {
      got = ::read(fd, text.data() + filled, text.size() - filled);
    }
    text.resize(filled);
  }
  close(fd);
  return text;
}

bool is_too_deep(std::string_view text) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t place = 0; place < text.size(); ++place) {
    const char letter = text[place];
    if (letter == '"') in_string = !in_string;
    if (letter == '\\') ++place;
    if (in_string) continue;
    if (letter == '[' || letter == '{') ++depth;
    if (letter == ']' || letter == '}') --depth;
    if (depth > deepest_nesting) return true;
  }
  return false;
}

const json_token* member(const json_token* object, const char* key) {
  if (object == nullptr || json_get_type(object) != JSON_OBJECT) return nullptr;
  for (const json_token* child = json_first_child(object); child != nullptr; child = json_next_sibling(child)) {
    const char* name = json_get_key(child);
    if (name != nullptr && std::strcmp(name, key) == 0) return child;
  }
  return nullptr;
}

bool is_container(const json_token* token) {
  return token != nullptr && (json_get_type(token) == JSON_ARRAY || json_get_type(token) == JSON_OBJECT);
}

// The reader leaves out a block with fewer fields. A block whose last field is no text makes the file damaged.
bool has_broken_block(const json_token* blocks) {
  if (!is_container(blocks)) return false;
  constexpr int module_position = 7;
  for (const json_token* block = json_first_child(blocks); block != nullptr; block = json_next_sibling(block)) {
    if (!is_container(block)) continue;
    const json_token* field = json_first_child(block);
    for (int position = 0; position < module_position && field != nullptr; ++position) field = json_next_sibling(field);
    if (field != nullptr && json_get_string(field) == nullptr) return true;
  }
  return false;
}

// Whether the reader takes the text as a number of threads: blanks and a sign before the digits, anything behind them.
bool has_number(const char* text) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  static_cast<void>(std::strtoul(text, &end, 10));
  return end != text && errno != ERANGE;
}

// Nothing but digits.
bool is_number(const char* text) { return has_number(text) && text[std::strspn(text, "0123456789")] == '\0'; }

std::optional<std::string> broken_part(const json_token* root, bool (*is_thread_count)(const char* text)) {
  const json_token* regions = member(root, "regions");
  if (is_container(regions)) {
    const bool has_names = json_get_type(regions) == JSON_OBJECT;
    for (const json_token* region = json_first_child(regions); region != nullptr; region = json_next_sibling(region)) {
      if (has_names && json_get_key(region) == nullptr) return "a region without a name";
      if (has_broken_block(member(region, "bbs"))) return "a block without a module";
    }
  }
  const json_token* roofs = member(root, "roofs_by_num_threads");
  if (roofs != nullptr && json_get_type(roofs) == JSON_OBJECT) {
    for (const json_token* count = json_first_child(roofs); count != nullptr; count = json_next_sibling(count)) {
      if (!is_thread_count(json_get_key(count))) return "roofs without a number of threads";
    }
  }
  return std::nullopt;
}

std::optional<std::string> fault_of(const json_document* document) {
  if (json_document_error(document) != JSON_OK) {
    const char* message = json_document_error_message(document);
    return std::string(message != nullptr ? message : "no JSON") + " in line " +
           std::to_string(json_document_error_line(document));
  }
  const json_token* root = json_document_root(document);
  if (root == nullptr || json_get_type(root) != JSON_OBJECT) return "no object";
  return std::nullopt;
}

std::optional<std::string> find_damage(const std::string& path, bool fatal_alone) {
  const std::string text = content_of(path);
  if (text.empty()) return std::nullopt;
  if (is_too_deep(text)) return "nested too deep";
  json_document* document = nullptr;
  json_parse(text.c_str(), &document);
  if (document == nullptr) return std::nullopt;
  std::optional<std::string> damage;
  if (!fatal_alone) damage = fault_of(document);
  if (!damage) damage = broken_part(json_document_root(document), fatal_alone ? has_number : is_number);
  json_document_free(document);
  return damage;
}

}  // namespace

std::optional<std::string> find_result_damage(const std::string& path) { return find_damage(path, false); }

std::optional<std::string> find_fatal_result_damage(const std::string& path) { return find_damage(path, true); }

}  // namespace ceilmeter
