// Parallel loops of OpenMP, with reductions, critical sections and teams of several sizes.
#include <omp.h>
#include <stdio.h>

int main(void) {
  for (int threads = 1; threads <= 5; ++threads) {
    double sum = 0;
    long count = 0;
    omp_set_num_threads(threads);
#pragma omp parallel for reduction(+ : sum) schedule(static)
    for (int index = 0; index < 20000; ++index) sum += index * 0.5;
#pragma omp parallel
    {
#pragma omp critical
      ++count;
    }
    printf("%d threads: %.1f, %ld entered\n", threads, sum, count);
  }
  return 0;
}
