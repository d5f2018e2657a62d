// blocking_calls [ROUNDS]: signals in calls that sleep. pause, read with and without SA_RESTART, nanosleep, poll, a
// semaphore, a condition, and sigsuspend in turn with another process. No signal is lost.
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <sys/prctl.h>
#include <time.h>

#include "guard.h"

static volatile int ticks;
static int feed = -1;  // After the third tick a byte goes in here.

static void tick(int number) {
  const int kept = errno;
  timer_ticked();
  if (number == SIGALRM && ++ticks == 3 && feed >= 0) CHECK(write(feed, "x", 1) == 1);
  errno = kept;
}

static void catch_ticks(int flags) {
  struct sigaction action = {.sa_flags = flags};
  action.sa_handler = tick;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  ticks = 0;
}

static void pauses(void) {
  catch_ticks(SA_RESTART);  // No call is made again that waits for a signal.
  timer_set(1000);
  for (int index = 0; index < 3; ++index) {
    const int before = ticks;
    CHECK(pause() == -1 && errno == EINTR);
    CHECK(ticks > before);
  }
  timer_set(0);
}

static void reads(int flags) {
  int ends[2];
  char byte = 0;
  CHECK(pipe(ends) == 0);
  catch_ticks(flags);
  feed = ends[1];
  timer_set(1000);
  if (flags & SA_RESTART) {
    CHECK(read(ends[0], &byte, 1) == 1 && byte == 'x' && ticks >= 3);
  } else {
    int interrupted = 0;
    while (read(ends[0], &byte, 1) == -1) {
      CHECK(errno == EINTR);
      CHECK(++interrupted <= ticks);
    }
    CHECK(byte == 'x' && ticks >= 3);
  }
  timer_set(0);
  feed = -1;
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
}

static void sleeps(void) {
  catch_ticks(SA_RESTART);
  timer_set(1000);
  struct timespec left = {3600, 0};
  for (int index = 0; index < 3; ++index) {
    const struct timespec request = left;
    CHECK(nanosleep(&request, &left) == -1 && errno == EINTR);
    CHECK(left.tv_sec >= 3000);
  }
  CHECK(poll(NULL, 0, -1) == -1 && errno == EINTR);
  timer_set(0);
}

static sem_t semaphore;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int turn;

static void* answer(void* argument) {
  while (ticks < 3) usleep(500);
  CHECK(sem_post(&semaphore) == 0);
  CHECK(pthread_mutex_lock(&lock) == 0);
  turn = 1;
  CHECK(pthread_cond_signal(&changed) == 0);
  CHECK(pthread_mutex_unlock(&lock) == 0);
  return argument;
}

// The timer's signals reach whichever thread the kernel likes.
static void waits_for_a_thread(void) {
  pthread_t thread;
  turn = 0;
  CHECK(sem_init(&semaphore, 0, 0) == 0);
  catch_ticks(SA_RESTART);
  timer_set(1000);
  CHECK(pthread_create(&thread, NULL, answer, NULL) == 0);
  while (sem_wait(&semaphore) != 0) CHECK(errno == EINTR);
  CHECK(pthread_mutex_lock(&lock) == 0);
  while (turn == 0) CHECK(pthread_cond_wait(&changed, &lock) == 0);
  CHECK(pthread_mutex_unlock(&lock) == 0);
  CHECK(pthread_join(thread, NULL) == 0);
  timer_set(0);
}

static volatile sig_atomic_t heard;
static void hear(int number) { heard += number == SIGUSR1; }

// Two processes signal each other in turn; each sleeps until the other has.
static void take_turns(int count) {
  sigset_t all_but;
  sigset_t one;
  sigset_t old;
  sigemptyset(&one);
  sigaddset(&one, SIGUSR1);
  CHECK(sigprocmask(SIG_BLOCK, &one, &old) == 0);
  struct sigaction action = {.sa_flags = 0};
  action.sa_handler = hear;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  sigfillset(&all_but);
  sigdelset(&all_but, SIGUSR1);
  const pid_t parent = getpid();
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
  const pid_t other = child == 0 ? parent : child;
  heard = 0;
  for (int index = 0; index < count; ++index) {
    if (child != 0) CHECK(kill(other, SIGUSR1) == 0);
    while (heard == index) CHECK(sigsuspend(&all_but) == -1 && errno == EINTR);
    CHECK(heard == index + 1);
    if (child == 0) CHECK(kill(other, SIGUSR1) == 0);
  }
  if (child == 0) _exit(0);
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  CHECK(sigprocmask(SIG_SETMASK, &old, NULL) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    pauses();
    reads(SA_RESTART);
    reads(0);
    sleeps();
    waits_for_a_thread();
    take_turns(5);
  }
  puts("every call has seen its signals");
  return 0;
}
