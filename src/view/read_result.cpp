// Two passes: the text is looked at for what the parser has no bound or no words for (nesting, NUL bytes), then the
// parsed tree is walked. What is odd but readable becomes a note of the file, never a silent 0.
#include "view/read_result.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "json/json.h"
#include "view/read_tree.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

struct file_closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
struct document_freer {
  void operator()(json_document* document) const { json_document_free(document); }
};

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

std::size_t line_of(std::string_view text, std::size_t place) {
  std::size_t line = 1;
  for (const char c : text.substr(0, place)) line += c == '\n' ? 1 : 0;
  return line;
}

// The place where the nesting exceeds max_nesting, or npos. Strings are skipped as the parser skips them, so that up to
// the parser's first fault both see the same depth.
std::size_t too_deep_at(std::string_view text) {
  std::size_t depth = 0;
  bool in_string = false;
  for (std::size_t at = 0; at < text.size() && text[at] != '\0'; ++at) {
    const char c = text[at];
    if (in_string) {
      if (c == '\\')
        ++at;
      else if (c == '"')
        in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '{' || c == '[') {
      if (++depth > max_nesting) return at;
    } else if ((c == '}' || c == ']') && depth > 0) {
      --depth;
    }
  }
  return std::string_view::npos;
}

// A string that is directly followed by something else than a separator most often is a name with a quote in it, which
// the collector writes as it is.
bool looks_like_raw_quote(std::string_view text, std::size_t fault) {
  return fault > 0 && fault < text.size() && text[fault - 1] == '"' &&
         std::string_view(",:]} \t\r\n").find(text[fault]) == std::string_view::npos;
}

std::string parse_failure(const std::string& path, std::string_view text, const json_document* document) {
  if (document == nullptr) return path + ": not enough memory";
  const char* position = json_document_error_position(document);
  const std::size_t fault = position != nullptr ? static_cast<std::size_t>(position - text.data()) : 0;
  const char* words = json_document_error_message(document);
  std::string reason = words != nullptr ? words : "a string without an end";
  if (text.find('\0') == fault) {
    reason = "a NUL byte where text was expected: the file is damaged";
  } else if (fault >= text.size()) {
    reason = words != nullptr ? "the file ends too early" : "the file ends inside a string";
    reason += ": was it cut off, or is its writer still running?";
  } else if (looks_like_raw_quote(text, fault)) {
    reason += ": a double quote in a path or in a region's name is not escaped in result files and cuts the name short";
  } else if (words != nullptr && std::string_view(words).find("escape") != std::string_view::npos) {
    reason += ": a backslash in a path or in a region's name is not escaped in result files";
  }
  return path + ":" + std::to_string(json_document_error_line(document)) + ": " + reason;
}

std::string label_of(const std::string& path) {
  if (path == "-") return "standard input";
  std::string label = path.substr(path.rfind('/') + 1);
  for (const std::string_view ending : {".json", ".roofline"}) {
    if (label.size() > ending.size() && label.ends_with(ending)) label.resize(label.size() - ending.size());
  }
  return clean_utf8(label);
}

}  // namespace

read_outcome parse_result(const std::string& path, const std::string& bytes) {
  read_outcome outcome;
  std::string_view text = bytes;  // Stays at the end of `bytes`, whose terminator the parser needs.
  if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
  if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
    outcome.error = path + ":1: the file is empty";
    return outcome;
  }
  const std::size_t deep = too_deep_at(text);
  if (deep != std::string_view::npos) {
    outcome.error = path + ":" + std::to_string(line_of(text, deep)) + ": nested deeper than " +
                    std::to_string(max_nesting) + " levels: this is no result file";
    return outcome;
  }
  json_document* parsed = nullptr;
  const json_status status = json_parse(text.data(), &parsed);
  const std::unique_ptr<json_document, document_freer> document(parsed);
  if (status != JSON_OK) {
    outcome.error = parse_failure(path, text, parsed);
    return outcome;
  }
  const std::string reason = read_tree(json_document_root(parsed), outcome.result);
  if (!reason.empty()) {
    outcome.error = path + ":1: " + reason;
    return outcome;
  }
  outcome.result.path = path;
  outcome.result.label = label_of(path);
  outcome.ok = true;
  return outcome;
}

read_outcome read_result(const std::string& path) {
  read_outcome outcome;
  const bool standard_input = path == "-";
  const std::unique_ptr<std::FILE, file_closer> opened(standard_input ? nullptr : std::fopen(path.c_str(), "rbe"));
  std::FILE* file = standard_input ? stdin : opened.get();
  if (file == nullptr) {
    outcome.error = path + ": " + std::strerror(errno);
    return outcome;
  }
  std::string text;
  std::size_t size = 0;
  constexpr std::size_t piece = std::size_t{1} << 20;
  for (;;) {
    text.resize(size + piece);
    errno = 0;
    const std::size_t read = std::fread(text.data() + size, 1, piece, file);
    size += read;
    if (read < piece) break;
  }
  if (std::ferror(file) != 0) {
    outcome.error = path + ": " + std::strerror(errno);
    return outcome;
  }
  text.resize(size);
  return parse_result(path, text);
}

}  // namespace ceilmeter::view
