// The result file: a collector_report as JSON and back. docs/result-format.md tells what the file looks like to others.
// The file is also the channel between separate runs, and between the application's process and the tool, so a
// reader takes what it can from a damaged or foreign file and says in the log what it missed.
//
// Nothing here keeps state between calls. Trees and reports belong to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "json/json.h"
#include "report.h"

namespace ceilmeter {

struct json_token_deleter {
  void operator()(json_token* token) const { json_free(token); }
};
// A tree or a subtree that stands in no container.
using json_token_owner = std::unique_ptr<json_token, json_token_deleter>;

// The members of an object by key, made once per object. Of duplicate keys the first one counts. Keys and tokens
// belong to the tree, which must outlive the index.
using json_index = std::unordered_map<std::string_view, const json_token*>;

// Prints the report into the file, in the place of what it holds. True on success; on false `errno` tells why the file
// could not be made or filled, and it holds what it has held before. A crash meanwhile leaves a text that ends early or
// in the middle of an older one.
bool write(const std::string& path, const collector_report& report);

// What the file holds; an empty report if it is not there, which is the normal case of a first run, and what could be
// read of a file that is broken. Two faults are not survived: a block whose last field is no string ends the process
// with a memory fault, and a thread count without digits raises the "stoul" error (std::invalid_argument, or
// std::out_of_range for one too large).
collector_report read(const std::string& path);

// Whether a tree is the last of a run, or another one with the roofs of this run will follow.
enum roofs_state { ROOFS_COMPLETE, ROOFS_FOLLOW };

// The tree of the whole file. The roofs of `threads` stand in it twice, flat and by thread count; if they are missing
// the log says so, unless they follow.
json_token_owner fill_json(const std::vector<region_metric>& regions, const benchmark_report& benchmarks,
                           std::uint64_t threads, roofs_state state = ROOFS_COMPLETE);

// The object of one region. Its "flop" is summed from the blocks, not taken from the record.
json_token_owner fill_json_per_region(const region_metric& region);

// The three parts of a read, each from the token that stands under the part's name. `token` may be null in the second:
// a region without "bbs" has no blocks.
std::vector<region_metric> read_regions_metric(const json_token* token);
basic_block_table read_basic_blocks(const json_token* token);
benchmark_report read_benchmarks_res(const json_token* token);

// An index of the token's members; empty for anything but an object.
json_index make_json_index(const json_token* token);

// The member under `key`; null, with a line in the log, if there is none.
const json_token* read_token(const json_index& index, const char* key);

// The value of the member under `key`. 0, empty or false, with a line in the log, if it is missing or of another type.
std::int64_t read_int_from_token(const json_index& index, const char* key);
std::string read_str_from_token(const json_index& index, const char* key);
bool read_bool_from_token(const json_index& index, const char* key);

// The value of a string token in hexadecimal; 0, with a line in the log, for any other token. Reads as far as there are
// digits; a value that is too large gives the largest one.
std::uint64_t get_pointer_from_hex_string_token(const json_token* token);

}  // namespace ceilmeter
