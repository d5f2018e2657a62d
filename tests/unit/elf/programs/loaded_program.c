/* What a loaded program can tell about its loading: checks its own image, prints what it was given, and ends through
   its exit processing. Prints no address, so that a run in another place prints the same. */
#include <elf.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>

extern char** environ;
extern const Elf64_Ehdr __ehdr_start;
extern void _start(void);

static int failures;

static void check(int holds, const char* what) {
  if (holds) return;
  ++failures;
  printf("wrong: %s\n", what);
}

static const char text[] = "constant data";
static int initialised[4] = {1, 2, 3, 4};
static const char* relocated = text; /* A position-independent image needs a relocation for it. */
static _Alignas(65536) char aligned[8] = "aligned";
static char zeros[3 << 20];
static _Thread_local int thread_initialised = 41;
static _Thread_local char thread_zeros[100];
static int constructed;

__attribute__((constructor)) static void construct(void) { constructed = 1; }

static void at_exit(void) {
  printf("exit processing\n");
  fflush(stdout);
}

static int all_zero(const char* bytes, size_t size) {
  for (size_t index = 0; index < size; ++index) {
    if (bytes[index] != 0) return 0;
  }
  return 1;
}

static unsigned long hash(unsigned long seed, const char* string) {
  do {
    seed = (seed ^ (unsigned char)*string) * 0x100000001b3;
  } while (*string++ != 0);
  return seed;
}

static void check_image(void) {
  check(strcmp(relocated, "constant data") == 0, "relocated pointer");
  check(initialised[0] + initialised[3] == 5, "initialised data");
  check(strcmp(aligned, "aligned") == 0, "aligned data");
  volatile uintptr_t place = (uintptr_t)aligned; /* The compiler believes in its own alignment. */
  check(place % 65536 == 0, "alignment");
  check(all_zero(zeros, sizeof zeros), "zeroed data");
  memset(zeros, 0x5a, sizeof zeros);
  check(thread_initialised == 41, "thread-local data");
  check(all_zero(thread_zeros, sizeof thread_zeros), "zeroed thread-local data");
  check(constructed, "constructor");
  void* memory = malloc(1 << 22);
  check(memory != NULL, "memory");
  free(memory);
}

static void check_auxiliary_vector(void) {
  check(getauxval(AT_PHDR) == (uintptr_t)&__ehdr_start + __ehdr_start.e_phoff, "AT_PHDR");
  check(getauxval(AT_PHNUM) == __ehdr_start.e_phnum, "AT_PHNUM");
  check(getauxval(AT_PHENT) == sizeof(Elf64_Phdr), "AT_PHENT");
  check(getauxval(AT_ENTRY) == (uintptr_t)_start, "AT_ENTRY");
  int has_interpreter = 0;
  const Elf64_Phdr* headers = (const Elf64_Phdr*)getauxval(AT_PHDR);
  for (unsigned long index = 0; index < getauxval(AT_PHNUM); ++index) {
    has_interpreter |= headers[index].p_type == PT_INTERP;
  }
  check((getauxval(AT_BASE) != 0) == has_interpreter, "AT_BASE");
  if (has_interpreter) check(memcmp((void*)getauxval(AT_BASE), ELFMAG, SELFMAG) == 0, "interpreter at AT_BASE");
  check(strcmp((const char*)getauxval(AT_PLATFORM), "aarch64") == 0, "AT_PLATFORM");
  check(getauxval(AT_RANDOM) != 0, "AT_RANDOM");
  check(getauxval(AT_EXECFN) != 0, "AT_EXECFN");
}

int main(int argc, char** argv) {
  atexit(at_exit);
  check_image();
  check_auxiliary_vector();
  check(argv[argc] == NULL, "end of the arguments");
  check(environ == argv + argc + 1, "environment behind the arguments");
  unsigned long seed = 0xcbf29ce484222325;
  for (int index = 0; index < argc; ++index) seed = hash(seed, argv[index]);
  printf("%d arguments, hash %lx\n", argc, seed);
  int count = 0;
  unsigned long sum = 0; /* Of the variables in any order: an emulator may turn it round. */
  for (char** variable = environ; *variable != NULL; ++variable, ++count) sum += hash(0xcbf29ce484222325, *variable);
  printf("%d variables, hash %lx\n", count, sum);
  printf("%.3f %s\n", (double)argc / 3, argc > 1 ? argv[argc - 1] : "");
  return failures == 0 ? 7 : 1;
}
