// Rows are chosen by group. They are chosen by name where a group contains instructions whose result two runs need not
// share: it depends on a secret of the process (pointer authentication), or on chance.
#include "encodings.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

namespace ceilmeter {

namespace {

bool starts_with(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

bool starts_with_one_of(const std::string& text, const std::vector<const char*>& starts) {
  return std::any_of(starts.begin(), starts.end(), [&](const char* start) { return starts_with(text, start); });
}

struct group_use {
  const char* group;
  row_use use;
};

constexpr group_use GROUPS[] = {
    {"dpimm/addsub_imm", row_use::GENERAL},
    {"dpimm/bitfield", row_use::GENERAL},
    {"dpimm/extract", row_use::GENERAL},
    {"dpimm/log_imm", row_use::GENERAL},
    {"dpimm/minmax_imm", row_use::GENERAL},
    {"dpimm/movewide", row_use::GENERAL},
    {"dpreg/addsub_carry", row_use::GENERAL},
    {"dpreg/addsub_ext", row_use::GENERAL},
    {"dpreg/addsub_shift", row_use::GENERAL},
    {"dpreg/condcmp_imm", row_use::GENERAL},
    {"dpreg/condcmp_reg", row_use::GENERAL},
    {"dpreg/condsel", row_use::GENERAL},
    {"dpreg/dp_1src", row_use::GENERAL},
    {"dpreg/dp_2src", row_use::GENERAL},
    {"dpreg/dp_3src", row_use::GENERAL},
    {"dpreg/log_shift", row_use::GENERAL},
    {"dpreg/rmif", row_use::GENERAL},
    {"dpreg/setf", row_use::GENERAL},
    {"control/hints", row_use::SYSTEM},
    {"control/barriers", row_use::SYSTEM},
    {"control/pstate", row_use::SYSTEM},
    {"ldst/ldst_unscaled", row_use::OFFSET_9},
    {"ldst/ldst_unpriv", row_use::OFFSET_9},
    {"ldst/ldapstl_unscaled", row_use::ORDERED_9},
    {"ldst/ldst_immpost", row_use::WRITEBACK_9},
    {"ldst/ldst_immpre", row_use::WRITEBACK_9},
    {"ldst/ldst_pos", row_use::OFFSET_12},
    {"ldst/ldst_regoff", row_use::INDEXED},
    {"ldst/ldstpair_off", row_use::PAIR},
    {"ldst/ldstnapair_offs", row_use::PAIR},
    {"ldst/ldstpair_post", row_use::PAIR_WRITEBACK},
    {"ldst/ldstpair_pre", row_use::PAIR_WRITEBACK},
    {"ldst/ldstord", row_use::BASE},
    {"ldst/comswap", row_use::BASE},
    {"ldst/memop", row_use::BASE},
    {"ldst/comswappr", row_use::CAS_PAIR},
    {"ldst/asisdlse", row_use::STRUCTURE},
    {"ldst/asisdlso", row_use::STRUCTURE},
    {"ldst/asisdlsep", row_use::STRUCTURE_POST},
    {"ldst/asisdlsop", row_use::STRUCTURE_POST},
};

// Pointer authentication depends on the process's keys, allocation tags on chance. WFE and WFI wait, and HINT is
// all of these. The stores of 64 bytes are for devices; read-check-write needs tables of the operating system's.
const std::vector<const char*> REFUSED = {"PAC",   "AUT",  "IRG",   "WFE",   "WFI", "MSR_SI", "GCS", "CHKFEAT", "STSHH",
                                          "STCPH", "HINT", "LD64B", "ST64B", "RCW", "STG",    "LDG", "SHUH"};
// Of SVE these are left out: the stack pointer as result, and a first-fault register that no load has left like this.
const std::vector<const char*> REFUSED_SVE = {"addvl", "addpl", "addsvl", "addspl", "wrffr"};

std::optional<row_use> use_of(const std::string& group, const std::string& name) {
  if (starts_with_one_of(name, REFUSED)) return std::nullopt;
  if (starts_with(group, "simd_dp/float")) return row_use::FLOATING;
  if (starts_with(group, "simd_dp/")) return row_use::VECTOR;
  if (starts_with(group, "sve/")) {
    if (starts_with(group, "sve/sve_mem") || starts_with_one_of(name, REFUSED_SVE)) return std::nullopt;
    return row_use::SVE;
  }
  for (const group_use& one : GROUPS) {
    if (group == one.group) return one.use;
  }
  return std::nullopt;
}

bool is_sp_destination(const encoding& row) {
  constexpr std::uint32_t set_flags = 1u << 29;
  constexpr std::uint32_t logical_with_flags = 3u << 29;
  if (row.group == "dpimm/addsub_imm" || row.group == "dpreg/addsub_ext") return (row.value & set_flags) == 0;
  if (row.group == "dpimm/log_imm") return (row.value & logical_with_flags) != logical_with_flags;
  return false;
}

bool parse_fields(const std::string& text, std::vector<row_field>* fields) {
  std::istringstream stream(text);
  std::string part;
  while (stream >> part) {
    const std::size_t first = part.find(':');
    const std::size_t second = part.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) return false;
    fields->push_back({part.substr(0, first),
                       static_cast<std::uint8_t>(std::strtoul(part.c_str() + first + 1, nullptr, 10)),
                       static_cast<std::uint8_t>(std::strtoul(part.c_str() + second + 1, nullptr, 10))});
  }
  return true;
}

std::uint32_t bits(std::uint8_t width) { return static_cast<std::uint32_t>((std::uint64_t{1} << width) - 1); }

std::uint32_t set_field(std::uint32_t word, const row_field& field, std::uint32_t value) {
  const std::uint32_t place = bits(field.width) << field.low;
  return (word & ~place) | (value << field.low & place);
}

bool is_memory(row_use use) { return use >= row_use::OFFSET_9; }

std::uint32_t probe_register(row_use use, const std::string& name, random_source& random) {
  if (is_memory(use)) {
    if (name == "Rn") return PROBE_BASE_REGISTER;
    if (name == "Rm") return PROBE_INDEX_REGISTER;
    return name == "Rt" ? 4 : name == "Rt2" ? 5 : 6;
  }
  return random.between(2, 7);
}

std::uint32_t random_word(const encoding& row, random_source& random) {
  std::uint32_t word = row.value;
  for (const row_field& field : row.fields) {
    const bool is_register = field.name[0] == 'R' && field.width == 5;
    const std::uint32_t value =
        is_register ? probe_register(row.use, field.name, random) : static_cast<std::uint32_t>(random.next());
    word = set_field(word, field, value);
  }
  return word;
}

const row_field* find_field(const encoding& row, const char* name) {
  for (const row_field& field : row.fields) {
    if (field.name == name) return &field;
  }
  return nullptr;
}

}  // namespace

encoding_set read_encodings(const std::string& path) {
  encoding_set set;
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#' || starts_with(line, "class\t")) continue;
    std::istringstream stream(line);
    std::string group;
    std::string name;
    std::string mask;
    std::string value;
    std::string fields;
    std::getline(stream, group, '\t');
    std::getline(stream, name, '\t');
    std::getline(stream, mask, '\t');
    std::getline(stream, value, '\t');
    std::getline(stream, fields, '\t');
    const std::optional<row_use> use = use_of(group, name);
    if (!use) continue;
    encoding row = {name,
                    group,
                    static_cast<std::uint32_t>(std::strtoul(mask.c_str(), nullptr, 16)),
                    static_cast<std::uint32_t>(std::strtoul(value.c_str(), nullptr, 16)),
                    {},
                    *use,
                    false,
                    {}};
    if (row.mask == 0 || !parse_fields(fields, &row.fields)) return {};
    row.sp_destination = is_sp_destination(row);
    set.rows.push_back(std::move(row));
  }
  return set;
}

