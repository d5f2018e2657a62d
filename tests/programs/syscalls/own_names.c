// own_names: what the kernel shows of the process is the program's own: its name, its arguments and environment, its
// auxiliary vector and the place of its stack. With an argument it only names itself anew, as servers do.
#include <elf.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

extern char** environ;

static char text[1 << 20];

static size_t contents(const char* path) {
  const int fd = open(path, O_RDONLY);
  CHECK(fd >= 0);
  size_t size = 0;
  for (ssize_t part = 0; (part = read(fd, text + size, sizeof text - 1 - size)) > 0;) size += (size_t)part;
  CHECK(close(fd) == 0);
  text[size] = '\0';
  return size;
}

// The strings follow each other without a gap, first the arguments and then the environment.
static char* end_of_strings(char** strings, char* expected) {
  for (; *strings != NULL; ++strings) {
    CHECK(expected == NULL || *strings == expected);
    expected = *strings + strlen(*strings) + 1;
  }
  return expected;
}

static void shows_arguments(char** argv) {
  const char* argument_end = end_of_strings(argv, NULL);
  const char* environment_end = end_of_strings(environ, (char*)argument_end);
  CHECK(contents("/proc/self/cmdline") == (size_t)(argument_end - argv[0]));
  CHECK(memcmp(text, argv[0], (size_t)(argument_end - argv[0])) == 0);
  CHECK(contents("/proc/self/environ") == (size_t)(environment_end - argument_end));
  CHECK(memcmp(text, argument_end, (size_t)(environment_end - argument_end)) == 0);
}

static void shows_vector(void) {
  const size_t count = contents("/proc/self/auxv") / sizeof(Elf64_auxv_t);
  CHECK(count > 10);
  int found = 0;
  for (size_t index = 0; index < count; ++index) {
    Elf64_auxv_t entry;
    memcpy(&entry, text + index * sizeof entry, sizeof entry);
    if (entry.a_type == AT_NULL) break;
    CHECK(getauxval(entry.a_type) == entry.a_un.a_val);
    ++found;
  }
  CHECK(found > 10);
}

// The kernel marks the mapping that holds the start of the stack, and tells that start.
static void shows_stack(char** argv) {
  contents("/proc/self/stat");
  const char* place = strrchr(text, ')') + 3;
  char* end = NULL;
  for (int field = 4; field < 28; ++field, place = end) strtoull(place, &end, 10);
  CHECK(strtoull(place, NULL, 10) == (uintptr_t)(argv - 1));
  contents("/proc/self/maps");
  char* line = strstr(text, "[stack]");
  CHECK(line != NULL);
  while (line > text && line[-1] != '\n') --line;
  const uintptr_t first = strtoull(line, &line, 16);
  const uintptr_t last = strtoull(line + 1, NULL, 16);
  CHECK(first <= (uintptr_t)&line && (uintptr_t)&line < last && (uintptr_t)argv[0] < last);
}

static void shows_name(void) {
  char name[16];
  CHECK(prctl(PR_GET_NAME, name) == 0);
  printf("name: %s\n", name);
  contents("/proc/self/comm");
  printf("in the file: %s", text);
}

// The heap still grows: what the kernel knows of it has not changed.
static void heap_grows(void) {
  char* before = sbrk(0);
  CHECK(sbrk(1 << 20) == before);
  memset(before, 1, 1 << 20);
  char* blocks[64];
  for (int index = 0; index < 64; ++index) memset(blocks[index] = malloc(60000), index, 60000);
  for (int index = 0; index < 64; ++index) CHECK(blocks[index][59999] == index);
}

// As run-time systems and servers do it: they write the title over the arguments.
static void take_title(int argc, char** argv, const char* title) {
  char* const last_end = argv[argc - 1] + strlen(argv[argc - 1]) + 1;
  const size_t room = (size_t)(last_end - argv[0]);
  size_t length = strlen(title);
  if (length >= room) length = room - 1;
  memcpy(argv[0], title, length);
  memset(argv[0] + length, 0, room - length);
  CHECK(strncmp(argv[0], title, length) == 0);
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (argc > 1) {
    end_of_strings(environ, end_of_strings(argv, NULL));
    take_title(argc, argv, "a title");
    printf("title: %s\n", argv[0]);
    return 0;
  }
  shows_name();
  shows_arguments(argv);
  shows_vector();
  shows_stack(argv);
  heap_grows();
  take_title(argc, argv, "a title");
  contents("/proc/self/cmdline");
  printf("title: %s\n", text);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    shows_name();
    contents("/proc/self/cmdline");
    printf("child: %s\n", text);
    _exit(0);
  }
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  return 0;
}
