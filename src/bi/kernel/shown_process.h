// What the kernel shows of the process to itself and to others: in /proc its name, arguments, environment, auxiliary
// vector and the place of its stack. The application runs inside the tool, so the kernel would show those of the tool.
// Programs find themselves and each other by them (ps, pgrep, a script's own name), and read their vector and stack.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Addresses on the application's first stack. The environment begins where the arguments end.
struct shown_process {
  const char* path;     // As the application was called.
  std::uint64_t stack;  // Its first stack pointer.
  std::uint64_t arguments;
  std::uint64_t environment = 0;
  std::uint64_t environment_end = 0;
  std::uint64_t vector = 0;
  std::uint64_t vector_size = 0;  // Bytes, with the terminating pair.
};

// Makes the kernel show the application. Called once, on the first thread, whose name it becomes; later threads inherit
// it. A kernel that refuses goes on showing the tool, which harms few programs: no error.
void show_application(const shown_process& shown);

}  // namespace ceilmeter
