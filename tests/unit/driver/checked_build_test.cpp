// Programs that were built with a checker, known by their files. A file here has a header, a table of three sections,
// and the names.
#include "checked_build.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "../support/scratch_folder.h"

namespace ceilmeter::test {
namespace {

struct file_with_names {
  Elf64_Ehdr header{};
  Elf64_Shdr sections[3]{};
  std::string names;

  explicit file_with_names(const std::string& text) : names(text) {
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_shoff = sizeof header;
    header.e_shentsize = sizeof(Elf64_Shdr);
    header.e_shnum = 3;
    sections[1].sh_type = SHT_DYNSYM;
    sections[1].sh_link = 2;
    sections[2].sh_type = SHT_STRTAB;
    sections[2].sh_offset = sizeof header + sizeof sections;
    sections[2].sh_size = names.size();
  }

  std::string bytes() const {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) +
           std::string(reinterpret_cast<const char*>(sections), sizeof sections) + names;
  }
};

class checked_build : public testing::Test {
 protected:
  std::string fate_of(const std::string& bytes) { return fate_of_checked_build(m_folder.write("program", bytes)); }

  scratch_folder m_folder;
};

const std::string with_addresses("\0malloc\0__asan_init\0free\0", 25);
const std::string with_threads("\0malloc\0__tsan_init\0", 20);

TEST_F(checked_build, is_told_by_the_entry_point_of_its_checker) {
  EXPECT_EQ(fate_of(file_with_names(with_addresses).bytes()),
            "AddressSanitizer: it ends at once, because its map of memory covers the tool's addresses");
  EXPECT_EQ(fate_of(file_with_names(with_threads).bytes()),
            "ThreadSanitizer: it executes itself anew, and is not traced from there, or ends at once");
}

TEST_F(checked_build, is_not_what_has_similar_names_or_has_the_name_elsewhere) {
  EXPECT_EQ(fate_of(file_with_names(std::string("\0my__asan_init\0__asan_init_v4\0", 30)).bytes()), "");
  file_with_names beside(with_addresses);
  beside.sections[1].sh_type = SHT_SYMTAB;
  EXPECT_EQ(fate_of(beside.bytes()), "");
  EXPECT_EQ(fate_of("#!/bin/sh\n" + with_addresses), "");
}

TEST_F(checked_build, has_no_answer_for_a_file_that_is_missing_cut_short_or_leads_outside_itself) {
  EXPECT_EQ(fate_of_checked_build(m_folder / "missing"), "");
  EXPECT_EQ(fate_of_checked_build("/"), "");
  const std::string whole = file_with_names(with_addresses).bytes();
  for (std::size_t size = 0; size < whole.size(); ++size) EXPECT_EQ(fate_of(whole.substr(0, size)), "") << size;
  for (const std::uint64_t far : {~std::uint64_t{0}, ~std::uint64_t{0} - 100, std::uint64_t{1} << 40}) {
    file_with_names sections(with_addresses);
    sections.header.e_shoff = far;
    EXPECT_EQ(fate_of(sections.bytes()), "");
    file_with_names names(with_addresses);
    names.sections[2].sh_offset = far;
    EXPECT_EQ(fate_of(names.bytes()), "");
    file_with_names size(with_addresses);
    size.sections[2].sh_size = far;
    EXPECT_EQ(fate_of(size.bytes()), "");
  }
  file_with_names link(with_addresses);
  link.sections[1].sh_link = 3;
  EXPECT_EQ(fate_of(link.bytes()), "");
}

}  // namespace
}  // namespace ceilmeter::test
