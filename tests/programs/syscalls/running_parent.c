// Children that share their parent's memory while the parent runs on: both see what the other writes, the kernel's
// words are set and cleared, actions and descriptors are the child's own, and a child may stop every thread of its
// parent's to look at it, as checkers of memory do.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

enum { STACK_SIZE = 65536, CHILDREN = 4, SHARED = CLONE_VM | SIGCHLD };

static volatile int turn;
static volatile int sum;
static volatile int handled;
static volatile int busy = 1;
static pid_t parent_word;
static pid_t child_word;
static int ends[2];

static void handle(int number) { handled = number; }

// Natively the C library's thread-local words are the parent's: the children keep to calls that do without.
static pid_t start(int (*run)(void*), void* argument, int flags) {
  char* stack = mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  const pid_t child = clone(run, stack + STACK_SIZE, flags, argument, &parent_word, NULL, &child_word);
  CHECK(child > 0);
  return child;
}

static int status_of(pid_t child) {
  int status = -1;
  CHECK(waitpid(child, &status, __WALL) == child);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

static int answer(void* argument) {
  for (int round = 0; round < 3; ++round) {
    while (turn != 2 * round + 1) sched_yield();
    turn = 2 * round + 2;
  }
  return *(int*)argument;
}

static void both_go_on(void) {
  int status = 7;
  turn = 0;
  const pid_t child = start(answer, &status, SHARED | CLONE_FS | CLONE_FILES);
  for (int round = 0; round < 3; ++round) {
    turn = 2 * round + 1;
    while (turn != 2 * round + 2) sched_yield();
  }
  printf("answers: %d, status %d\n", turn / 2, status_of(child));
}

static int add(void* argument) {
  for (int round = 0; round < 1000; ++round) __atomic_fetch_add(&sum, *(int*)argument, __ATOMIC_RELAXED);
  return 0;
}

static void several_at_once(void) {
  static int numbers[CHILDREN] = {1, 2, 3, 4};
  pid_t children[CHILDREN];
  sum = 0;
  for (int index = 0; index < CHILDREN; ++index) children[index] = start(add, &numbers[index], SHARED);
  for (int index = 0; index < CHILDREN; ++index) CHECK(status_of(children[index]) == 0);
  printf("the sum of several: %d\n", sum);
}

static int wait_for_turn(void* argument) {
  (void)argument;
  const int known = child_word == syscall(SYS_gettid) && parent_word == child_word;
  turn = 1;
  while (turn != 2) sched_yield();
  return known ? 5 : 6;
}

static void words_are_kept(void) {
  turn = 0;
  const pid_t child =
      start(wait_for_turn, NULL, SHARED | CLONE_PARENT_SETTID | CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID);
  CHECK(parent_word == child);
  while (turn != 1) sched_yield();
  turn = 2;
  while (*(volatile pid_t*)&child_word != 0) sched_yield();
  printf("its words: status %d\n", status_of(child));
}

static int change_own(void* argument) {
  (void)argument;
  signal(SIGUSR1, SIG_IGN);
  syscall(SYS_kill, syscall(SYS_getpid), SIGUSR1);
  close(ends[0]);
  return handled == 0 ? 8 : 1;
}

static void the_rest_is_not_shared(void) {
  handled = 0;
  CHECK(signal(SIGUSR1, handle) != SIG_ERR && pipe(ends) == 0);
  CHECK(status_of(start(change_own, NULL, SHARED)) == 8);
  CHECK(raise(SIGUSR1) == 0);
  printf("handler and descriptor: %d %d\n", handled == SIGUSR1, fcntl(ends[0], F_GETFD) >= 0);
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
}

static int become_shell(void* argument) {
  char* arguments[] = {"sh", "-c", "exit 9", NULL};
  char* environment[] = {NULL};
  (void)argument;
  execve("/bin/sh", arguments, environment);
  return 1;
}

static int wait_for_ever(void* argument) {
  (void)argument;
  for (turn = 1;;) {
    if (syscall(SYS_sched_yield) != 0) return 1;
  }
}

static void ends_of_children(void) {
  printf("another program: %d\n", status_of(start(become_shell, NULL, SHARED)));
  turn = 0;
  const pid_t child = start(wait_for_ever, NULL, SHARED);
  while (turn == 0) sched_yield();
  CHECK(kill(child, SIGKILL) == 0);
  printf("killed: %d\n", status_of(child));
}

// Stops all threads of the parent, finds that nothing moves, and lets them go.
static int stop_parent(void* argument) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/task", (int)syscall(SYS_getppid));
  DIR* tasks = opendir(path);
  pid_t stopped[64];
  int count = 0;
  for (struct dirent* entry = NULL; tasks != NULL && (entry = readdir(tasks)) != NULL && count < 64;) {
    const pid_t task = atoi(entry->d_name);
    if (task == 0) continue;
    if (ptrace(PTRACE_ATTACH, task, NULL, NULL) != 0) return 20;
    int status = 0;
    if (waitpid(task, &status, __WALL) != task || !WIFSTOPPED(status)) return 21;
    stopped[count++] = task;
  }
  const int before = sum;
  usleep(20000);
  const int still = sum == before && count >= *(int*)argument;
  for (int index = 0; index < count; ++index) {
    if (ptrace(PTRACE_DETACH, stopped[index], NULL, NULL) != 0) return 22;
  }
  closedir(tasks);
  turn = 1;
  return still ? 11 : 23;
}

static void* count_on(void* argument) {
  while (busy) __atomic_fetch_add(&sum, 1, __ATOMIC_RELAXED);
  return argument;
}

static void child_stops_parent(void) {
  int threads = 3;
  pthread_t others[2];
  busy = 1;
  turn = 0;
  sum = 0;
  CHECK(prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY) == 0 || errno == EINVAL);
  for (int index = 0; index < 2; ++index) CHECK(pthread_create(&others[index], NULL, count_on, NULL) == 0);
  while (sum < 1000) sched_yield();
  const pid_t child = start(stop_parent, &threads, CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_UNTRACED);
  // The child may have ended before this sees that it is its turn.
  int end = 0;
  pid_t ended = 0;
  while (turn == 0 && ended == 0) {
    ended = waitpid(child, &end, __WALL | WNOHANG);
    sched_yield();
  }
  const int status = ended == child ? WEXITSTATUS(end) : status_of(child);
  printf("stopped and let go: status %d\n", status);
  CHECK(status == 11);
  busy = 0;
  for (int index = 0; index < 2; ++index) CHECK(pthread_join(others[index], NULL) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  alarm(120);  // A parent that waits for a copy of its memory waits for ever.
  for (int round = 0; round < rounds; ++round) {
    both_go_on();
    several_at_once();
    words_are_kept();
    the_rest_is_not_shared();
    ends_of_children();
    child_stops_parent();
  }
  return 0;
}
