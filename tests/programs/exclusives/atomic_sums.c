// Sums of floating-point numbers that are atomic. There is no instruction for them: each addition is a loop around a
// compare and swap.
#include <stdio.h>

enum { ROUNDS = 4000 };

int main(void) {
  double sum = 0;
  float small = 0;
#pragma omp parallel for
  for (int round = 0; round < ROUNDS; ++round) {
#pragma omp atomic
    sum += 0.5;
#pragma omp atomic
    small += 1.0F;
  }
  printf("%.1f %.1f\n", sum, (double)small);
  return sum != ROUNDS * 0.5 || small != ROUNDS;
}
