// Each library works with its ordinary calls: one to parse, one to print with indentation.
#include "json_contenders.h"

#include <cjson/cJSON.h>
#include <json-c/json.h>

#include <cstdio>
#include <cstring>

#include "json/json.h"

namespace ceilmeter::bench {

namespace {

// ---- The tool's own ----

const json_token* member(const json_token* object, const char* key) {
  for (const json_token* child = json_first_child(object); child != nullptr; child = json_next_sibling(child)) {
    if (std::strcmp(json_get_key(child), key) == 0) return child;
  }
  return nullptr;
}

void* own_parse(const std::string& text) {
  json_document* document = nullptr;
  return json_parse(text.c_str(), &document) == JSON_OK ? json_document_root(document) : nullptr;
}

std::size_t own_print(void* tree) {
  char* text = nullptr;
  return json_to_text(static_cast<json_token*>(tree), &text) == JSON_OK ? std::strlen(text) : 0;
}

bool own_save(void* tree, const char* path) { return json_save(static_cast<json_token*>(tree), path) == JSON_OK; }

std::uint64_t own_count_blocks(void* tree) {
  std::uint64_t count = 0;
  const json_token* regions = member(static_cast<json_token*>(tree), "regions");
  for (const json_token* region = json_first_child(regions); region != nullptr; region = json_next_sibling(region)) {
    const json_token* blocks = member(region, "bbs");
    const json_token* block = json_first_child(blocks);
    for (; block != nullptr; block = json_next_sibling(block)) ++count;
  }
  return count;
}

// ---- cJSON ----

void* cjson_parse(const std::string& text) { return cJSON_Parse(text.c_str()); }

std::size_t cjson_print(void* tree) {
  const char* text = cJSON_Print(static_cast<cJSON*>(tree));
  return text != nullptr ? std::strlen(text) : 0;
}

bool cjson_save(void* tree, const char* path) {
  const char* text = cJSON_Print(static_cast<cJSON*>(tree));
  std::FILE* file = std::fopen(path, "w");
  if (text == nullptr || file == nullptr) return false;
  const std::size_t length = std::strlen(text);
  const bool written = std::fwrite(text, 1, length, file) == length;
  return std::fclose(file) == 0 && written;
}

std::uint64_t cjson_count_blocks(void* tree) {
  std::uint64_t count = 0;
  const cJSON* region = nullptr;
  cJSON_ArrayForEach(region, cJSON_GetObjectItemCaseSensitive(static_cast<cJSON*>(tree), "regions")) {
    count += static_cast<std::uint64_t>(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(region, "bbs")));
  }
  return count;
}

// ---- json-c ----

constexpr int json_c_format = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;

void* json_c_parse(const std::string& text) { return json_tokener_parse(text.c_str()); }

std::size_t json_c_print(void* tree) {
  const char* text = json_object_to_json_string_ext(static_cast<json_object*>(tree), json_c_format);
  return text != nullptr ? std::strlen(text) : 0;
}

bool json_c_save(void* tree, const char* path) {
  return json_object_to_file_ext(path, static_cast<json_object*>(tree), json_c_format) == 0;
}

std::uint64_t json_c_count_blocks(void* tree) {
  std::uint64_t count = 0;
  json_object* regions = json_object_object_get(static_cast<json_object*>(tree), "regions");
  json_object_iterator region = json_object_iter_begin(regions);
  const json_object_iterator end = json_object_iter_end(regions);
  for (; !json_object_iter_equal(&region, &end); json_object_iter_next(&region)) {
    count += json_object_array_length(json_object_object_get(json_object_iter_peek_value(&region), "bbs"));
  }
  return count;
}

}  // namespace

const std::array<json_contender, 3> json_contenders = {{
    {"ceilmeter", own_parse, own_print, own_save, own_count_blocks},
    {"cJSON", cjson_parse, cjson_print, cjson_save, cjson_count_blocks},
    {"json-c", json_c_parse, json_c_print, json_c_save, json_c_count_blocks},
}};

}  // namespace ceilmeter::bench
