// Builds small ELF files by hand, byte by byte where a test wants them wrong.
#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace ceilmeter::test {

// Distances within files and images are multiples of the largest page that an AArch64 kernel may have.
inline constexpr std::uint64_t largest_page = 0x10000;

// A file of a header, its program headers behind it, and contents. The fields can be changed at will before bytes().
struct elf_image {
  Elf64_Ehdr header{};
  std::vector<Elf64_Phdr> program_headers;
  std::string file = std::string(sizeof(Elf64_Ehdr), '\0');  // Without the headers, which bytes() puts in.

  explicit elf_image(std::uint16_t type, std::uint64_t entry = 0) {
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = type;
    header.e_machine = EM_AARCH64;
    header.e_version = EV_CURRENT;
    header.e_entry = entry;
    header.e_phoff = sizeof(Elf64_Ehdr);
    header.e_ehsize = sizeof(Elf64_Ehdr);
    header.e_phentsize = sizeof(Elf64_Phdr);
  }

  // Puts `content` into the file at `offset`.
  void place(std::uint64_t offset, const std::string& content) {
    if (file.size() < offset + content.size()) file.resize(offset + content.size());
    file.replace(offset, content.size(), content);
  }

  Elf64_Phdr& add_header(std::uint32_t type, std::uint64_t offset, std::uint64_t file_size) {
    Elf64_Phdr entry{};
    entry.p_type = type;
    entry.p_offset = offset;
    entry.p_filesz = file_size;
    entry.p_memsz = file_size;
    program_headers.push_back(entry);
    return program_headers.back();
  }

  // A PT_LOAD header for what lies in the file at `offset`.
  Elf64_Phdr& add_segment(std::uint32_t flags, std::uint64_t offset, std::uint64_t address, std::uint64_t file_size,
                          std::uint64_t memory_size) {
    Elf64_Phdr& segment = add_header(PT_LOAD, offset, file_size);
    segment.p_flags = flags;
    segment.p_vaddr = address;
    segment.p_paddr = address;
    segment.p_memsz = memory_size;
    return segment;
  }

  // A PT_INTERP header with `path` of the file at `offset`, by default with its terminator.
  void add_interpreter(const std::string& path, std::uint64_t offset) {
    place(offset, path + '\0');
    add_header(PT_INTERP, offset, path.size() + 1);
  }

  std::string bytes() const {
    Elf64_Ehdr complete = header;
    complete.e_phnum = static_cast<std::uint16_t>(program_headers.size());
    std::string result = file;
    const std::size_t table = program_headers.size() * sizeof(Elf64_Phdr);
    if (result.size() < sizeof complete + table) result.resize(sizeof complete + table);
    std::memcpy(result.data(), &complete, sizeof complete);
    if (table != 0) std::memcpy(result.data() + sizeof complete, program_headers.data(), table);
    return result;
  }
};

}  // namespace ceilmeter::test
