// An OpenMP loop with a static schedule on as many threads as OMP_NUM_THREADS says. Each thread has its own part of the
// sum, and the first thread adds the parts up. A reduction would add by compare-and-swap, and would repeat the addition
// where two threads meet.
#include <omp.h>
#include <stdio.h>

int main(void) {
  enum { most = 64 };
  static double parts[most];
  if (omp_get_max_threads() > most) return 2;
#pragma omp parallel
  {
    double part = 0;
#pragma omp for schedule(static)
    for (int index = 0; index < 64000; ++index) part += index * 0.5;
    parts[omp_get_thread_num()] = part;
  }
  double sum = 0;
  for (int thread = 0; thread < omp_get_max_threads(); ++thread) sum += parts[thread];
  printf("%.1f\n", sum);
  return 0;
}