void sample_words(encoding_set& set, std::uint32_t count) {
  random_source random(0x5eed);
  for (encoding& row : set.rows) {
    std::uint32_t free_bits = 0;
    for (const row_field& field : row.fields) {
      if (!(field.name[0] == 'R' && field.width == 5)) free_bits += field.width;
    }
    const std::uint32_t wanted = free_bits == 0 ? 1 : std::min(count, 4u << std::min(free_bits, 20u));
    for (std::uint32_t i = 0; i < wanted; ++i) row.words.push_back(random_word(row, random));
  }
}

std::vector<std::uint32_t> words_to_probe(const encoding_set& set) {
  std::vector<std::uint32_t> words;
  for (const encoding& row : set.rows) words.insert(words.end(), row.words.begin(), row.words.end());
  return words;
}

bool keep_executable(encoding_set& set, const std::string& verdicts) {
  std::size_t at = 0;
  for (std::uint32_t index = 0; index < set.rows.size(); ++index) {
    encoding& row = set.rows[index];
    std::vector<std::uint32_t> kept;
    for (const std::uint32_t word : row.words) {
      if (at >= verdicts.size()) return false;
      if (verdicts[at++] == '1') kept.push_back(word);
    }
    row.words = std::move(kept);
    if (!row.words.empty()) set.by_use[static_cast<std::size_t>(row.use)].push_back(index);
  }
  return at == verdicts.size();
}

std::uint32_t field_of(const encoding& row, std::uint32_t word, const char* name) {
  const row_field* field = find_field(row, name);
  return field == nullptr ? 0 : word >> field->low & bits(field->width);
}

std::uint32_t with_field(const encoding& row, std::uint32_t word, const char* name, std::uint32_t value) {
  const row_field* field = find_field(row, name);
  return field == nullptr ? word : set_field(word, *field, value);
}

bool has_field(const encoding& row, const char* name) { return find_field(row, name) != nullptr; }

}  // namespace ceilmeter
