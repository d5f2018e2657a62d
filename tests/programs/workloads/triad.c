/* The triad a = b + s c over arrays of doubles, in the region "triad": in each pass and for each element two
 * operations, 16 bytes read and 8 written. Prints what that makes.
 *
 *   triad [ELEMENTS [PASSES]] */
#include <roofline_events.h>
#include <stdio.h>
#include <stdlib.h>

__attribute__((noinline)) static void triad(double* restrict a, const double* restrict b, const double* restrict c,
                                            double s, long elements) {
  for (long at = 0; at < elements; ++at) a[at] = b[at] + s * c[at];
}

int main(int argc, char** argv) {
  const long elements = argc > 1 ? atol(argv[1]) : 10000;
  const long passes = argc > 2 ? atol(argv[2]) : 10;
  if (elements < 1 || passes < 0) return 2;
  double* arrays = malloc(3 * (size_t)elements * sizeof *arrays);
  if (arrays == NULL) return 1;
  double* a = arrays;
  double* b = arrays + elements;
  double* c = b + elements;
  for (long at = 0; at < elements; ++at) {
    a[at] = 0.0;
    b[at] = (double)at;
    c[at] = 1.0;
  }
  init_perf_roofline_events();
  for (long pass = 0; pass < passes; ++pass) {
    start_perf_roofline_events("triad");
    triad(a, b, c, 3.0, elements);
    stop_perf_roofline_events("triad");
  }
  finalize_perf_roofline_events();
  printf("%ld operations, %ld bytes, last %.0f\n", 2 * elements * passes, 24 * elements * passes, a[elements - 1]);
  free(arrays);
  return 0;
}
