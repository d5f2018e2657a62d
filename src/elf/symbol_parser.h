// Finds the functions of a file that has been mapped into the application, by its symbol tables, and tells plug-ins of
// them. So a plug-in learns the address of a function in a library whose loading it has no part in.
#pragma once

#include <libelf.h>

#include <cstdint>

namespace ceilmeter {

// Delivers function_symbol for every function symbol of the file, or for those that function_symbol_only has named, and
// watches each function unless
// function_watch_set_manual has turned that off. `base` is the address of the mapping just made, not the file's load
// address. If a file's executable segment does not begin at virtual address 0, the reported addresses are off by the
// segment's address, and a watch on such an address never fires. A symbol in two tables is told twice; so are the
// symbols of a file that is mapped executable in two pieces. Returns 0, or -1 if the file has no readable header, with
// a warning if it is an ELF file. On the thread that made the mapping.
int function_watch_parse_elf(Elf* elf, std::uint64_t base);

}  // namespace ceilmeter
