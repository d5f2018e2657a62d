// A thread that has given its stack away when it ends: from the moment that it has said so, nothing may write there.
#include <linux/futex.h>
#include <sched.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "syscalls/check.h"

enum {
  STACK_SIZE = 65536,
  WORDS = 8,
  FLAGS = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM | CLONE_CHILD_CLEARTID
};

_Noreturn void leave_stack(uint64_t* words);
long call_between(long number);

static int tid;
static uint64_t left[2];  // Where the pattern begins, and its word.

static int leaving(void* words) { leave_stack(words); }

int main(void) {
  unsigned char* stack = mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  for (int round = 0; round < 20; ++round) {
    tid = 1;
    CHECK(clone(leaving, stack + STACK_SIZE, FLAGS, left, NULL, NULL, &tid) > 0);
    for (int value = 0; (value = __atomic_load_n(&tid, __ATOMIC_ACQUIRE)) != 0;) {
      syscall(SYS_futex, &tid, FUTEX_WAIT, value, NULL, NULL, 0);
    }
    int changed = 0;
    for (int index = 0; index < WORDS; ++index) changed += ((uint64_t*)left[0])[index] != left[1];
    if (changed != 0) printf("round %d: %d words of the stack have changed\n", round, changed);
    CHECK(call_between(SYS_getpid) == getpid());
  }
  puts("every stack is as it was left");
  return 0;
}
