// The fields are taken from the bytes one by one, in the file's byte order, so that neither <elf.h>, which not every
// system has, nor the alignment of anything matters.
#include "view/elf_symbols.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace ceilmeter::view {

namespace {

constexpr std::size_t file_header_size = 64;
constexpr std::size_t program_header_size = 56;
constexpr std::size_t section_header_size = 64;
constexpr std::size_t symbol_size = 24;
constexpr std::uint64_t max_symbols = std::uint64_t{1} << 22;
constexpr std::uint64_t max_names = std::uint64_t{1} << 28;  // Bytes of a string table.
constexpr std::uint16_t machine_aarch64 = 183;
constexpr std::uint32_t segment_load = 1;
constexpr std::uint32_t section_symbols = 2;
constexpr std::uint32_t section_strings = 3;
constexpr std::uint32_t section_dynamic_symbols = 11;
constexpr unsigned char type_function = 2;
constexpr unsigned char type_indirect_function = 10;
constexpr unsigned char binding_local = 0;
constexpr unsigned char binding_weak = 2;

using bytes = std::vector<unsigned char>;

// A little-endian number of `size` bytes; the caller has checked that they are there.
template <typename T>
T number_at(const bytes& from, std::size_t at) {
  std::uint64_t value = 0;
  for (std::size_t index = 0; index < sizeof(T); ++index) value |= std::uint64_t{from[at + index]} << (8 * index);
  return static_cast<T>(value);
}

struct segment {
  std::uint64_t offset;
  std::uint64_t address;
  std::uint64_t size;  // in the file
};

struct section {
  std::uint32_t type;
  std::uint32_t link;
  std::uint64_t offset;
  std::uint64_t size;
  std::uint64_t entry_size;
};

struct input {
  int descriptor;
  std::uint64_t size;

