// Finds the functions of a file that has been mapped into the application, by its symbol tables, and tells plug-ins of
// them. How a plug-in learns the address of a function in a library whose loading it has no part in.
#pragma once

#include <libelf.h>

#include <cstdint>

namespace ceilmeter {

// Delivers function_symbol for every function symbol of the file, and watches each unless function_watch_set_manual has
// said otherwise. `base` is the address of the mapping just made; not the file's load address: for a file whose
// executable segment does not begin at virtual address 0 the reported addresses are off by that segment's address, and
// a watch on such a one simply never fires. A symbol that stands in two tables is told twice, a file that is mapped
// executable in two pieces as well. 0, or -1 if the file has no readable header, with a warning if it is an ELF file.
// On the thread that made the mapping.
int function_watch_parse_elf(Elf* elf, std::uint64_t base);

}  // namespace ceilmeter
