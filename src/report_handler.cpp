// Reading follows the tolerance of the file's form: whatever is missing or of another type counts as 0, empty or false,
// and the read goes on. Sums and narrowings wrap, as the numbers of the file do.
#include "report_handler.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "common/open_file.h"
#include "result_file.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/report_handler"};

constexpr std::size_t regions_at_start = 8;

// What the positions of a basic block array hold; the file announces them once, under "bb_keys".
constexpr std::array<const char*, 8> bb_keys = {"start", "end",   "dump_start",    "dump_end",
                                                "flop",  "count", "vector_length", "module"};

// A builder of the JSON library fails only for want of memory.
void require(json_status status) {
  if (status != JSON_OK) throw std::bad_alloc();
}

json_token_owner new_object() {
  json_token* token = nullptr;
  require(json_new_object(&token));
  return json_token_owner(token);
}

json_token_owner new_array() {
  json_token* token = nullptr;
  require(json_new_array(&token));
  return json_token_owner(token);
}

json_token_owner new_integer(std::int64_t value) {
  json_token* token = nullptr;
  require(json_new_integer(value, &token));
  return json_token_owner(token);
}

// The file has signed integers only: a value above the largest signed one is written as the negative one of the same
// bits, and reading turns it back.
json_token_owner new_integer(std::uint64_t value) { return new_integer(static_cast<std::int64_t>(value)); }

json_token_owner new_bool(bool value) {
  json_token* token = nullptr;
  require(json_new_bool(value ? 1 : 0, &token));
  return json_token_owner(token);
}

json_token_owner new_string(const char* text) {
  json_token* token = nullptr;
  require(json_new_string(text, &token));
  return json_token_owner(token);
}

json_token_owner new_hex_string(std::uint64_t value) {
  std::array<char, 17> text{};
  std::to_chars(text.data(), text.data() + text.size() - 1, value, 16);
  return new_string(text.data());
}

void add_element(json_token& array, json_token_owner element) {
  require(json_add_child(&array, element.get()));
  static_cast<void>(element.release());
}

void add_member(json_token& object, const char* key, json_token_owner member) {
  require(json_set_key(member.get(), key));
  add_element(object, std::move(member));
}

json_token_owner block_array(const basic_block_record& block) {
  json_token_owner array = new_array();
  add_element(*array, new_hex_string(block.start));
  add_element(*array, new_hex_string(block.end));
  add_element(*array, new_hex_string(block.dump_start));
  add_element(*array, new_hex_string(block.dump_end));
  add_element(*array, new_integer(block.flop));
  add_element(*array, new_integer(block.count));
  add_element(*array, new_integer(std::int64_t{block.vector_length}));
  add_element(*array, new_string(block.module.c_str()));
  return array;
}

json_token_owner roofs_array(const std::vector<benchmark_result>& roofs) {
  json_token_owner array = new_array();
  for (const benchmark_result& roof : roofs) {
    json_token_owner object = new_object();
    add_member(*object, "name", new_string(roof.name.c_str()));
    add_member(*object, "value", new_integer(roof.value));
    add_member(*object, "measure", new_string(roof.measure.c_str()));
    add_member(*object, "is_compute", new_bool(roof.is_compute));
    add_element(*array, std::move(object));
  }
  return array;
}

struct file_closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_owner = std::unique_ptr<std::FILE, file_closer>;

struct document_deleter {
  void operator()(json_document* document) const { json_document_free(document); }
};
using document_owner = std::unique_ptr<json_document, document_deleter>;

// Everything that can be read of the file; one that fails half-way is left to the parser to complain about.
std::string read_whole(std::FILE* file) {
  struct stat status {};
  std::size_t size = 4096;
  // One byte more than the file has, so that the end is met without growing.
  if (fstat(fileno(file), &status) == 0 && status.st_size > 0) size = static_cast<std::size_t>(status.st_size) + 1;
  std::string text;
  std::size_t filled = 0;
  for (;;) {
    text.resize(size);
    filled += std::fread(text.data() + filled, 1, size - filled, file);
    if (filled < size) break;
    size *= 2;
  }
  text.resize(filled);
  return text;
}

