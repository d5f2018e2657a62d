// first_process: children that are the first process of a namespace of their own. The kernel spares such a process by
// default actions, and gives it and its threads small numbers.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "check.h"

static volatile sig_atomic_t heard;
static void hear(int number) { heard = number; }

static int status_of(pid_t pid) {
  int status = -1;
  CHECK(waitpid(pid, &status, 0) == pid);
  return status;
}

// A signal that is not delivered interrupts nothing: the sleep ends by itself.
static void is_spared(void) {
  const struct itimerval soon = {{0, 0}, {0, 20000}};
  const struct timespec nap = {0, 100000000};
  CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
  CHECK(nanosleep(&nap, NULL) == 0);
  CHECK(kill(getpid(), SIGTERM) == 0 && raise(SIGUSR1) == 0);
  puts("default actions spare it");
}

static void has_handlers(void) {
  struct sigaction action = {.sa_handler = hear};
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) _exit(kill(getppid(), SIGUSR1) == 0 ? getpid() : 0);
  while (heard == 0) usleep(100);
  printf("heard of %d from %d\n", heard == SIGUSR1, WEXITSTATUS(status_of(child)));
  CHECK(signal(SIGUSR1, SIG_DFL) != SIG_ERR);
  CHECK(raise(SIGUSR1) == 0);
  puts("and is spared again");
}

// Its own children are not spared.
static void has_mortal_children(void) {
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    raise(SIGUSR2);
    _exit(0);
  }
  const int status = status_of(child);
  printf("child: %d\n", WIFSIGNALED(status) ? WTERMSIG(status) == SIGUSR2 : -1);
}

static void* tell(void* number) {
  *(int*)number = gettid();
  return number;
}

static void has_threads(void) {
  pthread_t thread;
  int number = 0;
  CHECK(pthread_create(&thread, NULL, tell, &number) == 0 && pthread_join(thread, NULL) == 0);
  printf("process %d, a thread is another: %d\n", getpid(), number > 1);
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  CHECK(unshare(CLONE_NEWPID) == 0);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    is_spared();
    has_handlers();
    has_mortal_children();
    has_threads();
    _exit(7);
  }
  const int status = status_of(child);
  printf("ended: %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  return 0;
}
