// Threads as language run times make them. One finds its arguments below its stack pointer, and all registers of its
// parent. Another unmaps its own stack before it ends.
#include <linux/futex.h>
#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { STACK_SIZE = 65536, FLAGS = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM };

extern volatile uint64_t answer[16];
long start_bare(long flags, void* stack, int* tid);
_Noreturn void unmap_and_exit(void* memory, long size);

static int tid;

static void wait_for_end(void) {
  for (int value = 0; (value = __atomic_load_n(&tid, __ATOMIC_ACQUIRE)) != 0;) {
    syscall(SYS_futex, &tid, FUTEX_WAIT, value, NULL, NULL, 0);
  }
}

static void* new_stack(void) {
  void* stack = mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  return stack;
}

static double as_double(uint64_t word) {
  double value = 0;
  memcpy(&value, &word, sizeof value);
  return value;
}

static void arguments_below(void) {
  unsigned char* stack = new_stack();
  tid = 1;
  CHECK(start_bare(FLAGS | CLONE_CHILD_CLEARTID, stack + STACK_SIZE - 4096, &tid) > 0);
  wait_for_end();
  printf("registers: %d %d %d %d %d %d %g %g\n", (int)answer[0], (int)answer[1], (int)answer[2], (int)answer[3],
         (int)answer[4], (int)answer[5], as_double(answer[6]), as_double(answer[7]));
  printf("below the stack pointer: %d %d %d %d %d %d\n", (int)answer[8], (int)answer[9], (int)answer[10],
         (int)answer[11], (int)answer[12], (int)answer[13]);
  memset((void*)answer, 0, sizeof answer);
  CHECK(munmap(stack, STACK_SIZE) == 0);
}

static int unmapping(void* stack) { unmap_and_exit(stack, STACK_SIZE); }

static void own_stack(void) {
  unsigned char* stack = new_stack();
  tid = 1;
  CHECK(clone(unmapping, stack + STACK_SIZE, FLAGS | CLONE_CHILD_CLEARTID, stack, NULL, NULL, &tid) > 0);
  wait_for_end();
  // All of the stack is unmapped: its place can be mapped again.
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
  void* again = mmap(stack, STACK_SIZE, PROT_READ | PROT_WRITE, flags, -1, 0);
  CHECK(again == stack);
  CHECK(munmap(stack, STACK_SIZE) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 20);
  for (int round = 0; round < rounds; ++round) {
    if (round < 2) arguments_below();
    own_stack();
  }
  puts("every thread ended");
  return 0;
}