// Reads through a null pointer. The pointer is volatile and the sanitizer's own test is off, so that what ends the
// process is the fault itself, however this is built.
[[noreturn]] __attribute__((no_sanitize("undefined"), noinline)) void fault_on_null_text(const char* text) {
  const volatile char* volatile place = text;
  static_cast<void>(*place);  // cppcheck-suppress nullPointerRedundantCheck
  std::abort();
}

std::uint64_t count_children(const json_token* token) {
  std::uint64_t count = 0;
  for (const json_token* child = json_first_child(token); child != nullptr; child = json_next_sibling(child)) ++count;
  return count;
}

// The block that an array stands for; false, with a line in the log, if the array is too short.
bool read_block(const json_token* array, basic_block_record& block) {
  const json_token* field = json_first_child(array);
  if (field == nullptr) {
    log(LEVEL_WARN, "No data in basic block");
    return false;
  }
  for (std::size_t position = 0; position < bb_keys.size(); ++position, field = json_next_sibling(field)) {
    if (field == nullptr) {
      log(LEVEL_WARN, "Not enough field in basic block");
      return false;
    }
    switch (position) {
      case 0: block.start = get_pointer_from_hex_string_token(field); break;
      case 1: block.end = get_pointer_from_hex_string_token(field); break;
      case 2: block.dump_start = get_pointer_from_hex_string_token(field); break;
      case 3: block.dump_end = get_pointer_from_hex_string_token(field); break;
      case 4: block.flop = json_get_integer(field); break;
      case 5: block.count = json_get_integer(field); break;
      case 6: block.vector_length = static_cast<std::int32_t>(json_get_integer(field)); break;
      default: {
        const char* module = json_get_string(field);
        if (module == nullptr) {
          log(LEVEL_WARN, "Failed to parse module name in basic block");
          // Deliberate: a block that belongs to no file can't be shown, and leaving it out would falsify the region's
          // sum unseen. No file that this tool has written has such a block.
          fault_on_null_text(module);
        }
        block.module = module;
      }
    }
  }
  return true;
}

// The member under `key` if it has the wanted type; null, with a line in the log, otherwise.
const json_token* read_typed_token(const json_index& index, const char* key, json_token_type expected) {
  const json_token* token = read_token(index, key);
  if (token == nullptr) return nullptr;
  const json_token_type actual = json_get_type(token);
  if (actual != expected) {
    log(LEVEL_WARN, "Wrong type when reading json, actual type = %d, expected = %d", actual, expected);
    return nullptr;
  }
  return token;
}

}  // namespace

bool write(const std::string& path, const collector_report& report) {
  json_token_owner root = fill_json(report.regions, report.benchmarks, report.threads);
  const bool done = replace_content(path, *root);
  const int cause = errno;
  root.reset();
  errno = cause;
  return done;
}

json_token_owner fill_json(const std::vector<region_metric>& regions, const benchmark_report& benchmarks,
                           std::uint64_t threads, roofs_state state) {
  json_token_owner root = new_object();

  json_token_owner region_objects = new_object();
  for (const region_metric& region : regions) {
    add_member(*region_objects, region.name.c_str(), fill_json_per_region(region));
  }
  add_member(*root, "regions", std::move(region_objects));

  json_token_owner key_array = new_array();
  for (const char* key : bb_keys) add_element(*key_array, new_string(key));
  add_member(*root, "bb_keys", std::move(key_array));

  add_member(*root, "threads", new_integer(threads));

  if (!benchmarks.empty()) {
    const std::vector<benchmark_result>* roofs = benchmarks.find(threads);
    if (roofs != nullptr) {
      add_member(*root, "roofs", roofs_array(*roofs));
    } else if (state == ROOFS_COMPLETE) {
      log(LEVEL_WARN, "No benchmark result for max parallel threads");
    }
    json_token_owner by_count = new_object();
    for (const auto& [count, count_roofs] : benchmarks) {
      add_member(*by_count, std::to_string(count).c_str(), roofs_array(count_roofs));
    }
    add_member(*root, "roofs_by_num_threads", std::move(by_count));
  }
  return root;
}

