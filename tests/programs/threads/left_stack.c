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

typedef void leaving_function(uint64_t* words);
leaving_function leave_stack, leave_stack_later, leave_stack_by_function;
long call_between(long number);

static int tid;
static uint64_t left[2];  // Where the pattern begins, and its word.

static leaving_function* leave;
static int leaving(void* words) {
  leave(words);
  return 1;
}

static void end_threads(const char* name, leaving_function* function) {
  leave = function;
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
    if (changed != 0) printf("%s, round %d: %d words of the stack have changed\n", name, round, changed);
    CHECK(call_between(SYS_getpid) == getpid());
  }
}

int main(void) {
  end_threads("number beside the call", leave_stack);
  end_threads("number long before", leave_stack_later);
  end_threads("number from a register", leave_stack_by_function);
  puts("every stack is as it was left");
  return 0;
}
