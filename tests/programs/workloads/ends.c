/* Does some work with regions marked, and then does not end as a program should:
 *
 *   ends crash     writes through a null pointer
 *   ends abort     calls abort
 *   ends never     goes on for ever, with a line of output to say that it has begun
 *   ends on_term   the same, but on SIGTERM it prints a line and exits with status 5
 *   ends on_interrupt   the same, but on SIGINT it prints a line and goes on */
#include <roofline_events.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static volatile double sink = 1.0;
static volatile sig_atomic_t told_to_end = 0;

static void remember(int number) { told_to_end = number; }

static void go_on(int number) {
  static const char line[] = "told to go on\n";
  (void)number;
  if (write(1, line, sizeof line - 1) < 0) _exit(1);
}

static void work(long rounds) {
  for (long round = 0; round < rounds; ++round) sink = sink * 0.5 + 1.0;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  init_perf_roofline_events();
  start_perf_roofline_events("half");
  work(1000);
  stop_perf_roofline_events("half");
  if (strcmp(argv[1], "on_term") == 0) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = remember;
    sigaction(SIGTERM, &action, NULL);
  }
  if (strcmp(argv[1], "on_interrupt") == 0) signal(SIGINT, go_on);
  puts("half of the work is done");
  fflush(stdout);
  if (strcmp(argv[1], "crash") == 0) *(volatile int*)NULL = 1;
  if (strcmp(argv[1], "abort") == 0) abort();
  while (!told_to_end) work(1000);
  finalize_perf_roofline_events();
  puts("told to end");
  return 5;
}
