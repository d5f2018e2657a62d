// An OpenMP loop with a static schedule on as many threads as OMP_NUM_THREADS says.
#include <omp.h>
#include <stdio.h>

int main(void) {
  double sum = 0;
#pragma omp parallel for schedule(static) reduction(+ : sum)
  for (int index = 0; index < 64000; ++index) sum += index * 0.5;
  printf("%.1f\n", sum);
  return 0;
}
