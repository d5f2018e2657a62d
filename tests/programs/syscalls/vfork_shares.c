// What the parent of a child in the same memory sees: what the child has written, the error of a spawn, and its own
// signal actions and descriptors unchanged. Other threads go on while such a child runs.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

extern char** environ;

static volatile int seen;
static volatile int handled;

static void handle(int number) { handled = number; }

static int status_of(pid_t child) {
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child);
  return WEXITSTATUS(status);
}

static void errors_come_back(void) {
  char* arguments[] = {"nothing", NULL};
  pid_t child = -1;
  printf("spawn of a missing program: %d\n", posix_spawn(&child, "/no/such/program", NULL, NULL, arguments, environ));
  printf("spawn of a folder: %d\n", posix_spawn(&child, "/tmp", NULL, NULL, arguments, environ));
  printf("no child is left: %d\n", waitpid(-1, NULL, 0) == -1 && errno == ECHILD);
}

static void memory_is_shared(void) {
  seen = 0;
  pid_t child = vfork();
  if (child == 0) {
    seen = 5;
    _exit(3);
  }
  printf("vfork: status %d, the parent sees %d\n", status_of(child), seen);
  char* arguments[] = {"none", NULL};
  child = vfork();
  if (child == 0) {
    execve("/no/such/program", arguments, environ);
    seen = errno;
    _exit(4);
  }
  printf("vfork and a failing execve: status %d, error %d\n", status_of(child), seen);
}

// A child of the child is another process with memory of its own.
static void children_of_children(void) {
  seen = 1;
  const pid_t child = vfork();
  if (child == 0) {
    const pid_t inner = vfork();
    if (inner == 0) {
      seen += 10;
      _exit(7);
    }
    int status = -1;
    if (waitpid(inner, &status, 0) != inner || WEXITSTATUS(status) != 7) _exit(1);
    const pid_t copy = fork();
    if (copy == 0) {
      seen += 100;
      _exit(8);
    }
    if (waitpid(copy, &status, 0) != copy || WEXITSTATUS(status) != 8) _exit(2);
    seen += 1000;
    _exit(9);
  }
  printf("children of a child: status %d, the parent sees %d\n", status_of(child), seen);
}

// Signal actions and descriptors are the child's own.
static void the_rest_is_not_shared(void) {
  handled = 0;
  CHECK(signal(SIGUSR1, handle) != SIG_ERR);
  int ends[2];
  CHECK(pipe(ends) == 0);
  const pid_t child = vfork();
  if (child == 0) {
    signal(SIGUSR1, SIG_IGN);
    kill(getpid(), SIGUSR1);
    close(ends[0]);
    close(STDIN_FILENO);
    dup2(ends[1], STDIN_FILENO);
    _exit(handled == 0 ? 6 : 1);
  }
  CHECK(status_of(child) == 6);
  CHECK(raise(SIGUSR1) == 0);
  printf("the parent's handler: %d\n", handled == SIGUSR1);
  CHECK(write(ends[1], "x", 1) == 1);
  char byte = 0;
  CHECK(read(ends[0], &byte, 1) == 1);
  printf("the parent's descriptors: %d %d\n", byte == 'x', fcntl(STDIN_FILENO, F_GETFD) >= 0);
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
  handled = 0;
  const pid_t second = vfork();
  if (second == 0) {
    kill(getpid(), SIGUSR1);
    _exit(handled == SIGUSR1 ? 5 : 1);
  }
  printf("a handler in the child: %d\n", status_of(second) == 5 && handled == SIGUSR1);
}

static const char* fifo;

static void* open_other_end(void* argument) {
  usleep(20000);
  const int fd = open(fifo, O_WRONLY);  // The child waits for this.
  CHECK(fd >= 0 && write(fd, "from a thread\n", 14) == 14 && close(fd) == 0);
  return argument;
}

static void spawn_waits_for_a_thread(void) {
  char path[] = "/tmp/vfork_shares_XXXXXX";
  CHECK(mkdtemp(path));
  char name[64];
  snprintf(name, sizeof name, "%s/fifo", path);
  fifo = name;
  CHECK(mkfifo(name, 0600) == 0);
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, open_other_end, NULL) == 0);
  posix_spawn_file_actions_t actions;
  CHECK(posix_spawn_file_actions_init(&actions) == 0);
  CHECK(posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, name, O_RDONLY, 0) == 0);
  char* arguments[] = {"sh", "-c", "read line; test \"$line\" = 'from a thread'", NULL};
  pid_t child = -1;
  CHECK(posix_spawn(&child, "/bin/sh", &actions, NULL, arguments, environ) == 0);
  CHECK(pthread_join(thread, NULL) == 0);
  printf("a file action that waits for a thread: %d\n", status_of(child));
  CHECK(posix_spawn_file_actions_destroy(&actions) == 0);
  CHECK(unlink(name) == 0 && rmdir(path) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  alarm(60);  // A child that waits for ever keeps its parent.
  for (int round = 0; round < rounds; ++round) {
    errors_come_back();
    memory_is_shared();
    children_of_children();
    the_rest_is_not_shared();
    spawn_waits_for_a_thread();
  }
  return 0;
}
