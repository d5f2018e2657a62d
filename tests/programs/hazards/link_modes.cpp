// One source, linked in every way: static, static-pie, PIE, at fixed addresses. The program looks at what these ways
// start differently with: its own headers, relocations, ifuncs, constructors, thread-local words, exceptions.
#include <elf.h>
#include <link.h>
#include <sys/auxv.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

extern "C" const char __ehdr_start[];
extern "C" void _start();

namespace {

int constructed = 0;
struct constructs {
  constructs() { ++constructed; }
} first, second;

thread_local std::string thread_words = "thread-local";
__thread long thread_number = 42;

int plus_two(int value) { return value + 2; }
int (*const table[])(int) = {plus_two, plus_two};  // Relocated in a PIE.

int count_image(dl_phdr_info* info, size_t, void* count) {
  ++*static_cast<int*>(count);
  return info->dlpi_phnum > 0 ? 0 : -1;
}

bool holds(bool condition, const char* what) {
  std::printf("%s: %s\n", what, condition ? "yes" : "no");
  return condition;
}

}  // namespace

extern "C" int chosen(int value) { return value * 3; }
extern "C" {
static int (*resolve_multiply())(int) { return chosen; }
int multiply(int) __attribute__((ifunc("resolve_multiply")));
}

int main(int argc, char** argv) {
  const auto* header = reinterpret_cast<const Elf64_Ehdr*>(__ehdr_start);
  int images = 0;
  bool good = holds(getauxval(AT_PHDR) == reinterpret_cast<unsigned long>(__ehdr_start) + header->e_phoff, "headers");
  good &= holds(getauxval(AT_PHNUM) == header->e_phnum, "number of headers");
  good &= holds(getauxval(AT_ENTRY) == reinterpret_cast<unsigned long>(&_start), "entry");
  good &= holds(multiply(14) == 42, "ifunc");
  good &= holds(table[argc % 2](1) == 3, "relocated pointers");
  good &= holds(constructed == 2, "constructors");
  good &= holds(thread_words.size() == 12 && thread_number == 42, "thread-local words");
  good &= holds(dl_iterate_phdr(count_image, &images) == 0 && images >= 1, "images");
  good &= holds(std::strlen(argv[0]) > 0 && argv[argc] == nullptr, "arguments");
  try {
    throw std::runtime_error("caught");
  } catch (const std::exception& error) {
    good &= holds(std::strcmp(error.what(), "caught") == 0, "exceptions");
  }
  return good ? 0 : 1;
}
