// The application's first stack, in the layout that the kernel gives a process: arguments, environment and auxiliary
// vector. The vector is the tool's own, with the application's values in it.
#include "elf/initial_stack.h"

#include <elf.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "bi/mora.h"
#include "bi/kernel/pages.h"
#include "bi/kernel/shown_process.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/elf/initial_stack"};

constexpr std::uint64_t LEAST_STACK_SIZE = 0x4000000;
constexpr std::uint64_t RANDOM_BYTES = 16;  // What AT_RANDOM points to.
constexpr std::uint64_t STACK_ALIGNMENT = 16;

constexpr int stack_flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_GROWSDOWN | MAP_STACK;

// Auxiliary types that C libraries' headers of this age lack.
constexpr std::uint64_t AUX_RSEQ_FEATURE_SIZE = 27;
constexpr std::uint64_t AUX_RSEQ_ALIGN = 28;
constexpr std::uint64_t AUX_HWCAP3 = 29;
constexpr std::uint64_t AUX_HWCAP4 = 30;
constexpr std::uint64_t AUX_MINSIGSTKSZ = 51;

// Shadow call stacks (FEAT_GCS). Rewritten calls and returns do not use them, and the call that switches them on is
// refused, so the application is not told of them.
constexpr std::uint64_t CAPABILITY_SHADOW_STACKS = std::uint64_t{1} << 32;

// The size of the machine's memory, or the least size if it is not known.
std::uint64_t memory_size() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  return pages > 0 ? static_cast<std::uint64_t>(pages) * page_size() : LEAST_STACK_SIZE;
}

// Natively the stack grows into free address space up to the limit (RLIMIT_STACK). Here the kernel maps libraries and
// the heap right below a small stack, so all of the room is reserved at the start. This costs address space alone: a
// page takes memory when it is first touched. More than the machine's memory can never be touched. So that size is the
// room of an unlimited stack, and the most for any limit.
std::uint64_t wanted_stack_size() {
  rlimit limit{};
  if (getrlimit(RLIMIT_STACK, &limit) != 0) return LEAST_STACK_SIZE;
  const std::uint64_t allowed = std::min<std::uint64_t>(limit.rlim_cur, memory_size());  // RLIM_INFINITY is all ones.
  return std::max(page_down(allowed, page_size()), LEAST_STACK_SIZE);
}

// Maps the stack and returns its top. The kernel may refuse the size, because of a limit of address space or because it
// commits memory strictly. The size is then halved, down to the least one.
std::uint64_t map_stack() {
  std::uint64_t size = wanted_stack_size();
  void* mapping = MAP_FAILED;
  for (;;) {
    mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, stack_flags | MAP_NORESERVE, -1, 0);
    if (mapping != MAP_FAILED || size == LEAST_STACK_SIZE) break;
    size = std::max(page_down(size / 2, page_size()), LEAST_STACK_SIZE);
  }
  if (mapping == MAP_FAILED) mora_log_exit(EXIT_FAILURE, "Error: couldn't map the application's stack");
  report_vm_op(VM_MAP, address_of(mapping), size, PROT_READ | PROT_WRITE, stack_flags, -1, 0, 0, 0);
  return address_of(mapping) + size;
}

// The application's stack under construction. Words and what they point to grow upwards, in the kernel's order:
//
//   sp                                                                                                           top
//   | argc | argv ... 0 | envp ... 0 | auxv ... 0 0 | 0 to 15 bytes | argv[0] argv[1] ... | environment | of auxv |
//
// The strings follow each other without a gap. Programs rely on that: to tell the system their title, they write over
// the arguments from the first one's start to the last one's end, and some over the environment behind them.
struct stack_writer {
  std::uint64_t* word;
  std::uint8_t* bytes;
};

void push_word(stack_writer& stack, std::uint64_t word) { *stack.word++ = word; }

std::uint64_t push_bytes(stack_writer& stack, const void* bytes, std::size_t size) {
  std::uint8_t* place = stack.bytes;
  std::memcpy(place, bytes, size);
  stack.bytes += size;
  return address_of(place);
}

std::uint64_t push_string(stack_writer& stack, const char* string) {
  return push_bytes(stack, string, std::strlen(string) + 1);
}

// The auxiliary vector lies behind the terminating null of the environment: the kernel puts it there.
const Elf64_auxv_t* auxiliary_vector(char** envp) {
  while (*envp != nullptr) ++envp;
  return reinterpret_cast<const Elf64_auxv_t*>(envp + 1);
}

const char* string_at(std::uint64_t address) { return reinterpret_cast<const char*>(address); }

