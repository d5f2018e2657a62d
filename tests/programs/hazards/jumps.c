// setjmp and longjmp: within a function, out of a hundred frames, again and again, and between two contexts of their
// own.
#include <setjmp.h>
#include <ucontext.h>

#include "../syscalls/check.h"

static jmp_buf target;
static ucontext_t here, there;

static __attribute__((noinline)) void descend(int depth, int value) {
  volatile char room[64];
  room[0] = (char)depth;
  if (depth < 0) return;
  if (depth == 0) longjmp(target, value);
  descend(depth - 1, value + (room[0] == (char)depth));
}

static void coroutine(void) {
  for (int step = 0; step < 5; ++step) {
    printf("there %d\n", step);
    swapcontext(&there, &here);
  }
}

int main(void) {
  static char stack[65536];
  volatile long sum = 0;
  for (volatile int round = 0; round < 1000; ++round) {
    const int value = setjmp(target);
    if (value == 0) descend(round % 100, 1);
    CHECK(value == round % 100 + 1);
    sum += value;
  }
  printf("%ld\n", sum);
  volatile int times = 0;
  CHECK(setjmp(target) == times);
  if (++times < 10) longjmp(target, times);
  CHECK(getcontext(&there) == 0);
  there.uc_stack.ss_sp = stack;
  there.uc_stack.ss_size = sizeof stack;
  there.uc_link = &here;
  makecontext(&there, coroutine, 0);
  for (int step = 0; step < 5; ++step) {
    printf("here %d\n", step);
    CHECK(swapcontext(&here, &there) == 0);
  }
  return 0;
}
