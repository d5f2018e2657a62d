// Fixed work in functions that return to signed addresses. Half of the work lies in the functions, half behind their
// returns.
#include <stdio.h>

static __attribute__((noinline)) double halved(double value) {
  volatile double half = value * 0.5;
  return half;
}

int main(void) {
  double value = 1;
  for (int round = 0; round < 5000; ++round) value = halved(value) + 1.0;
  printf("%d\n", (int)(value * 1000));
  return 0;
}
