// The program reads its own path by every name of it, also after it has changed its folder.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "check.h"

static void show(const char* path) {
  char text[4096];
  memset(text, '#', sizeof text);
  const ssize_t length = readlink(path, text, sizeof text);
  CHECK(length > 0 && text[length] == '#');
  printf("%.*s\n", (int)length, text);
  CHECK(readlinkat(AT_FDCWD, path, text, 3) == 3);
}

int main(void) {
  char own[64];
  snprintf(own, sizeof own, "/proc/%d/exe", (int)getpid());
  show("/proc/self/exe");
  show("/proc/thread-self/exe");
  show(own);
  CHECK(chdir("/") == 0);
  show("/proc/self/exe");
  CHECK(readlink("/proc/self/cwd", own, sizeof own) == 1 && own[0] == '/');
  CHECK(readlink("/proc/self/no-such", own, sizeof own) == -1);
  return 0;
}
