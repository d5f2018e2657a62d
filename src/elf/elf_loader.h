// Puts the application and its interpreter into this process by hand, as the kernel's program loader would. The engine
// hears of every mapping. Accepts 64-bit AArch64 files; any other file ends the process with status 1 and a message.
// Called once, on the thread that becomes the application's first.
#pragma once

#include <libelf.h>

#include <cstdint>

namespace ceilmeter {

// What the application's auxiliary vector needs of the images.
struct elf_aux_values {
  std::uint64_t at_base;   // Load address of the interpreter, 0 if there is none.
  std::uint64_t at_entry;  // The application's entry address, relocated.
  std::uint64_t at_phdr;   // Run-time address of the application's program headers.
  std::uint64_t at_phnum;
};

// Maps the file at `path` and, by a call of itself with `is_interpreter` 1, its interpreter. `*entry_out` receives the
// address at which execution begins, `*elf_out` the handle of the image that holds this address. Descriptors, handles
// and streams stay open. Raises engine.brk to the end of the application's image.
void load_elf(const char* path, Elf** elf_out, elf_aux_values* aux, std::uint64_t* entry_out, int is_interpreter);

}  // namespace ceilmeter
