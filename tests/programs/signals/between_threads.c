// Signals between threads: between_threads [ROUNDS]. raise and pthread_kill reach the thread that they are meant for,
// in computation, in calls and asleep; what is sent to the process is handled once, by any of its threads; none is
// lost.
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <sys/prctl.h>

#include "guard.h"

enum { THREADS = 4, SIGNALS = 6 };

static _Thread_local int my_number = -1;
static atomic_int received[THREADS];
static atomic_int wrong;
static atomic_int ready;
static atomic_int stop;
static atomic_int* for_process;

static void to_thread(int number, siginfo_t* info, void* context) {
  (void)context;
  if (number != SIGUSR1 || info->si_code != SI_TKILL || my_number < 0) {
    atomic_fetch_add(&wrong, 1);
    return;
  }
  atomic_fetch_add(&received[my_number], 1);
}

static void to_process(int number) { atomic_fetch_add(for_process, number == SIGUSR2); }

static void* work(void* argument) {
  my_number = (int)(intptr_t)argument;
  volatile long steps = 0;
  CHECK(raise(SIGUSR1) == 0);
  CHECK(atomic_load(&received[my_number]) == 1);  // Before raise returns.
  atomic_fetch_add(&ready, 1);
  while (!atomic_load(&stop)) {
    switch (my_number) {
      case 0: usleep(1000000); break;
      case 1: steps += getppid(); break;
      case 2:
        while (!atomic_load(&stop)) ++steps;
        break;
      default:
        for (int step = 0; step < 50; ++step) ++steps;
        break;
    }
  }
  return argument;
}

static void run(void) {
  pthread_t threads[THREADS];
  atomic_store(&ready, 0);
  atomic_store(&stop, 0);
  for (int index = 0; index < THREADS; ++index) atomic_store(&received[index], 0);
  for (intptr_t index = 0; index < THREADS; ++index) {
    CHECK(pthread_create(&threads[index], NULL, work, (void*)index) == 0);
  }
  while (atomic_load(&ready) < THREADS) usleep(100);
  for (int sent = 0; sent < SIGNALS; ++sent) {
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_kill(threads[index], SIGUSR1) == 0);
    for (int index = 0; index < THREADS; ++index) {
      while (atomic_load(&received[index]) < sent + 2) sched_yield();
      CHECK(atomic_load(&received[index]) == sent + 2);
    }
  }
  atomic_store(for_process, 0);
  const pid_t target = getpid();
  const pid_t sender = fork();
  CHECK(sender >= 0);
  if (sender == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int sent = 0; sent < SIGNALS; ++sent) {
      while (atomic_load(for_process) != sent) usleep(100);
      if (kill(target, SIGUSR2) != 0) _exit(1);
    }
    _exit(0);
  }
  int status = -1;
  while (atomic_load(for_process) < SIGNALS) sched_yield();
  while (waitpid(sender, &status, 0) != sender) continue;
  CHECK(status == 0);
  atomic_store(&stop, 1);
  CHECK(pthread_kill(threads[0], SIGUSR1) == 0);  // Out of its sleep.
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  CHECK(atomic_load(for_process) == SIGNALS && atomic_load(&wrong) == 0);
  for (int index = 1; index < THREADS; ++index) CHECK(atomic_load(&received[index]) == SIGNALS + 1);
  CHECK(atomic_load(&received[0]) <= SIGNALS + 2);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for_process = mmap(NULL, sizeof *for_process, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(for_process != MAP_FAILED);
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_RESTART};
  action.sa_sigaction = to_thread;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  struct sigaction process_action = {.sa_flags = SA_RESTART};
  process_action.sa_handler = to_process;
  CHECK(sigaction(SIGUSR2, &process_action, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    run();
  }
  puts("each signal where it was meant to be");
  return 0;
}
