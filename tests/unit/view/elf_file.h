// AArch64 ELF files made by hand: one loaded segment of code, one symbol table with its names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ceilmeter::test {

struct elf_symbol {
  std::string name;
  std::uint64_t address = 0;
  std::uint64_t size = 0;
  unsigned char info = 0x12;  // a global function
  std::uint16_t section = 1;
};

struct elf_file {
  static constexpr std::uint64_t code_offset = 0x1000;
  static constexpr std::uint64_t code_address = 0x401000;

  std::vector<std::uint32_t> code;
  std::vector<elf_symbol> symbols;

  // Where the parts of bytes() lie; a test may change them before.
  std::uint16_t machine = 183;
  std::uint32_t table_type = 2;
  std::uint64_t table_entry = 24;
  std::uint32_t names_section = 2;
  std::uint64_t names_size_more = 0;  // added to the true one
  std::uint64_t table_size_more = 0;

  std::string bytes() const {
    const std::uint64_t table_offset = code_offset + 4 * code.size();
    std::string names(1, '\0');
    std::string table(24, '\0');
    for (const elf_symbol& one : symbols) {
      table += little(names.size(), 4) + little(one.info, 1) + little(0, 1) + little(one.section, 2) +
               little(one.address, 8) + little(one.size, 8);
      names += one.name + '\0';
    }
    const std::uint64_t names_offset = table_offset + table.size();
    const std::uint64_t sections_offset = names_offset + names.size();
    std::string file = std::string(
                           "\x7f"
                           "ELF\2\1\1",
                           7) +
                       std::string(9, '\0');
    file += little(2, 2) + little(machine, 2) + little(1, 4) + little(code_address, 8) + little(64, 8) +
            little(sections_offset, 8) + little(0, 4) + little(64, 2) + little(56, 2) + little(1, 2) + little(64, 2) +
            little(3, 2) + little(0, 2);
    file += little(1, 4) + little(5, 4) + little(code_offset, 8) + little(code_address, 8) + little(code_address, 8) +
            little(4 * code.size(), 8) + little(4 * code.size(), 8) + little(0x1000, 8);
    file.resize(code_offset, '\0');
    for (const std::uint32_t word : code) file += little(word, 4);
    file += table + names + std::string(64, '\0');
    file += section(table_type, table_offset, table.size() + table_size_more, names_section, table_entry);
    file += section(3, names_offset, names.size() + names_size_more, 0, 0);
    return file;
  }

 private:
  static std::string little(std::uint64_t value, int bytes) {
    std::string text;
    for (int at = 0; at < bytes; ++at) text += static_cast<char>(value >> (8 * at) & 0xFF);
    return text;
  }

  static std::string section(std::uint32_t type, std::uint64_t offset, std::uint64_t size, std::uint32_t link,
                             std::uint64_t entry) {
    return little(0, 4) + little(type, 4) + little(0, 8) + little(0, 8) + little(offset, 8) + little(size, 8) +
           little(link, 4) + little(0, 4) + little(8, 8) + little(entry, 8);
  }
};

}  // namespace ceilmeter::test
