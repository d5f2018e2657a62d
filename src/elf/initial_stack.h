// The application's first stack.
#pragma once

#include <cstdint>

#include "elf/elf_loader.h"

namespace ceilmeter {

// Builds the application's stack with `path` and the `argc` arguments after it, and enters the cache at `block`. The
// stack has room for what RLIMIT_STACK allows, at least 64 MiB.
[[noreturn]] void elf_run(std::uint64_t block, const char* path, int argc, char** argv, char** envp,
                          const elf_aux_values* aux);

}  // namespace ceilmeter
