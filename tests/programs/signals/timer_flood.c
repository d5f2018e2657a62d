// timer_flood [PERIOD_IN_MICROSECONDS]: a timer whose signals take longer to handle than its period. The program still
// goes on between two of them: it computes, makes system calls, is woken from calls that sleep, and receives SIGTERM.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "guard.h"

enum { ENOUGH = 10 };

static long period = 50;
static atomic_long ticks;
static atomic_int told_to_end;

static void tick(int number) {
  (void)number;
  atomic_fetch_add(&ticks, 1);
}

static void end(int number) {
  (void)number;
  atomic_store(&told_to_end, 1);
}

static void listen_to(int number, void (*handler)(int), int flags) {
  struct sigaction action = {.sa_handler = handler, .sa_flags = flags};
  CHECK(sigaction(number, &action, NULL) == 0);
}

static void start_flood(int flags) {
  atomic_store(&ticks, 0);
  listen_to(SIGALRM, tick, flags);
  const struct itimerval every = {{0, period}, {0, period}};
  CHECK(setitimer(ITIMER_REAL, &every, NULL) == 0);
}

static void end_flood(const char* what) {
  const struct itimerval never = {{0, 0}, {0, 0}};
  CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
  CHECK(atomic_load(&ticks) > 0);
  sigset_t pending;
  CHECK(sigpending(&pending) == 0 && !sigismember(&pending, SIGALRM));
  sigset_t blocked;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &blocked) == 0 && !sigismember(&blocked, SIGALRM));
  puts(what);
  fflush(stdout);
}

static void compute(void) {
  start_flood(SA_RESTART);
  volatile unsigned sum = 0;
  do {
    sum = 0;
    for (unsigned step = 0; step < 3000; ++step) sum += step % 7 == 3 ? step : 1;
  } while (atomic_load(&ticks) < ENOUGH);
  CHECK(sum == 646500);
  end_flood("it computes");
}

static void make_calls(void) {
  start_flood(SA_RESTART);
  const int file = open("/dev/null", O_WRONLY);
  CHECK(file >= 0);
  for (int round = 0; round < 200 || atomic_load(&ticks) < ENOUGH; ++round) {
    CHECK(getppid() > 0);
    CHECK(write(file, "word", 4) == 4);
  }
  CHECK(close(file) == 0);
  end_flood("it makes calls");
}

// A mask that is set during the flood is the one that was asked for.
static void change_masks(void) {
  start_flood(SA_RESTART);
  for (int round = 0; round < 20 || atomic_load(&ticks) < ENOUGH; ++round) {
    sigset_t one;
    sigset_t old;
    sigemptyset(&one);
    sigaddset(&one, SIGALRM);
    CHECK(sigprocmask(SIG_BLOCK, &one, &old) == 0);
    CHECK(!sigismember(&old, SIGALRM) && !sigismember(&old, SIGTERM));
    const long before = atomic_load(&ticks);
    for (volatile int step = 0; step < 1000; ++step) continue;
    CHECK(atomic_load(&ticks) == before);
    CHECK(sigprocmask(SIG_SETMASK, NULL, &old) == 0);
    CHECK(sigismember(&old, SIGALRM) && !sigismember(&old, SIGTERM));
    CHECK(sigprocmask(SIG_UNBLOCK, &one, NULL) == 0);
  }
  end_flood("its mask is its own");
}

static void sleep_interrupted(void) {
  start_flood(0);
  const struct timespec minute = {60, 0};
  CHECK(nanosleep(&minute, NULL) == -1 && errno == EINTR);
  CHECK(poll(NULL, 0, 60000) == -1 && errno == EINTR);
  int ends[2];
  CHECK(pipe(ends) == 0);
  char byte = 0;
  CHECK(read(ends[0], &byte, 1) == -1 && errno == EINTR);
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
  end_flood("its sleep is interrupted");
}

static void read_restarted(void) {
  int ends[2];
  CHECK(pipe(ends) == 0);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    const struct timespec while_the_parent_reads = {0, 100000000};
    nanosleep(&while_the_parent_reads, NULL);
    _exit(write(ends[1], "x", 1) == 1 ? 0 : 1);
  }
  start_flood(SA_RESTART);
  char byte = 0;
  CHECK(read(ends[0], &byte, 1) == 1 && byte == 'x');
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  end_flood("its calls are restarted");
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
}

static void hear_of_the_end(void (*wait)(void), const char* what) {
  atomic_store(&told_to_end, 0);
  listen_to(SIGTERM, end, SA_RESTART);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    const struct timespec while_the_parent_waits = {0, 100000000};
    nanosleep(&while_the_parent_waits, NULL);
    _exit(kill(getppid(), SIGTERM) == 0 ? 0 : 1);
  }
  start_flood(SA_RESTART);
  while (!atomic_load(&told_to_end)) wait();
  CHECK(waitpid(child, NULL, 0) == child);
  end_flood(what);
}

static void do_nothing(void) {}
static void wait_for_a_signal(void) { pause(); }

static void* compute_in_a_thread(void* sum) {
  for (unsigned step = 0; step < 1000; ++step) *(volatile unsigned*)sum += step;
  return sum;
}

static void start_threads(void) {
  start_flood(SA_RESTART);
  unsigned sum = 0;
  unsigned rounds = 0;
  while (rounds < 3 || atomic_load(&ticks) < ENOUGH) {
    ++rounds;
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, compute_in_a_thread, &sum) == 0);
    CHECK(pthread_join(thread, NULL) == 0);
  }
  CHECK(sum == rounds * 499500);
  end_flood("it starts threads");
}

static char* program;

// A program that is started during the flood has the mask of this program.
static void spawn_programs(void) {
  start_flood(SA_RESTART);
  for (int round = 0; round < 3 || atomic_load(&ticks) < ENOUGH; ++round) {
    char* const arguments[] = {program, "mask", NULL};
    pid_t child = 0;
    CHECK(posix_spawn(&child, program, NULL, NULL, arguments, environ) == 0);
    int status = -1;
    CHECK(waitpid(child, &status, 0) == child);
    CHECK(status == 0);
  }
  end_flood("what it starts has its mask");
}

static int check_mask(void) {
  sigset_t blocked;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &blocked) == 0);
  for (int number = 1; number < SIGRTMIN; ++number) CHECK(sigismember(&blocked, number) != 1);
  return 0;
}

int main(int argc, char** argv) {
  program = argv[0];
  if (argc > 1 && strcmp(argv[1], "mask") == 0) return check_mask();
  guard_begin();
  if (argc > 1) period = atol(argv[1]);
  guard_round(1);
  compute();
  guard_round(2);
  make_calls();
  guard_round(3);
  change_masks();
  guard_round(4);
  sleep_interrupted();
  guard_round(5);
  read_restarted();
  guard_round(6);
  hear_of_the_end(do_nothing, "it hears of its end as it computes");
  guard_round(7);
  hear_of_the_end(wait_for_a_signal, "it hears of its end as it waits");
  guard_round(8);
  start_threads();
  guard_round(9);
  spawn_programs();
  return 0;
}
