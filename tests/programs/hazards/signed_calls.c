// Functions that a compiler has made with signed return addresses. After such a return the engine must still follow the
// code, thread-local variables must be those of the thread, and a return to a forged address must end the process as it
// does natively.
#include <asm/hwcap.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../syscalls/check.h"

int signed_depth(int depth);
int signed_thread_variable(int value);
int signed_throws(int frames);
long signed_visits(long count);
void return_to_forged_address(void);

static int ends_by_signal(void) {
  fflush(NULL);
  const pid_t child = fork();
  if (child == 0) {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    return_to_forged_address();
    _exit(0);
  }
  int status = 0;
  CHECK(child > 0 && waitpid(child, &status, 0) == child);
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

int main(void) {
  if ((getauxval(AT_HWCAP) & HWCAP_PACA) == 0) {
    puts("not for this processor");
    return 0;
  }
  printf("depth %d\n", signed_depth(10000));
  for (int round = 0; round < 100; ++round) CHECK(signed_thread_variable(round) == round);
  printf("caught %d\n", signed_throws(10));
  printf("visits %ld\n", signed_visits(100000));
  printf("a forged return: signal %d\n", ends_by_signal());  // 11, or 4 of a processor that faults at once.
  return 0;
}
