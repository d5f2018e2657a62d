/* Changes its process, works, and ends with status 3:
 *
 *   leaves CHANGE...   with the changes named below */
#include <fenv.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static volatile double sink = 1.0;

static int lower(int resource, rlim_t soft, int hard_too) {
  struct rlimit limit;
  getrlimit(resource, &limit);
  limit.rlim_cur = soft;
  if (hard_too) limit.rlim_max = soft;
  return setrlimit(resource, &limit);
}

static void nothing(int number) { (void)number; }

static int send_from_timers(void) {
  struct sigevent event;
  memset(&event, 0, sizeof event);
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN + 1;
  timer_t timer;
  const struct itimerspec often = {{0, 1000000}, {0, 1000000}};
  const struct itimerval also_often = {{0, 1000}, {0, 1000}};
  signal(SIGRTMIN + 1, nothing);
  signal(SIGALRM, nothing);
  return timer_create(CLOCK_MONOTONIC, &event, &timer) || timer_settime(timer, 0, &often, NULL) ||
         setitimer(ITIMER_REAL, &also_often, NULL);
}

static int change(const char* what) {
  if (strcmp(what, "file_size") == 0) return lower(RLIMIT_FSIZE, 100, 0);
  if (strcmp(what, "file_size_for_good") == 0) return lower(RLIMIT_FSIZE, 100, 1);
  if (strcmp(what, "memory") == 0) return lower(RLIMIT_AS, 1 << 20, 0);
  if (strcmp(what, "processor_time") == 0) return lower(RLIMIT_CPU, 1, 0);
  if (strcmp(what, "descriptors") == 0) return lower(RLIMIT_NOFILE, 3, 0);
  if (strcmp(what, "file_mask") == 0) return umask(0777) == 0777;
  if (strcmp(what, "arithmetic") == 0) {
    __asm__ volatile("msr fpcr, %0" ::"r"(0x1c00000UL)); /* Towards zero, and what is near zero is zero. */
    return 0;
  }
  if (strcmp(what, "scheduling") == 0) {
    const struct sched_param lowest = {0};
    return sched_setscheduler(0, SCHED_IDLE, &lowest);
  }
  if (strcmp(what, "locked_memory") == 0) return mlockall(MCL_FUTURE) || lower(RLIMIT_MEMLOCK, 1 << 16, 0);
  if (strcmp(what, "signals") == 0) {
    sigset_t all;
    sigfillset(&all);
    return sigprocmask(SIG_BLOCK, &all, NULL);
  }
  if (strcmp(what, "timers") == 0) return send_from_timers();
  return 1;
}

int main(int argc, char** argv) {
  for (int round = 0; round < 1000; ++round) sink = sink * 0.5 + 1.0;
  fputs("worked\n", stdout);
  fflush(stdout);
  for (int argument = 1; argument < argc; ++argument) {
    if (change(argv[argument]) != 0) return 100;
  }
  _exit(3);
}