json_token_owner fill_json_per_region(const region_metric& region) {
  log(LEVEL_DEBUG, "region %s has %ld bbs and %ld perf events", region.name.c_str(),
      static_cast<long>(region.bbs.size()), static_cast<long>(region.metrics.size()));
  // Unsigned, so that a sum beyond 64 bits wraps.
  std::uint64_t flop = 0;
  json_token_owner blocks = new_array();
  for (const auto& [start, block] : region.bbs) {
    flop += static_cast<std::uint64_t>(block.flop) * static_cast<std::uint64_t>(block.count);
    add_element(*blocks, block_array(block));
  }

  json_token_owner object = new_object();
  add_member(*object, "flop", new_integer(flop));
  add_member(*object, "threads", new_integer(region.threads));
  add_member(*object, "bbs", std::move(blocks));
  for (const auto& [name, value] : region.metrics) add_member(*object, name.c_str(), new_integer(value));
  return object;
}

collector_report read(const std::string& path) {
  log(LEVEL_INFO, "Reading collector report from %s", path.c_str());
  collector_report report;
  const int fd = open_unless_foreign_link(path, O_RDONLY | O_CLOEXEC, 0);
  // A device holds no earlier result, and some of them never end.
  struct stat status {};
  if (fd >= 0 && fstat(fd, &status) == 0 && S_ISCHR(status.st_mode)) {
    close(fd);
    log(LEVEL_DEBUG, "%s is a device: nothing is read", path.c_str());
    return report;
  }
  file_owner file(fd >= 0 ? fdopen(fd, "rb") : nullptr);
  if (file == nullptr) {
    log(LEVEL_DEBUG, "failed to open %s for reading", path.c_str());
    return report;
  }

  json_document* parsed = nullptr;
  {
    // The tree does not refer to the text: it goes before the records are made.
    const std::string text = read_whole(file.get());
    file.reset();
    json_parse(text.c_str(), &parsed);
  }
  const document_owner document(parsed);
  if (json_document_error(parsed) != JSON_OK) {
    const char* message = json_document_error_message(parsed);
    log(LEVEL_WARN, "failed to parse json from %s with error %s.", path.c_str(),
        message != nullptr ? message : "(null)");
  }

  const json_index members = make_json_index(json_document_root(parsed));
  if (const json_token* regions = read_token(members, "regions")) report.regions = read_regions_metric(regions);
  report.threads = static_cast<std::uint64_t>(read_int_from_token(members, "threads"));
  if (const json_token* roofs = read_token(members, "roofs_by_num_threads")) {
    report.benchmarks = read_benchmarks_res(roofs);
  }
  return report;
}

std::vector<region_metric> read_regions_metric(const json_token* token) {
  std::vector<region_metric> regions;
  const json_token_type type = json_get_type(token);
  if (type != JSON_OBJECT) {
    log(LEVEL_WARN, "Wrong type for region in json, actual type = %d", type);
    return regions;
  }
  regions.reserve(regions_at_start);
  for (const json_token* member = json_first_child(token); member != nullptr; member = json_next_sibling(member)) {
    const json_index index = make_json_index(member);
    region_metric& region = regions.emplace_back();
    region.name = json_get_key(member);
    region.flop = static_cast<std::uint64_t>(read_int_from_token(index, "flop"));
    region.threads = static_cast<std::uint64_t>(read_int_from_token(index, "threads"));
    region.bbs = read_basic_blocks(read_token(index, "bbs"));
    for (const std::string& name : roofline_metric_names) {
      region.metrics.insert(name, static_cast<std::uint64_t>(read_int_from_token(index, name.c_str())));
    }
  }
  return regions;
}

