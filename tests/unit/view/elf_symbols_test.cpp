#include "view/elf_symbols.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "../support/scratch_folder.h"
#include "elf_file.h"

namespace ceilmeter::view {
namespace {

using test::elf_file;
using test::scratch_folder;

constexpr std::uint64_t address = elf_file::code_address;
constexpr std::uint64_t offset = elf_file::code_offset;

elf_functions functions_in(const std::string& bytes) {
  const scratch_folder folder;
  const int descriptor = open(folder.write("module", bytes).c_str(), O_RDONLY | O_CLOEXEC);
  elf_functions read = read_elf_functions(descriptor);
  close(descriptor);
  return read;
}

elf_file small_file() {
  return {std::vector<std::uint32_t>(16), {{"second", address + 16, 16}, {"first", address, 8}}};
}

TEST(elf_symbols, functions_are_told_by_their_place_in_the_file) {
  const elf_functions read = functions_in(small_file().bytes());
  EXPECT_EQ(read.error, "");
  ASSERT_EQ(read.functions.size(), 2U);
  EXPECT_EQ(read.functions[0].name, "first");
  EXPECT_EQ(read.functions[0].offset, offset);
  EXPECT_EQ(read.functions[1].name, "second");
  EXPECT_EQ(read.functions[1].offset, offset + 16);
  EXPECT_EQ(read.functions[1].size, 16U);
}

TEST(elf_symbols, function_holds_the_offsets_of_its_size_and_no_others) {
  const elf_functions read = functions_in(small_file().bytes());
  EXPECT_EQ(find_function(read.functions, offset - 1), nullptr);
  EXPECT_EQ(find_function(read.functions, offset + 7)->name, "first");
  EXPECT_EQ(find_function(read.functions, offset + 8), nullptr);
  EXPECT_EQ(find_function(read.functions, offset + 31)->name, "second");
  EXPECT_EQ(find_function(read.functions, offset + 32), nullptr);
}

TEST(elf_symbols, function_of_unknown_size_ends_where_the_next_begins) {
  elf_file file = small_file();
  for (test::elf_symbol& one : file.symbols) one.size = 0;
  const elf_functions read = functions_in(file.bytes());
  EXPECT_EQ(find_function(read.functions, offset + 15)->name, "first");
  EXPECT_EQ(find_function(read.functions, offset + 16)->name, "second");
  EXPECT_EQ(find_function(read.functions, offset + 1000)->name, "second");
}

TEST(elf_symbols, of_several_names_of_one_place_the_global_one_stays) {
  elf_file file = small_file();
  file.symbols = {{"a_local", address, 8, 0x02}, {"b_weak", address, 8, 0x22}, {"c_global", address, 8, 0x12}};
  const elf_functions read = functions_in(file.bytes());
  ASSERT_EQ(read.functions.size(), 1U);
  EXPECT_EQ(read.functions[0].name, "c_global");
}

TEST(elf_symbols, data_undefined_names_and_addresses_outside_of_segments_are_left_out) {
  elf_file file = small_file();
  file.symbols = {{"data", address, 8, 0x11},
                  {"undefined", address, 8, 0x12, 0},
                  {"outside", address + 64, 8},
                  {"indirect", address, 8, 0x1A}};
  const elf_functions read = functions_in(file.bytes());
  ASSERT_EQ(read.functions.size(), 1U);
  EXPECT_EQ(read.functions[0].name, "indirect");
}

TEST(elf_symbols, other_files_are_refused_with_a_reason) {
  EXPECT_EQ(functions_in("").error, "it is no ELF file for AArch64");
  EXPECT_EQ(functions_in("#!/bin/sh\n").error, "it is no ELF file for AArch64");
  elf_file other = small_file();
  other.machine = 62;
  EXPECT_EQ(functions_in(other.bytes()).error, "it is no ELF file for AArch64");
  const scratch_folder folder;
  const int descriptor = open(folder.path().c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(read_elf_functions(descriptor).error, "it is no regular file");
  close(descriptor);
}

TEST(elf_symbols, tables_that_do_not_fit_the_file_are_left_out) {
  const auto count_with = [](auto change) {
    elf_file file = small_file();
    change(file);
    const elf_functions read = functions_in(file.bytes());
    EXPECT_EQ(read.error, "");
    return read.functions.size();
  };
  EXPECT_EQ(count_with([](elf_file&) {}), 2U);
  EXPECT_EQ(count_with([](elf_file& file) { file.table_entry = 16; }), 0U);
  EXPECT_EQ(count_with([](elf_file& file) { file.names_section = 3; }), 0U);
  EXPECT_EQ(count_with([](elf_file& file) { file.names_section = 1; }), 0U) << "the table itself is no table of names";
  EXPECT_EQ(count_with([](elf_file& file) { file.table_size_more = 1 << 20; }), 0U);
  EXPECT_EQ(count_with([](elf_file& file) { file.names_size_more = UINT64_MAX / 2; }), 0U);
  EXPECT_EQ(count_with([](elf_file& file) { file.table_type = 11; }), 2U) << "the dynamic symbols";
}

TEST(elf_symbols, cut_files_are_read_as_far_as_they_go) {
  const std::string whole = small_file().bytes();
  for (std::size_t size = 0; size < whole.size(); size += 13) {
    EXPECT_TRUE(functions_in(whole.substr(0, size)).functions.empty()) << size;
  }
}

TEST(elf_symbols, random_damage_is_survived) {
  const std::string whole = small_file().bytes();
  const unsigned seed = 1;
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    std::string damaged = whole;
    // The headers and tables, not the nothing between the program header and the code.
    for (int change = 0; change < 4; ++change) {
      const std::size_t at = random() % 2 == 0 ? random() % 120 : offset + random() % (whole.size() - offset);
      damaged[at] = static_cast<char>(random() % 4 == 0 ? 0xFF : random());
    }
    for (const elf_function& one : functions_in(damaged).functions) EXPECT_FALSE(one.name.empty()) << round;
  }
}

}  // namespace
}  // namespace ceilmeter::view
