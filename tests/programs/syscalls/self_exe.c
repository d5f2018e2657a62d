// The program reads its own path by every name of it, also after it has changed its folder; it opens, looks at and
// executes itself by such a name.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

static int is_this_file(const struct stat* status) {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  CHECK(length > 0);
  path[length] = '\0';
  struct stat expected;
  CHECK(stat(path, &expected) == 0);
  return status->st_dev == expected.st_dev && status->st_ino == expected.st_ino;
}

static void use(const char* path) {
  struct stat status;
  CHECK(stat(path, &status) == 0 && is_this_file(&status));
  const int fd = open(path, O_RDONLY);
  CHECK(fd >= 0 && fstat(fd, &status) == 0 && is_this_file(&status));
  CHECK(close(fd) == 0);
  CHECK(access(path, X_OK) == 0);
  CHECK(lstat(path, &status) == 0 && S_ISLNK(status.st_mode));
  CHECK(open(path, O_RDONLY | O_NOFOLLOW) == -1 && errno == ELOOP);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    execl(path, "itself", "executed", (char*)NULL);
    _exit(98);
  }
  int result = -1;
  CHECK(waitpid(child, &result, 0) == child && WIFEXITED(result));
  printf("executed: %d\n", WEXITSTATUS(result));
}

int main(int argc, char** argv) {
  if (argc > 1) return strcmp(argv[1], "executed") == 0 ? 42 : 97;
  char own[64];
  struct stat executed;
  CHECK(stat((const char*)getauxval(AT_EXECFN), &executed) == 0 && is_this_file(&executed));
  snprintf(own, sizeof own, "/proc/%d/exe", (int)getpid());
  show("/proc/self/exe");
  show("/proc/thread-self/exe");
  show(own);
  use(own);
  use("/proc/self/exe");
  CHECK(chdir("/") == 0);
  use("/proc/thread-self/exe");
  show("/proc/self/exe");
  CHECK(readlink("/proc/self/cwd", own, sizeof own) == 1 && own[0] == '/');
  CHECK(readlink("/proc/self/no-such", own, sizeof own) == -1);
  return 0;
}
