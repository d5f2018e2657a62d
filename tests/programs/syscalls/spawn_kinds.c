// vfork, posix_spawn, system and popen, from one thread and among others, with the status and output of what they
// start.
#include <pthread.h>
#include <spawn.h>
#include <stdatomic.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

extern char** environ;
static atomic_int stop;

static void* busy(void* argument) {
  while (!atomic_load(&stop)) usleep(100);
  return argument;
}

static int status_of(pid_t child) {
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child);
  return WEXITSTATUS(status);
}

static void all_kinds(void) {
  char* arguments[] = {"sh", "-c", "echo from the shell; exit 9", NULL};
  fflush(stdout);
  pid_t child = -1;
  CHECK(posix_spawn(&child, "/bin/sh", NULL, NULL, arguments, environ) == 0);
  printf("posix_spawn: %d\n", status_of(child));
  fflush(stdout);
  child = vfork();
  if (child == 0) {
    execve("/bin/sh", arguments, environ);
    _exit(126);
  }
  printf("vfork and execve: %d\n", status_of(child));
  child = vfork();
  if (child == 0) _exit(17);
  printf("vfork and _exit: %d\n", status_of(child));
  child = vfork();
  if (child == 0) {
    execve("/no/such/file", arguments, environ);
    _exit(126);
  }
  printf("vfork and a failing execve: %d\n", status_of(child));
  fflush(stdout);
  printf("system: %d\n", WEXITSTATUS(system("exit 3")));
  char line[64] = "";
  FILE* output = popen("echo through a pipe", "r");
  CHECK(output && fgets(line, sizeof line, output));
  printf("popen: %s", line);
  CHECK(pclose(output) == 0);
}

int main(void) {
  all_kinds();
  pthread_t threads[3];
  for (int index = 0; index < 3; ++index) CHECK(pthread_create(&threads[index], NULL, busy, NULL) == 0);
  all_kinds();
  atomic_store(&stop, 1);
  for (int index = 0; index < 3; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  return 0;
}
