// descriptors [LIBRARY...]: what the program opens has the lowest free numbers, also behind libraries that it has
// loaded.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

static void* open_one(void* unused) {
  (void)unused;
  printf("in a thread: %d\n", open("/dev/null", O_RDONLY));
  return NULL;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  const int first = open("/dev/null", O_RDONLY);
  int ends[2];
  CHECK(pipe(ends) == 0);
  printf("first %d, pipe %d %d, copy %d\n", first, ends[0], ends[1], dup(first));
  CHECK(close(ends[0]) == 0);
  for (int index = 1; index < argc; ++index) {
    void* library = dlopen(argv[index], RTLD_NOW);
    CHECK(library != NULL);
    printf("behind a library: %d\n", open("/dev/null", O_RDONLY));
    if (index % 2 != 0) CHECK(dlclose(library) == 0);
  }
  int pair[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
  printf("sockets %d %d\n", pair[0], pair[1]);
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, open_one, NULL) == 0 && pthread_join(thread, NULL) == 0);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    printf("in a child: %d\n", open("/dev/null", O_RDONLY));
    _exit(0);
  }
  CHECK(waitpid(child, NULL, 0) == child);
  // All but the standard ones, and then as many as there may be.
  for (int number = 3; number < 1024; ++number) close(number);
  printf("afterwards: %d\n", open("/dev/null", O_RDONLY));
  int last = 0;
  for (int fd = 0; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) last = fd;
  printf("the last one: %d\n", last);
  return 0;
}
