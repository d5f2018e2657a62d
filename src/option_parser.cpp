// Long options are told from short ones by their value: a row's long form has 1000 plus the row's index, beyond any
// character.
#include "option_parser.h"

#include <getopt.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

namespace ceilmeter {

namespace {

constexpr int first_long_value = 1000;
constexpr std::size_t short_options_size = 1024;

std::size_t count_rows(const option_entry* table) {
  std::size_t count = 0;
  while (table[count].short_name != 0 || table[count].long_name != nullptr) ++count;
  return count;
}

// The short option string. The leading "+" ends the parsing at the first word that is no option.
std::array<char, short_options_size> short_option_string(const option_entry* table, std::size_t rows) {
  std::array<char, short_options_size> text{};
  text[0] = '+';
  std::size_t length = 1;
  const auto append = [&](const char* piece) {
    const std::size_t piece_length = std::strlen(piece);
    if (length + piece_length >= text.size()) return;
    std::memcpy(text.data() + length, piece, piece_length);
    length += piece_length;
  };
  for (std::size_t row = 0; row < rows; ++row) {
    if (table[row].short_name == 0) continue;
    const std::array<char, 2> name = {static_cast<char>(table[row].short_name), '\0'};
    append(name.data());
    if (table[row].argument_kind == ARGUMENT_REQUIRED) append(":");
    if (table[row].argument_kind == ARGUMENT_OPTIONAL) append("::");
  }
  return text;
}

option_entry* find_short(option_entry* table, std::size_t rows, int value) {
  for (std::size_t row = 0; row < rows; ++row) {
    if (static_cast<int>(table[row].short_name) == value) return &table[row];
  }
  return nullptr;
}

}  // namespace

int parse_options(int argc, char** argv, option_entry* table) {
  const std::size_t rows = count_rows(table);
  std::vector<option> long_options;
  long_options.reserve(rows + 1);
  for (std::size_t row = 0; row < rows; ++row) {
    if (table[row].long_name == nullptr) continue;
    long_options.push_back({table[row].long_name, static_cast<int>(table[row].argument_kind), nullptr,
                            first_long_value + static_cast<int>(row)});
  }
  long_options.push_back({});
  const std::array<char, short_options_size> short_options = short_option_string(table, rows);

  optind = 0;  // Not 1: 0 makes the library forget what an earlier parse left behind.
  for (;;) {
    const int value = getopt_long(argc, argv, short_options.data(), long_options.data(), nullptr);
    if (value == -1) return optind;
    if (value == ':' || value == '?') return -1;
    option_entry* entry = value >= first_long_value ? &table[value - first_long_value] : find_short(table, rows, value);
    if (entry == nullptr) return -1;
    entry->seen = 1;
    entry->argument = optarg;
    if (entry->handler == nullptr) continue;
    const int result = entry->handler(*entry);
    if (result < 0) return result;
  }
}

}  // namespace ceilmeter
