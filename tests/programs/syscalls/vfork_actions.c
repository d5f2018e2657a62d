// Two children in their parent's memory at once, each with signal actions of its own: what one sets, the other does not
// find.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

enum { CHILDREN = 2 };

// In memory that is shared whatever kind of copy a child gets.
static volatile struct {
  int set;
  int wrong[CHILDREN];
} * shared;

static const int masked[CHILDREN] = {SIGHUP, SIGTERM};

static void handle(int number) { (void)number; }

static void* make_child(void* data) {
  const int index = (int)(long)data;
  const pid_t child = vfork();
  if (child == 0) {
    struct sigaction action = {.sa_handler = handle, .sa_flags = index == 0 ? SA_RESTART : SA_NODEFER};
    sigaddset(&action.sa_mask, masked[index]);
    sigaction(SIGUSR1, &action, NULL);
    __atomic_fetch_add(&shared->set, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&shared->set, __ATOMIC_SEQ_CST) < CHILDREN) sched_yield();
    struct sigaction found = {0};
    sigaction(SIGUSR1, NULL, &found);
    for (int other = 0; other < CHILDREN; ++other) {
      if (sigismember(&found.sa_mask, masked[other]) != (other == index)) shared->wrong[index] = 1;
    }
    _exit(0);
  }
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  return NULL;
}

int main(void) {
  shared = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(shared != MAP_FAILED);
  for (int round = 0; round < 5; ++round) {
    shared->set = 0;
    pthread_t threads[CHILDREN];
    for (long index = 0; index < CHILDREN; ++index) {
      CHECK(pthread_create(&threads[index], NULL, make_child, (void*)index) == 0);
    }
    for (int index = 0; index < CHILDREN; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  }
  printf("masks of others: %d %d\n", shared->wrong[0], shared->wrong[1]);
  struct sigaction kept = {0};
  CHECK(sigaction(SIGUSR1, NULL, &kept) == 0);
  printf("the parent's action is the default: %d\n", kept.sa_handler == SIG_DFL);
  return 0;
}