basic_block_table read_basic_blocks(const json_token* token) {
  basic_block_table blocks;
  flat_table<std::uint64_t, std::uint32_t> changes;  // How often the code at a start has been another block.
  // The file has the blocks in the order of a table's slots.
  blocks.reserve(count_children(token));
  for (const json_token* array = json_first_child(token); array != nullptr; array = json_next_sibling(array)) {
    basic_block_record block;
    if (!read_block(array, block)) continue;
    const std::uint64_t start = block.start;
    std::uint64_t key = start;
    // Generated code lies at no offset of a file. Of two blocks of files with one start the first one stays.
    const bool is_generated = block.dump_start == start;
    if (is_generated && blocks.find(start) != nullptr) key = changed_block_key(start, ++changes[start]);
    blocks.insert(key, std::move(block));
  }
  return blocks;
}

benchmark_report read_benchmarks_res(const json_token* token) {
  const json_token_type type = json_get_type(token);
  if (type != JSON_OBJECT) {
    log(LEVEL_WARN, "Wrong type for roofs_by_threads in json, actual type = %d", type);
    return {};
  }
  benchmark_report benchmarks;
  for (const json_token* member = json_first_child(token); member != nullptr; member = json_next_sibling(member)) {
    const std::uint64_t count = std::stoul(json_get_key(member));
    const json_token_type roofs_type = json_get_type(member);
    if (roofs_type != JSON_ARRAY) {
      log(LEVEL_WARN, "Wrong type for roofs in json, actual type = %d", roofs_type);
      return {};
    }
    std::vector<benchmark_result> roofs;
    for (const json_token* element = json_first_child(member); element != nullptr;
         element = json_next_sibling(element)) {
      const json_index index = make_json_index(element);
      benchmark_result& roof = roofs.emplace_back();
      roof.name = read_str_from_token(index, "name");
      roof.value = read_int_from_token(index, "value");
      roof.measure = read_str_from_token(index, "measure");
      roof.is_compute = read_bool_from_token(index, "is_compute");
    }
    benchmarks.insert(count, std::move(roofs));
  }
  return benchmarks;
}

json_index make_json_index(const json_token* token) {
  json_index index;
  for (const json_token* member = json_first_child(token); member != nullptr; member = json_next_sibling(member)) {
    if (const char* key = json_get_key(member)) index.emplace(key, member);
  }
  return index;
}

const json_token* read_token(const json_index& index, const char* key) {
  const auto place = index.find(key);
  if (place == index.end()) {
    log(LEVEL_DEBUG, "Failed to read key %s from json", key);
    return nullptr;
  }
  return place->second;
}

std::int64_t read_int_from_token(const json_index& index, const char* key) {
  return json_get_integer(read_typed_token(index, key, JSON_INTEGER));
}

std::string read_str_from_token(const json_index& index, const char* key) {
  const char* text = json_get_string(read_typed_token(index, key, JSON_STRING));
  return text != nullptr ? text : "";
}

bool read_bool_from_token(const json_index& index, const char* key) {
  return json_get_bool(read_typed_token(index, key, JSON_BOOL)) != 0;
}

std::uint64_t get_pointer_from_hex_string_token(const json_token* token) {
  const json_token_type type = json_get_type(token);
  if (type != JSON_STRING) {
    log(LEVEL_WARN, "Expect string in basic block field but get json_token_type=%d", type);
    return 0;
  }
  const char* text = json_get_string(token);
  if (text == nullptr) {
    log(LEVEL_WARN, "Failed to read basic block field");
    return 0;
  }
  return std::strtoul(text, nullptr, 16);
}

}  // namespace ceilmeter
