// Words of an independent assembler (vectors.txt), both ways: fields to the assembler's word and the word to its class
// and fields. The words that must not be recognised stand in the same file.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"
#include "family_calls.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::class_name;
using test::hex;

struct vector_line {
  std::uint32_t word;
  int instruction;  // A64_NOT_RECOGNISED for "-".
  std::vector<std::uint32_t> fields;
  std::string assembly;
};

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

int value_of(const std::string& name) {
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    if (name == a64_classes[value].name) {
      return value;
    }
  }
  if (name != "-") {
    ADD_FAILURE() << "vectors.txt names a class '" << name << "' that is none";
  }
  return A64_NOT_RECOGNISED;
}

std::vector<vector_line> read_vectors() {
  std::vector<vector_line> vectors;
  std::ifstream file(CEILMETER_A64_VECTORS);
  EXPECT_TRUE(file.is_open()) << CEILMETER_A64_VECTORS;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::istringstream columns(line);
    std::string word, name, values, assembly;
    std::getline(columns, word, '|');
    std::getline(columns, name, '|');
    std::getline(columns, values, '|');
    std::getline(columns, assembly);
    vector_line& entry = vectors.emplace_back();
    entry.word = static_cast<std::uint32_t>(std::stoul(word, nullptr, 16));
    entry.instruction = value_of(trimmed(name));
    entry.assembly = trimmed(assembly);
    std::istringstream texts(values);
    for (std::string text; texts >> text;) {
      entry.fields.push_back(static_cast<std::uint32_t>(std::stoul(text, nullptr, 0)));
    }
  }
  return vectors;
}

const std::vector<vector_line>& vectors() {
  static const std::vector<vector_line> all = read_vectors();
  return all;
}

TEST(a64_vectors, encode_to_the_assemblers_word) {
  for (const vector_line& entry : vectors()) {
    if (entry.instruction == A64_NOT_RECOGNISED) {
      continue;
    }
    ASSERT_EQ(entry.fields.size(), a64_classes[entry.instruction].field_count) << entry.assembly;
    std::uint32_t word = 0;
    family_calls[entry.instruction].encode(&word, entry.fields.data());
    EXPECT_EQ(hex(word), hex(entry.word)) << entry.assembly;
  }
}

TEST(a64_vectors, decode_to_their_class_and_fields) {
  for (const vector_line& entry : vectors()) {
    if (entry.instruction == A64_NOT_RECOGNISED) {
      continue;
    }
    const int decoded = a64_decode(&entry.word);
    EXPECT_EQ(decoded, entry.instruction) << entry.assembly << ", decoded as " << class_name(decoded);
    std::uint32_t fields[A64_MOST_FIELDS] = {};
    family_calls[entry.instruction].decode(&entry.word, fields);
    EXPECT_EQ(std::vector<std::uint32_t>(fields, fields + entry.fields.size()), entry.fields) << entry.assembly;
  }
}

TEST(a64_vectors, on_the_negative_list_are_not_recognised) {
  int negatives = 0;
  for (const vector_line& entry : vectors()) {
    if (entry.instruction == A64_NOT_RECOGNISED) {
      ++negatives;
      const int decoded = a64_decode(&entry.word);
      EXPECT_EQ(decoded, A64_NOT_RECOGNISED)
          << entry.assembly << " (" << hex(entry.word) << ") decoded as " << class_name(decoded);
    }
  }
  EXPECT_GE(negatives, 50);
}

TEST(a64_vectors, hold_two_words_of_every_class_that_has_more_than_one_and_whose_words_are_allocated) {
  std::vector<int> count(A64_NOT_RECOGNISED + 1);
  for (const vector_line& entry : vectors()) {
    ++count[entry.instruction];
  }
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    // Every allocated word of scalar_pairwise belongs to a class broken out of it.
    const int wanted = value == A64_SCALAR_PAIRWISE ? 0 : a64_classes[value].field_count == 0 ? 1 : 2;
    EXPECT_GE(count[value], wanted) << class_name(value);
  }
}

}  // namespace
}  // namespace ceilmeter
