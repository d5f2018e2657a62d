// A reader of what the viewer wants of a 64-bit AArch64 ELF file: the functions of its symbol tables, by their place in
// the file. The file is a stranger's: every offset and count is checked against the file's size before it is followed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ceilmeter::view {

struct elf_function {
  std::uint64_t offset = 0;  // In the file, not an address.
  std::uint64_t size = 0;    // 0: the table does not tell.
  std::string name;          // As in the table: not demangled, not checked for UTF-8.
};

struct elf_functions {
  std::string error;                    // Empty: the file is an AArch64 ELF file, whatever its tables hold.
  std::vector<elf_function> functions;  // By rising offset; one for each place, global names first.
};

// `descriptor` is an open file. Of tables with more than 2^22 symbols the first ones are read.
elf_functions read_elf_functions(int descriptor);

// The function that holds `offset`, or null. One of unknown size ends where the next one begins.
const elf_function* find_function(const std::vector<elf_function>& functions, std::uint64_t offset);

}  // namespace ceilmeter::view
