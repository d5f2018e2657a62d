// Stand-ins for the engine's functions that the loader calls. They keep what is reported, use the page size that the
// test chooses, and return from the entry into the code cache to the test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

#include "bi/kernel/shown_process.h"
#include "elf/elf_loader.h"
#include "elf/initial_stack.h"

namespace ceilmeter::test {

// One call of report_vm_op.
struct vm_report {
  std::uint32_t op;
  std::uint64_t addr;
  std::uint64_t size;
  std::uint32_t prot;
  std::uint32_t flags;
  std::int32_t fd;
  std::uint64_t offset;
  std::uint64_t old_addr;
  std::uint64_t old_size;

  bool operator==(const vm_report&) const = default;
};

void PrintTo(const vm_report& report, std::ostream* stream);

extern std::vector<vm_report> vm_reports;

// What the last call of show_application was given.
extern shown_process last_shown;

// What page_size() answers; the kernel's own at the start.
extern std::uint64_t faked_page_size;
std::uint64_t kernel_page_size();

// What enter_application does with its two arguments. A hook that returns shows what happens then.
using enter_hook = void (*)(std::uint64_t block, std::uint64_t sp);
extern enter_hook on_enter;

struct application_entry {
  std::uint64_t block = 0;
  std::uint64_t sp = 0;
};

// Calls elf_run and returns what it enters the application with.
application_entry entry_of_elf_run(std::uint64_t block, const char* path, int argc, char** argv, char** envp,
                                   const elf_aux_values& aux);

// Says whether mmap fails for want of memory; null: what is possible is done.
using mmap_decision = bool (*)(std::size_t size, int protection, int flags);
extern mmap_decision mmap_refusal;

// What getrlimit tells of the stack.
inline constexpr std::uint64_t usual_stack_limit = 0x800000;
extern std::uint64_t stack_limit;

// A hook that really starts a program, `block` being its entry's address: for a child process, which it becomes.
[[noreturn]] void run_in_place(std::uint64_t block, std::uint64_t sp);

}  // namespace ceilmeter::test
