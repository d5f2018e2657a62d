// sent_with [ROUNDS]: what is sent with a signal reaches its handler. In a loop of the program's own, the handler finds
// the code, the sender and the value of signals from another process, from another thread, from a timer, and from the
// end of a child. Queued signals arrive in their order, and none is lost.
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <time.h>

#include "guard.h"

enum { QUEUED = 20, MOST = 64 };

static siginfo_t seen[MOST];
static atomic_int seen_count;

static void hear(int number, siginfo_t* info, void* context) {
  (void)context;
  const int at = atomic_load(&seen_count);
  if (at < MOST && info->si_signo == number) seen[at] = *info;
  atomic_store(&seen_count, at + 1);
}

// The loop makes no system call, so the engine counts the signals and raises them again.
static void compute_until(int count) {
  volatile unsigned long steps = 0;
  while (atomic_load(&seen_count) < count) ++steps;
}

static void listen_to(int number) {
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = hear;
  sigfillset(&action.sa_mask);
  CHECK(sigaction(number, &action, NULL) == 0);
  atomic_store(&seen_count, 0);
  memset(seen, 0, sizeof seen);
}

static pid_t in_child(void (*act)(pid_t parent)) {
  const pid_t parent = getpid();
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    act(parent);
    _exit(0);
  }
  return child;
}

static void end_of(pid_t child) { CHECK(waitpid(child, NULL, 0) == child); }

static void send_queue(pid_t parent) {
  for (int index = 0; index < QUEUED; ++index) {
    if (sigqueue(parent, SIGRTMIN + 2, (union sigval){.sival_int = 100 + index}) != 0) _exit(1);
  }
}

static void queued_by_a_process(void) {
  listen_to(SIGRTMIN + 2);
  const pid_t child = in_child(send_queue);
  compute_until(QUEUED);
  for (int index = 0; index < QUEUED; ++index) {
    CHECK(seen[index].si_code == SI_QUEUE && seen[index].si_value.sival_int == 100 + index);
    CHECK(seen[index].si_pid == child && seen[index].si_uid == getuid());
  }
  end_of(child);
}

static void send_one(pid_t parent) { kill(parent, SIGUSR1); }

static void sent_by_a_process(void) {
  listen_to(SIGUSR1);
  const pid_t child = in_child(send_one);
  compute_until(1);
  CHECK(seen[0].si_code == SI_USER && seen[0].si_pid == child);
  end_of(child);
}

static pthread_t computing;
static void* send_from_thread(void* argument) {
  CHECK(pthread_kill(computing, SIGUSR2) == 0);
  return argument;
}

static void sent_by_a_thread(void) {
  listen_to(SIGUSR2);
  computing = pthread_self();
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, send_from_thread, NULL) == 0);
  compute_until(1);
  CHECK(seen[0].si_code == SI_TKILL && seen[0].si_pid == getpid());
  CHECK(pthread_join(thread, NULL) == 0);
}

static void sent_by_a_timer(void) {
  listen_to(SIGRTMIN + 3);
  struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGRTMIN + 3};
  event.sigev_value.sival_ptr = seen;
  timer_t timer;
  CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0);
  const struct itimerspec once = {.it_value = {0, 5000000}};
  CHECK(timer_settime(timer, 0, &once, NULL) == 0);
  compute_until(1);
  CHECK(seen[0].si_code == SI_TIMER && seen[0].si_value.sival_ptr == seen);
  CHECK(timer_delete(timer) == 0);
}

static void end_with_seven(pid_t parent) {
  (void)parent;
  _exit(7);
}

static void child_ends(void) {
  listen_to(SIGCHLD);
  const pid_t child = in_child(end_with_seven);
  compute_until(1);
  CHECK(seen[0].si_code == CLD_EXITED && seen[0].si_pid == child && seen[0].si_status == 7);
  signal(SIGCHLD, SIG_DFL);
  end_of(child);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    queued_by_a_process();
    sent_by_a_process();
    sent_by_a_thread();
    sent_by_a_timer();
    child_ends();
  }
  puts("code, sender and value arrive");
  return 0;
}