// What the stack takes, in bytes: its words, and the strings and random bytes that they point to.
struct stack_size {
  std::uint64_t words;
  std::uint64_t text;
};

stack_size size_of_stack(const char* path, int argc, char** argv, char** envp) {
  constexpr std::uint64_t word = sizeof(std::uint64_t);
  constexpr std::uint64_t pair = 2 * word;
  // The count, the path, two terminators, and the pair that ends the vector.
  stack_size size = {word * (static_cast<std::uint64_t>(argc) + 4) + pair, std::strlen(path) + 1 + RANDOM_BYTES};
  for (int index = 0; index < argc; ++index) size.text += std::strlen(argv[index]) + 1;
  for (char** variable = envp; *variable != nullptr; ++variable) {
    size.words += word;
    size.text += std::strlen(*variable) + 1;
  }
  for (const Elf64_auxv_t* entry = auxiliary_vector(envp); entry->a_type != AT_NULL; ++entry) {
    size.words += pair;
    if (entry->a_type == AT_PLATFORM) size.text += std::strlen(string_at(entry->a_un.a_val)) + 1;
    if (entry->a_type == AT_EXECFN) size.text += std::strlen(path) + 1;
  }
  return size;
}

// The application's value for an entry of the tool's vector; pushes what the value points to. The name of the executed
// file is the application's.
std::uint64_t auxiliary_value(stack_writer& stack, const Elf64_auxv_t& entry, const elf_aux_values& aux,
                              const char* path) {
  const std::uint64_t value = entry.a_un.a_val;
  switch (entry.a_type) {
    case AT_PHDR: return aux.at_phdr;
    case AT_PHNUM: return aux.at_phnum;
    case AT_BASE: return aux.at_base;
    case AT_ENTRY: return aux.at_entry;
    case AT_PHENT:
    case AT_PAGESZ:
    case AT_FLAGS:
    case AT_UID:
    case AT_EUID:
    case AT_GID:
    case AT_EGID:
    case AT_CLKTCK:
    case AT_SECURE:
    case AT_HWCAP2:
    case AUX_RSEQ_FEATURE_SIZE:
    case AUX_RSEQ_ALIGN:
    case AUX_HWCAP3:
    case AUX_HWCAP4:
    case AT_SYSINFO_EHDR:
    case AUX_MINSIGSTKSZ: return value;
    case AT_HWCAP: return value & ~CAPABILITY_SHADOW_STACKS;
    case AT_PLATFORM: return push_string(stack, string_at(value));
    case AT_EXECFN: return push_string(stack, path);
    case AT_RANDOM: return push_bytes(stack, reinterpret_cast<const void*>(value), RANDOM_BYTES);
    default:
      // An unknown value must not be passed on, because it may point into the tool.
      log(LEVEL_FATAL, "unhandled auxv entry type: %ld", static_cast<long>(entry.a_type));
      return 0;
  }
}

}  // namespace

void elf_run(std::uint64_t block, const char* path, int argc, char** argv, char** envp, const elf_aux_values* aux) {
  const std::uint64_t top = map_stack();
  const stack_size size = size_of_stack(path, argc, argv, envp);
  const std::uint64_t sp = (top - size.text - size.words) & ~(STACK_ALIGNMENT - 1);
  stack_writer stack{reinterpret_cast<std::uint64_t*>(sp), reinterpret_cast<std::uint8_t*>(top - size.text)};
  shown_process shown = {.path = path, .stack = sp, .arguments = address_of(stack.bytes)};

  push_word(stack, static_cast<std::uint64_t>(argc) + 1);
  push_word(stack, push_string(stack, path));
  for (int index = 0; index < argc; ++index) push_word(stack, push_string(stack, argv[index]));
  push_word(stack, 0);
  shown.environment = address_of(stack.bytes);
  for (char** variable = envp; *variable != nullptr; ++variable) push_word(stack, push_string(stack, *variable));
  push_word(stack, 0);
  shown.environment_end = address_of(stack.bytes);
  shown.vector = address_of(stack.word);
  for (const Elf64_auxv_t* entry = auxiliary_vector(envp); entry->a_type != AT_NULL; ++entry) {
    push_word(stack, entry->a_type);
    push_word(stack, auxiliary_value(stack, *entry, *aux, path));
  }
  push_word(stack, AT_NULL);
  push_word(stack, 0);
  shown.vector_size = address_of(stack.word) - shown.vector;

  show_application(shown);
  enter_application(block, sp, engine_stack_word(current_thread));
  log(LEVEL_FATAL, "unexpected return from elf_run");
  std::abort();
}

}  // namespace ceilmeter