  // The bytes of a range, or an empty vector if the file does not have all of them.
  bytes read(std::uint64_t offset, std::uint64_t length) const {
    if (length > size || offset > size - length) return {};
    bytes result(length);
    std::size_t filled = 0;
    while (filled < length) {
      const ssize_t got =
          pread(descriptor, result.data() + filled, length - filled, static_cast<off_t>(offset + filled));
      if (got <= 0) return {};
      filled += static_cast<std::size_t>(got);
    }
    return result;
  }
};

// Where the file's header has the place of a table, the size of a row and the number of rows.
struct table_fields {
  std::uint64_t place;
  std::uint64_t row_size;
  std::uint64_t rows;
};

constexpr table_fields program_headers = {32, 54, 56};
constexpr table_fields section_headers = {40, 58, 60};

// Empty if the rows have another size than `row_size`.
bytes read_table(const input& file, const bytes& header, const table_fields& fields, std::uint64_t row_size) {
  if (number_at<std::uint16_t>(header, fields.row_size) != row_size) return {};
  const auto rows = number_at<std::uint16_t>(header, fields.rows);
  return file.read(number_at<std::uint64_t>(header, fields.place), rows * row_size);
}

std::vector<segment> read_segments(const input& file, const bytes& header) {
  const bytes table = read_table(file, header, program_headers, program_header_size);
  std::vector<segment> segments;
  for (std::size_t at = 0; at + program_header_size <= table.size(); at += program_header_size) {
    if (number_at<std::uint32_t>(table, at) != segment_load) continue;
    segments.push_back({number_at<std::uint64_t>(table, at + 8), number_at<std::uint64_t>(table, at + 16),
                        number_at<std::uint64_t>(table, at + 32)});
  }
  return segments;
}

std::vector<section> read_sections(const input& file, const bytes& header) {
  const bytes table = read_table(file, header, section_headers, section_header_size);
  std::vector<section> sections;
  for (std::size_t at = 0; at + section_header_size <= table.size(); at += section_header_size) {
    sections.push_back({number_at<std::uint32_t>(table, at + 4), number_at<std::uint32_t>(table, at + 40),
                        number_at<std::uint64_t>(table, at + 24), number_at<std::uint64_t>(table, at + 32),
                        number_at<std::uint64_t>(table, at + 56)});
  }
  return sections;
}

std::optional<std::uint64_t> offset_of(const std::vector<segment>& segments, std::uint64_t address) {
  for (const segment& one : segments) {
    if (address < one.address || address - one.address >= one.size) continue;
    const std::uint64_t inside = address - one.address;
    if (one.offset > UINT64_MAX - inside) return std::nullopt;
    return one.offset + inside;
  }
  return std::nullopt;
}

// The text at `at` of a string table; empty where it has no end inside of the table.
std::string_view name_at(const bytes& names, std::uint32_t at) {
  if (at >= names.size()) return {};
  const unsigned char* begin = names.data() + at;
  const void* end = std::memchr(begin, 0, names.size() - at);
  if (end == nullptr) return {};
  const auto length = static_cast<std::size_t>(static_cast<const unsigned char*>(end) - begin);
  return {reinterpret_cast<const char*>(begin), length};
}

struct found_function {
  elf_function function;
  int rank;  // Of several at one place the lowest stays.
};

void add_symbols(const input& file, const std::vector<section>& sections, const section& table,
                 const std::vector<segment>& segments, std::vector<found_function>& found) {
  if (table.entry_size != symbol_size || table.link >= sections.size()) return;
  const section& strings = sections[table.link];
  if (strings.type != section_strings || strings.size > max_names) return;
  const bytes names = file.read(strings.offset, strings.size);
  const bytes symbols = file.read(table.offset, std::min(table.size / symbol_size, max_symbols) * symbol_size);
  for (std::size_t at = 0; at + symbol_size <= symbols.size(); at += symbol_size) {
    const unsigned char info = symbols[at + 4];
    const unsigned char type = info & 15;
    const bool is_defined = number_at<std::uint16_t>(symbols, at + 6) != 0;
    if (!is_defined || (type != type_function && type != type_indirect_function)) continue;
    const std::string_view name = name_at(names, number_at<std::uint32_t>(symbols, at));
    const std::optional<std::uint64_t> offset = offset_of(segments, number_at<std::uint64_t>(symbols, at + 8));
    if (name.empty() || !offset) continue;
    const unsigned char binding = info >> 4;
    const int rank = binding == binding_local ? 2 : binding == binding_weak ? 1 : 0;
    found.push_back({{*offset, number_at<std::uint64_t>(symbols, at + 16), std::string(name)}, rank});
  }
}

std::vector<elf_function> one_of_each_place(std::vector<found_function> found) {
  std::sort(found.begin(), found.end(), [](const found_function& left, const found_function& right) {
    // Among equal ranks a function with a size is first, then the shorter name, then the alphabet decides. So the
    // result does not depend on the order of the table.
    const auto key = [](const found_function& one) {
      return std::make_tuple(one.function.offset, one.rank, one.function.size == 0, one.function.name.size());
    };
    return key(left) != key(right) ? key(left) < key(right) : left.function.name < right.function.name;
  });
  std::vector<elf_function> functions;
  for (found_function& one : found) {
    const bool is_new = functions.empty() || functions.back().offset != one.function.offset;
    if (is_new) functions.push_back(std::move(one.function));
  }
  return functions;
}

}  // namespace

elf_functions read_elf_functions(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return {"it is no regular file", {}};
  const input file{descriptor, static_cast<std::uint64_t>(status.st_size)};
  const bytes header = file.read(0, file_header_size);
  constexpr std::array<unsigned char, 6> ident = {0x7f, 'E', 'L', 'F', 2, 1};  // 64 bits, little-endian
  if (header.empty() || !std::equal(ident.begin(), ident.end(), header.begin()) ||
      number_at<std::uint16_t>(header, 18) != machine_aarch64) {
    return {"it is no ELF file for AArch64", {}};
  }
  const std::vector<segment> segments = read_segments(file, header);
  const std::vector<section> sections = read_sections(file, header);
  std::vector<found_function> found;
  for (const section& one : sections) {
    if (one.type == section_symbols || one.type == section_dynamic_symbols) {
      add_symbols(file, sections, one, segments, found);
    }
  }
  return {"", one_of_each_place(std::move(found))};
}

const elf_function* find_function(const std::vector<elf_function>& functions, std::uint64_t offset) {
  const auto behind = std::upper_bound(functions.begin(), functions.end(), offset,
                                       [](std::uint64_t value, const elf_function& one) { return value < one.offset; });
  if (behind == functions.begin()) return nullptr;
  const elf_function& one = *std::prev(behind);
  return one.size == 0 || offset - one.offset < one.size ? &one : nullptr;
}

}  // namespace ceilmeter::view
