// A loop between two system calls keeps its SVE state whatever signals come: sve_state [ROUNDS]. Without SVE there is
// nothing to do, and the output is the same.
#include <string.h>
#include <sys/auxv.h>
#include <ucontext.h>

#include "guard.h"

long sve_loop(volatile int* flag, char* before, char* after);
extern char sve_loop_begin[];
extern char sve_loop_end[];

static volatile int flag;
static volatile int inside;

static void tick(int number, siginfo_t* info, void* context) {
  timer_ticked();
  const unsigned long pc = ((ucontext_t*)context)->uc_mcontext.pc;
  if (number == info->si_signo && pc >= (unsigned long)sve_loop_begin && pc < (unsigned long)sve_loop_end) ++inside;
  if (inside == 3) flag = 1;
}

int main(int argc, char** argv) {
  enum { AREA = 256 * 32 + 32 * 17 };
  static char before[AREA];
  static char after[AREA];
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = tick;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  const int has_sve = (getauxval(AT_HWCAP) & HWCAP_SVE) != 0;
  for (int round = 0; has_sve && round < rounds; ++round) {
    guard_round(round);
    inside = 0;
    flag = 0;
    memset(after, 0, sizeof after);
    timer_set(1000);
    const long length = sve_loop(&flag, before, after);
    timer_set(0);
    const long used = length * 32 + length / 8 * 17;
    for (long index = 0; index < used; ++index) {
      if (before[index] == after[index]) continue;
      fprintf(stderr, "byte %ld of %ld-byte vectors: %d before, %d after\n", index, length, before[index],
              after[index]);
      exit(1);
    }
    CHECK(length >= 16 && after[length] == 5);
  }
  puts("vectors and predicates kept");
  return 0;
}
