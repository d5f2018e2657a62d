// taken_descriptors FOLDER: the program takes descriptors by their numbers, and closes all descriptors from one number
// on. Its descriptors stay its own when code is unmapped that was mapped before. FOLDER has the libraries of dl_cycle.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { FIRST = 3, LAST = 63 };

static void* load(const char* folder) {
  char path[4096];
  snprintf(path, sizeof path, "%s/dl_one.so", folder);
  void* library = dlopen(path, RTLD_NOW);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    exit(1);
  }
  return library;
}

static void check(const char* how) {
  int open = 0;
  for (int fd = FIRST; fd <= LAST; ++fd) open += fcntl(fd, F_GETFD) >= 0;
  printf("%s: %d open\n", how, open);
}

static void take_all(int source) {
  for (int fd = FIRST; fd <= LAST; ++fd) {
    if (fd != source && dup2(source, fd) != fd) exit(2);
  }
}

static void close_all_at_once(void) {
  if (close_range(FIRST, LAST, 0) == 0) return;
  for (int fd = FIRST; fd <= LAST; ++fd) close(fd);  // An emulator may not know the call.
}

int main(int argc, char** argv) {
  if (argc < 2) return 1;
  void* library = load(argv[1]);
  take_all(open("/dev/null", O_RDONLY));
  if (dlclose(library) != 0) return 1;
  check("taken by number");

  for (int fd = FIRST; fd <= LAST; ++fd) close(fd);
  library = load(argv[1]);
  for (int fd = FIRST; fd <= LAST; ++fd) close(fd);
  for (int fd = FIRST; fd <= LAST; ++fd) open("/dev/null", O_RDONLY);
  if (dlclose(library) != 0) return 1;
  check("closed one by one and opened");

  close_all_at_once();
  library = load(argv[1]);
  close_all_at_once();
  for (int fd = FIRST; fd <= LAST; ++fd) open("/dev/null", O_RDONLY);
  if (dlclose(library) != 0) return 1;
  check("closed at once and opened");
  return 0;
}
