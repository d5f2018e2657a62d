// Link-time stand-ins for the functions of the engine that the loader calls.
#include "engine_fakes.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <ostream>

#include "bi/mora.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"

namespace ceilmeter {

engine_globals engine;
thread_local thread_data* current_thread = nullptr;

std::uint64_t* engine_stack_word(const thread_data*) { return nullptr; }

std::uint64_t page_size() { return test::faked_page_size; }

void report_vm_op(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot, std::uint32_t flags,
                  std::int32_t fd, std::uint64_t offset, std::uint64_t old_addr, std::uint64_t old_size) {
  test::vm_reports.push_back({op, addr, size, prot, flags, fd, offset, old_addr, old_size});
}

void show_application(const shown_process& shown) { test::last_shown = shown; }

void tell_plugins_of_loaded_file(const char*, int) {}

extern "C" void enter_application(std::uint64_t block, std::uint64_t sp, std::uint64_t*) { test::on_enter(block, sp); }

extern "C" void* __real_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset);

extern "C" int __real_getrlimit(int resource, rlimit* limit);

// The executables are linked with --wrap=getrlimit and --wrap=mmap.
extern "C" int __wrap_getrlimit(int resource, rlimit* limit) {
  if (resource != RLIMIT_STACK) return __real_getrlimit(resource, limit);
  *limit = {test::stack_limit, test::stack_limit};
  return 0;
}

extern "C" void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset) {
  if (test::mmap_refusal == nullptr || !test::mmap_refusal(size, protection, flags)) {
    return __real_mmap(address, size, protection, flags, fd, offset);
  }
  errno = ENOMEM;
  return MAP_FAILED;
}

namespace test {

namespace {

std::jmp_buf entered;
application_entry last_entry;

void come_back(std::uint64_t block, std::uint64_t sp) {
  last_entry = {block, sp};
  std::longjmp(entered, 1);
}

}  // namespace

std::vector<vm_report> vm_reports;
shown_process last_shown{};
std::uint64_t faked_page_size = kernel_page_size();
enter_hook on_enter = come_back;
mmap_decision mmap_refusal = nullptr;
std::uint64_t stack_limit = usual_stack_limit;

std::uint64_t kernel_page_size() { return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)); }

application_entry entry_of_elf_run(std::uint64_t block, const char* path, int argc, char** argv, char** envp,
                                   const elf_aux_values& aux) {
  on_enter = come_back;
  if (setjmp(entered) == 0) elf_run(block, path, argc, argv, envp, &aux);
  return last_entry;
}

void run_in_place(std::uint64_t block, std::uint64_t sp) {
  register std::uint64_t target asm("x9") = block;
  register std::uint64_t stack asm("x10") = sp;
  asm volatile(
      "mov sp, x10\n\t"
      "mov x0, #0\n\t"
      "mov x1, #0\n\t"
      "mov x29, #0\n\t"
      "mov x30, #0\n\t"
      "br x9"
      :
      : "r"(target), "r"(stack)
      : "x0", "x1", "memory");
  __builtin_unreachable();
}

void PrintTo(const vm_report& report, std::ostream* stream) {
  *stream << std::hex << "{op " << report.op << ", addr 0x" << report.addr << ", size 0x" << report.size << ", prot "
          << report.prot << ", flags 0x" << report.flags << ", fd " << std::dec << report.fd << std::hex
          << ", offset 0x" << report.offset << ", old_addr 0x" << report.old_addr << ", old_size 0x" << report.old_size
          << std::dec << "}";
}

}  // namespace test
}  // namespace ceilmeter
