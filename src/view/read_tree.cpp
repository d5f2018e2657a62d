// The tree's tokens are matched by key, type by type. A figure of a wrong type counts as absent; blocks that can't be
// read are left out. Both are counted and told in one note each, since a damaged file can have thousands.
#include "view/read_tree.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <unordered_map>

#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr std::size_t key_count = 8;
using positions = std::array<std::size_t, key_count>;
constexpr std::array<std::string_view, key_count> block_keys = {"start", "end",   "dump_start",    "dump_end",
                                                                "flop",  "count", "vector_length", "module"};
constexpr per_level<std::string_view> byte_keys = {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes"};

struct reader {
  result_file& result;
  positions order = {0, 1, 2, 3, 4, 5, 6, 7};
  std::unordered_map<std::string_view, std::uint32_t> modules = {};  // Keys are the tree's texts.
  std::size_t wrong_types = 0;                                       // figures that aren't integers
  std::size_t skipped_regions = 0;
  std::size_t skipped_blocks = 0;
  std::size_t skipped_roofs = 0;
};

std::string_view text_of(const char* text) { return text != nullptr ? text : ""; }

// The member of that key; of repeated ones the last.
const json_token* member(const json_token* object, std::string_view key) {
  const json_token* found = nullptr;
  if (json_get_type(object) != JSON_OBJECT) return nullptr;
  for (const json_token* child = json_first_child(object); child != nullptr; child = json_next_sibling(child)) {
    if (text_of(json_get_key(child)) == key) found = child;
  }
  return found;
}

count integer(reader& state, const json_token* token) {
  if (token == nullptr) return std::nullopt;
  if (json_get_type(token) == JSON_INTEGER) return json_get_integer(token);
  ++state.wrong_types;
  return std::nullopt;
}

bool hexadecimal(const json_token* token, std::uint64_t& value) {
  if (json_get_type(token) != JSON_STRING) return false;
  const std::string_view text = text_of(json_get_string(token));
  const auto done = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return done.ec == std::errc{} && done.ptr == text.data() + text.size();
}

// Positions of the block's fields by the names in bb_keys. A field that isn't named stays at its usual place.
void read_order(reader& state, const json_token* keys) {
  if (json_get_type(keys) != JSON_ARRAY) return;
  std::size_t position = 0;
  for (const json_token* key = json_first_child(keys); key != nullptr; key = json_next_sibling(key), ++position) {
    const std::string_view name = text_of(json_get_string(key));
    const auto* found = std::find(block_keys.begin(), block_keys.end(), name);
    if (found != block_keys.end()) state.order[static_cast<std::size_t>(found - block_keys.begin())] = position;
  }
}

std::uint32_t module_index(reader& state, const char* name) {
  const auto [place, is_new] =
      state.modules.try_emplace(text_of(name), static_cast<std::uint32_t>(state.result.modules.size()));
  if (is_new) state.result.modules.push_back(clean_utf8(text_of(name)));
  return place->second;
}

bool read_block(reader& state, const json_token* token, block& one) {
  if (json_get_type(token) != JSON_ARRAY) return false;
  constexpr std::size_t most_positions = 32;
  std::array<const json_token*, most_positions> items = {};
  std::size_t used = 0;
  for (const json_token* item = json_first_child(token); item != nullptr && used < most_positions;
       item = json_next_sibling(item)) {
    items[used++] = item;
  }
  const auto at = [&](std::size_t key) { return state.order[key] < used ? items[state.order[key]] : nullptr; };
  for (std::size_t key : {4, 5, 6}) {
    if (json_get_type(at(key)) != JSON_INTEGER) return false;
  }
  const std::int64_t elements = json_get_integer(at(6));
  if (elements < std::numeric_limits<std::int32_t>::min() || elements > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  if (!hexadecimal(at(0), one.start) || !hexadecimal(at(1), one.end) || !hexadecimal(at(2), one.dump_start) ||
      !hexadecimal(at(3), one.dump_end) || json_get_type(at(7)) != JSON_STRING) {
    return false;
  }
  one.flop = json_get_integer(at(4));
  one.executions = json_get_integer(at(5));
  one.elements = static_cast<std::int32_t>(elements);
  one.module = module_index(state, json_get_string(at(7)));
  return true;
}

void read_region(reader& state, const json_token* token) {
  if (json_get_type(token) != JSON_OBJECT) {
    ++state.skipped_regions;
    return;
  }
  region& one = state.result.regions.emplace_back();
  one.name = clean_utf8(text_of(json_get_key(token)));
  one.flop = integer(state, member(token, "flop"));
  one.threads = integer(state, member(token, "threads"));
  one.time = integer(state, member(token, "time"));
  for (std::size_t level = 0; level < level_count; ++level) {
    one.bytes[level] = integer(state, member(token, byte_keys[level]));
  }
  const json_token* blocks = member(token, "bbs");
  if (blocks == nullptr) return;
  if (json_get_type(blocks) != JSON_ARRAY) ++state.wrong_types;
  for (const json_token* child = json_first_child(blocks); child != nullptr; child = json_next_sibling(child)) {
    block read;
    if (read_block(state, child, read))
      one.blocks.push_back(read);
    else
      ++state.skipped_blocks;
  }
}

std::vector<roof> read_roofs(reader& state, const json_token* list) {
  std::vector<roof> roofs;
  if (json_get_type(list) != JSON_ARRAY) return roofs;
  for (const json_token* token = json_first_child(list); token != nullptr; token = json_next_sibling(token)) {
    const json_token* name = member(token, "name");
    const json_token* value = member(token, "value");
    const json_token* measure = member(token, "measure");
    const json_token* is_compute = member(token, "is_compute");
    if (json_get_type(name) != JSON_STRING || json_get_type(value) != JSON_INTEGER ||
        json_get_type(is_compute) != JSON_BOOL) {
      ++state.skipped_roofs;
      continue;
    }
    roof& one = roofs.emplace_back();
    one.name = clean_utf8(text_of(json_get_string(name)));
    one.value = json_get_integer(value);
    one.is_compute = json_get_bool(is_compute) != 0;
    one.unit = json_get_type(measure) == JSON_STRING ? clean_utf8(text_of(json_get_string(measure)))
               : one.is_compute                      ? "GFLOPS"
                                                     : "GB/s";
  }
  return roofs;
}

roof_set& set_of(result_file& result, std::uint64_t threads) {
  const auto place = std::find_if(result.roofs.begin(), result.roofs.end(),
                                  [threads](const roof_set& set) { return set.threads >= threads; });
  if (place != result.roofs.end() && place->threads == threads) return *place;
  return *result.roofs.insert(place, roof_set{threads, {}});
}

void read_roof_sets(reader& state, const json_token* root) {
  state.result.root_roofs = read_roofs(state, member(root, "roofs"));
  const json_token* sets = member(root, "roofs_by_num_threads");
  if (sets != nullptr && json_get_type(sets) != JSON_OBJECT) ++state.wrong_types;
  for (const json_token* set = json_first_child(sets); set != nullptr; set = json_next_sibling(set)) {
    const std::string_view key = text_of(json_get_key(set));
    std::uint64_t threads = 0;
    const auto done = std::from_chars(key.data(), key.data() + key.size(), threads);
    if (done.ec != std::errc{} || done.ptr != key.data() + key.size())
      ++state.skipped_roofs;
    else
      set_of(state.result, threads).roofs = read_roofs(state, set);
  }
  // An older file can have the root's list alone.
  if (state.result.root_roofs.empty()) return;
  const auto threads = static_cast<std::uint64_t>(std::max<std::int64_t>(state.result.threads.value_or(0), 0));
  roof_set& root_set = set_of(state.result, threads);
  if (root_set.roofs.empty()) root_set.roofs = state.result.root_roofs;
}

void tell(reader& state, std::size_t number, std::string_view noun, std::string_view what) {
  if (number > 0) state.result.notes.push_back(counted(number, noun) + " " + std::string(what));
}

}  // namespace

std::string read_tree(const json_token* root, result_file& result) {
  if (json_get_type(root) != JSON_OBJECT) return "the document is no object: this is no result file";
  const json_token* regions = member(root, "regions");
  if (regions == nullptr && member(root, "bb_keys") == nullptr && member(root, "roofs") == nullptr &&
      member(root, "roofs_by_num_threads") == nullptr) {
    return "neither regions nor roofs: this is no result file";
  }
  if (regions != nullptr && json_get_type(regions) != JSON_OBJECT) {
    return "\"regions\" is no object: this is no result file";
  }
  reader state{.result = result};
  result.threads = integer(state, member(root, "threads"));
  read_order(state, member(root, "bb_keys"));
  for (const json_token* token = json_first_child(regions); token != nullptr; token = json_next_sibling(token)) {
    read_region(state, token);
  }
  read_roof_sets(state, root);
  tell(state, state.wrong_types, "figure", "of a wrong type: taken as absent.");
  tell(state, state.skipped_regions, "region", "that cannot be read: left out.");
  tell(state, state.skipped_blocks, "block", "that cannot be read: left out of lists and sums.");
  tell(state, state.skipped_roofs, "roof", "that cannot be read: left out.");
  return {};
}

}  // namespace ceilmeter::view
