// The encodings of which random programs are made: rows of tools/a64/a64_encodings.tsv, the table behind decoder and
// encoders, chosen by their groups. The table does not say which values of a row's fields a processor knows. So each
// row gets a number of words with random fields, and a probe program tells which of them the processor executes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "random_source.h"

namespace ceilmeter {

// What a row needs around it.
enum class row_use : std::uint8_t {
  GENERAL,         // Works on general registers and flags alone.
  VECTOR,          // On vector registers, and at most general ones.
  FLOATING,        // Scalar floating point.
  SYSTEM,          // Hints, barriers, flag manipulation.
  SVE,             // Scalable vectors and predicates, no memory.
  OFFSET_9,        // Loads and stores, by the way they form the address: base and signed 9 bits,
  ORDERED_9,       // the same, aligned,
  WRITEBACK_9,     // the same with the base changed,
  OFFSET_12,       // base and scaled 12 bits,
  INDEXED,         // base and register,
  PAIR,            // two registers, base and scaled 7 bits,
  PAIR_WRITEBACK,  // the same with the base changed,
  BASE,            // aligned base alone,
  CAS_PAIR,        // the same, with pairs of registers that begin at even numbers,
  STRUCTURE,       // one or several vector registers, base alone,
  STRUCTURE_POST,  // the same with the base changed by a register or constant.
  COUNT,
};

struct row_field {
  std::string name;
  std::uint8_t low;
  std::uint8_t width;
};

struct encoding {
  std::string name;
  std::string group;
  std::uint32_t mask;
  std::uint32_t value;
  std::vector<row_field> fields;
  row_use use;
  bool sp_destination;               // Register 31 as Rd is the stack pointer.
  std::vector<std::uint32_t> words;  // With register fields as set_probe_registers leaves them.
};

struct encoding_set {
  std::vector<encoding> rows;
  std::vector<std::uint32_t> by_use[static_cast<std::size_t>(row_use::COUNT)];  // Indices of rows that have words.

  const std::vector<std::uint32_t>& of(row_use use) const { return by_use[static_cast<std::size_t>(use)]; }
};

// Registers that probe.c sets up for what it executes.
constexpr std::uint32_t PROBE_BASE_REGISTER = 2;   // An address in the middle of memory, aligned.
constexpr std::uint32_t PROBE_INDEX_REGISTER = 3;  // Small.

// Reads the table and keeps the rows that a program may contain. Empty if the file cannot be read or a line is not in
// the table's form.
encoding_set read_encodings(const std::string& path);

// Gives every row `count` words with random fields (fewer where the fields have fewer values), registers set for the
// probe. The words depend on nothing but the table and the count.
void sample_words(encoding_set& set, std::uint32_t count);

// All words in order, for the probe. And the probe's answer in the same order: one letter each, '1' for words that it
// could execute. False if the answer does not fit the question. Rows without a remaining word are not in by_use.
std::vector<std::uint32_t> words_to_probe(const encoding_set& set);
bool keep_executable(encoding_set& set, const std::string& verdicts);

// The value of a row's field in a word, and the word with another; a row without that field leaves the word as it is.
std::uint32_t field_of(const encoding& row, std::uint32_t word, const char* name);
std::uint32_t with_field(const encoding& row, std::uint32_t word, const char* name, std::uint32_t value);
bool has_field(const encoding& row, const char* name);

}  // namespace ceilmeter
