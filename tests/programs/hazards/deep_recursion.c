// Recursion 100,000 deep, direct, mutual and through a pointer.
#include "../syscalls/check.h"

static long direct(long depth);
static long other(long depth);
static long (*volatile pointer)(long) = direct;
static volatile long one = 1;

static __attribute__((noinline)) long direct(long depth) { return depth == 0 ? 0 : direct(depth - one) + one; }
static __attribute__((noinline)) long mutual(long depth) { return depth == 0 ? 0 : other(depth - one) + one; }
static __attribute__((noinline)) long other(long depth) { return depth == 0 ? 0 : mutual(depth - one) + 2 * one; }
static __attribute__((noinline)) long indirect(long depth) {
  pointer = depth % 2 == 0 ? indirect : mutual;
  return depth == 0 ? 0 : pointer(depth - 2) + one;
}

int main(void) {
  for (int round = 0; round < 3; ++round) {
    printf("%ld %ld %ld\n", direct(100000), mutual(100000), indirect(100000));
  }
  return 0;
}
