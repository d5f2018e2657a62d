// A restartable sequence that a signal interrupts has to be begun again. If the kernel cannot do that, it has to refuse
// the registration: a program that relies on the restart and does not get it would lose its data. The C library must
// not have registered first (GLIBC_TUNABLES=glibc.pthread.rseq=0).
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "check.h"

struct area {
  unsigned cpu_id_start, cpu_id;
  volatile unsigned long rseq_cs;
  unsigned flags, padding[3];
} __attribute__((aligned(32)));

static struct area area;
static volatile sig_atomic_t ticks;

long restartable_section(volatile unsigned long* rseq_cs, long spins);

static void tick(int number) {
  (void)number;
  ++ticks;
}

int main(void) {
  const long refused = syscall(SYS_rseq, &area, sizeof area, 0, 0xd428bc00);
  CHECK(refused == 0 || errno == ENOSYS);
  if (refused == 0) {
    struct sigaction action = {.sa_handler = tick};
    CHECK(sigaction(SIGALRM, &action, NULL) == 0);
    const struct itimerval often = {{0, 2000}, {0, 2000}};
    CHECK(setitimer(ITIMER_REAL, &often, NULL) == 0);
    long restarts = 0;
    while (restarts == 0 && ticks < 500) restarts += restartable_section(&area.rseq_cs, 1000000);
    CHECK(restarts == 1);
  }
  puts("no sequence went on that was interrupted");
  return 0;
}
